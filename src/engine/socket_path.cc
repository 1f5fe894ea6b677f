#include "engine/socket_path.h"

#include <errno.h>
#include <fcntl.h>
#include <glib.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>

namespace corvane::engine {

namespace {

std::string Octal(mode_t mode) {
  char text[8];
  std::snprintf(text, sizeof text, "%04o", static_cast<unsigned>(mode & 07777));
  return text;
}

std::string Refuse(const std::string& dir, const std::string& why) {
  return "refusing the socket folder " + dir + ": " + why;
}

}  // namespace

bool PrepareSocketFolder(const std::string& dir, FolderRule rule, std::string* error) {
  struct stat st {};
  if (lstat(dir.c_str(), &st) != 0) {
    if (errno != ENOENT) {
      *error = Refuse(dir, std::strerror(errno));
      return false;
    }
    if (g_mkdir_with_parents(dir.c_str(), 0700) != 0) {
      *error = "cannot create the socket folder " + dir + ": " + std::strerror(errno);
      return false;
    }
  }
  // Checked on the opened folder, so what is checked is what was opened, not a link swapped
  // in between.
  const int fd = open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
  if (fd < 0) {
    const bool link = lstat(dir.c_str(), &st) == 0 && S_ISLNK(st.st_mode);
    *error = Refuse(dir, link ? "it is a symbolic link" : std::strerror(errno));
    return false;
  }
  const int rc = fstat(fd, &st);
  close(fd);
  if (rc != 0) {
    *error = Refuse(dir, std::strerror(errno));
    return false;
  }
  if (st.st_uid != geteuid()) {
    *error = Refuse(dir, "it belongs to uid " + std::to_string(st.st_uid) + ", not to uid " +
                             std::to_string(geteuid()));
    return false;
  }
  const mode_t forbidden = rule == FolderRule::kPrivate ? 077 : 022;
  if ((st.st_mode & forbidden) != 0) {
    *error = Refuse(
        dir, std::string("its mode is ") + Octal(st.st_mode) +
                 (rule == FolderRule::kPrivate ? ", not 0700" : ", so others may write into it"));
    return false;
  }
  return true;
}

SocketPathState InspectSocketPath(const std::string& path) {
  struct stat st {};
  if (lstat(path.c_str(), &st) != 0) {
    return errno == ENOENT ? SocketPathState::kFree : SocketPathState::kNotASocket;
  }
  if (!S_ISSOCK(st.st_mode)) return SocketPathState::kNotASocket;
  sockaddr_un addr{};
  addr.sun_family = AF_UNIX;
  if (path.size() >= sizeof addr.sun_path) return SocketPathState::kNotASocket;
  std::memcpy(addr.sun_path, path.c_str(), path.size() + 1);
  const int probe = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (probe < 0) return SocketPathState::kServed;  // cannot tell: leave it alone
  const bool alive = connect(probe, reinterpret_cast<sockaddr*>(&addr), sizeof addr) == 0;
  // A full backlog means someone is there, just busy.
  const bool busy = !alive && (errno == EAGAIN || errno == EACCES);
  close(probe);
  return alive || busy ? SocketPathState::kServed : SocketPathState::kStale;
}

SocketFileId IdentifySocketFile(const std::string& path) {
  struct stat st {};
  if (lstat(path.c_str(), &st) != 0 || !S_ISSOCK(st.st_mode)) return {};
  return SocketFileId{st.st_dev, st.st_ino, true};
}

void RemoveSocketFileIfOurs(const std::string& path, const SocketFileId& id) {
  if (!id.valid) return;
  const SocketFileId now = IdentifySocketFile(path);
  if (now.valid && now.device == id.device && now.inode == id.inode) unlink(path.c_str());
}

}  // namespace corvane::engine
