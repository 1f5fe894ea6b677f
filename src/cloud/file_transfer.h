// File operations with coordination: advisory locks (shared to read, exclusive to write) that
// other cooperating processes see too, and replacement by rename so that a reader sees the old
// file or the new one, never a mix, and a failed write leaves the old content.
#pragma once

#include <cstdint>
#include <string>

namespace corvane::cloud {

struct TransferOutcome {
  bool ok = false;
  bool attributes_read = false;  // modified_ms and size describe the file afterwards
  int64_t modified_ms = 0;
  int64_t size = 0;
  std::string message;  // why it failed, in the system's words
};

// Copies the cloud file `path` to the local file `to`, replacing what is there.
TransferOutcome CopyOut(const std::string& path, const std::string& to);
// Copies the local file `from` to the cloud file `path`, creating its folders.
TransferOutcome CopyIn(const std::string& from, const std::string& path);
// Replaces `path` by the content of `source` (which stays), under an exclusive lock of `path`.
bool ReplaceContent(const std::string& path, const std::string& source);
// Removes a file, or a folder with everything in it (links are removed, not followed).
bool RemoveItem(const std::string& path);
// Renames `from` to `to`; never replaces an existing `to`. With `across_file_systems`, a move
// to another file system copies, syncs and only then removes the source.
bool MoveItem(const std::string& from, const std::string& to, bool across_file_systems);
// Whether `path` names something strictly inside `folder` (a real path), once the links in its
// folders are resolved; the last component itself is not followed, so a link inside may be
// removed or moved but never leads the operation out. Relative paths are never inside.
bool IsInsideFolder(const std::string& path, const std::string& folder);

// Creates the parent folder of `path` with its ancestors.
bool CreateParentFolder(const std::string& path, std::string* message);

}  // namespace corvane::cloud
