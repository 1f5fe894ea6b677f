#include "legacy/legacy_backup.h"

#include <fcntl.h>
#include <glib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "channel/log.h"
#include "legacy/legacy_log.h"

namespace corvane::legacy {

namespace {

void LogFailure(const std::string& what, const std::string& path, int error) {
  channel::Log(channel::LogLevel::kWarning, kLogDomain,
               "backup " + what + " " + path + ": " + std::strerror(error));
}

bool WriteAll(int fd, const std::vector<uint8_t>& bytes) {
  size_t done = 0;
  while (done < bytes.size()) {
    const ssize_t n = write(fd, bytes.data() + done, bytes.size() - done);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    done += static_cast<size_t>(n);
  }
  return true;
}

}  // namespace

bool BackupPathTaken(const std::string& path) {
  struct stat st {};
  return lstat(path.c_str(), &st) == 0;
}

BackupOutcome WriteBackup(const std::string& path, const std::vector<uint8_t>& bytes) {
  if (BackupPathTaken(path)) return BackupOutcome::kExists;

  const size_t slash = path.rfind('/');
  if (slash != std::string::npos && slash > 0) {
    const std::string parent = path.substr(0, slash);
    if (g_mkdir_with_parents(parent.c_str(), 0700) != 0) {
      LogFailure("folder for", path, errno);
      return BackupOutcome::kFailed;
    }
  }
  // O_EXCL decides the race: between the check above and here another writer may have come.
  const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
  if (fd < 0) {
    if (errno == EEXIST) return BackupOutcome::kExists;
    LogFailure("cannot create", path, errno);
    return BackupOutcome::kFailed;
  }
  // Synced before it counts as written: the user may delete the original next.
  const bool ok = WriteAll(fd, bytes) && fsync(fd) == 0;
  const int error = errno;
  if (close(fd) != 0 || !ok) {
    LogFailure("cannot write", path, ok ? errno : error);
    unlink(path.c_str());  // ours alone: it was created exclusively just now
    return BackupOutcome::kFailed;
  }
  return BackupOutcome::kWritten;
}

}  // namespace corvane::legacy
