// Where the engine socket may be served. Another local user must not be able to put a socket
// of their own where clients look for ours, nor make the host delete a file that is not a
// socket, so the folder and the path are checked before binding.
#pragma once

#include <sys/types.h>

#include <string>

namespace corvane::engine {

// How strict the folder check is. The folder the host picks itself must be private (0700);
// a folder the user names may be readable by others, but nobody else may write into it.
enum class FolderRule { kPrivate, kNotWritableByOthers };

// Creates `dir` (0700, with missing parents) when it does not exist. An existing one must be a
// real folder, not a symbolic link, owned by this user, and meet `rule`. False with a one-line
// reason naming the folder otherwise.
bool PrepareSocketFolder(const std::string& dir, FolderRule rule, std::string* error);

// What is at a socket path before binding.
enum class SocketPathState {
  kFree,        // nothing there
  kStale,       // a socket nobody answers on: safe to replace
  kServed,      // a socket someone answers on
  kNotASocket,  // a file, folder, link, ...: never replaced
};
SocketPathState InspectSocketPath(const std::string& path);

// Identity of the socket file the host bound, so that it removes only its own at exit.
struct SocketFileId {
  dev_t device = 0;
  ino_t inode = 0;
  bool valid = false;
};
SocketFileId IdentifySocketFile(const std::string& path);
// Unlinks `path` only when it is still the socket file `id` names.
void RemoveSocketFileIfOurs(const std::string& path, const SocketFileId& id);

}  // namespace corvane::engine
