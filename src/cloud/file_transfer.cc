#include "cloud/file_transfer.h"

#include <fcntl.h>
#include <ftw.h>
#include <glib.h>
#include <stdio.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <utility>

#include "cloud/cloud_store.h"
#include "cloud/paths.h"

namespace corvane::cloud {

namespace {

constexpr mode_t kNewFileMode = 0644;

std::string Failure(const std::string& path, int error) { return path + ": " + g_strerror(error); }

// An advisory lock on an existing file, held while the object lives. A path that does not exist
// (yet) takes no lock: there is nothing another process could be reading.
class FileLock {
 public:
  FileLock(const std::string& path, bool exclusive) {
    fd_ = open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
    if (fd_ < 0) return;
    while (flock(fd_, exclusive ? LOCK_EX : LOCK_SH) != 0 && errno == EINTR) {
    }
  }
  ~FileLock() {
    if (fd_ >= 0) close(fd_);
  }
  FileLock(FileLock&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
  FileLock(const FileLock&) = delete;
  FileLock& operator=(const FileLock&) = delete;

 private:
  int fd_ = -1;
};

bool CopyData(int in, int out, int* error) {
  // copy_file_range lets the kernel move the bytes (or share extents); plain reads and writes
  // where it cannot.
  for (;;) {
    const ssize_t n = copy_file_range(in, nullptr, out, nullptr, 1 << 30, 0);
    if (n == 0) return true;
    if (n > 0) continue;
    if (errno == EINTR) continue;
    if (errno == EXDEV || errno == EINVAL || errno == ENOSYS || errno == EOPNOTSUPP) break;
    *error = errno;
    return false;
  }
  char buffer[1 << 17];
  for (;;) {
    const ssize_t n = read(in, buffer, sizeof buffer);
    if (n == 0) return true;
    if (n < 0) {
      if (errno == EINTR) continue;
      *error = errno;
      return false;
    }
    for (ssize_t done = 0; done < n;) {
      const ssize_t w = write(out, buffer + done, static_cast<size_t>(n - done));
      if (w < 0) {
        if (errno == EINTR) continue;
        *error = errno;
        return false;
      }
      done += w;
    }
  }
}

// Writes the bytes of `in` (from its current offset) to a new file beside `path`, syncs it and
// renames it into place. With `no_replace` an existing `path` is kept and the call fails.
bool WriteReplacing(int in, const std::string& path, bool no_replace, std::string* message) {
  std::string temp = Dirname(path) + "/." + Basename(path) + ".corvane-XXXXXX";
  const int out = mkostemp(temp.data(), O_CLOEXEC);
  if (out < 0) {
    *message = Failure(path, errno);
    return false;
  }
  struct stat old;
  const mode_t mode = stat(path.c_str(), &old) == 0 ? (old.st_mode & 07777) : kNewFileMode;
  int error = 0;
  bool ok = CopyData(in, out, &error) && fchmod(out, mode) == 0 && fsync(out) == 0;
  if (!ok && error == 0) error = errno;
  if (close(out) != 0 && ok) ok = false, error = errno;
  if (ok) {
    const int r = no_replace
                      ? renameat2(AT_FDCWD, temp.c_str(), AT_FDCWD, path.c_str(), RENAME_NOREPLACE)
                      : rename(temp.c_str(), path.c_str());
    if (r != 0) ok = false, error = errno;
  }
  if (!ok) {
    unlink(temp.c_str());
    *message = Failure(path, error);
    return false;
  }
  // The rename itself reaches the disk with the folder.
  const int dir = open(Dirname(path).c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (dir >= 0) {
    fsync(dir);
    close(dir);
  }
  return true;
}

void ReadAttributes(const std::string& path, TransferOutcome& outcome) {
  struct stat st;
  if (stat(path.c_str(), &st) != 0) return;
  outcome.attributes_read = true;
  outcome.modified_ms = MillisecondsOf(st.st_mtim.tv_sec, st.st_mtim.tv_nsec);
  outcome.size = st.st_size;
}

// Opens a regular file for reading; sets `message` otherwise. Without blocking, so that a
// named pipe fails at once instead of holding a worker until some writer comes (the flag means
// nothing to the regular file read afterwards).
int OpenSource(const std::string& path, std::string* message) {
  const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
  if (fd < 0) {
    *message = Failure(path, errno);
    return -1;
  }
  struct stat st;
  if (fstat(fd, &st) != 0 || !S_ISREG(st.st_mode)) {
    *message = Failure(path, S_ISDIR(st.st_mode) ? EISDIR : EINVAL);
    close(fd);
    return -1;
  }
  return fd;
}

int RemoveEntry(const char* path, const struct stat*, int type, struct FTW*) {
  return type == FTW_DP ? rmdir(path) : unlink(path);
}

}  // namespace

bool IsInsideFolder(const std::string& given, const std::string& folder) {
  std::string path = given;
  while (path.size() > 1 && path.back() == '/') path.pop_back();
  if (path.empty() || path[0] != '/' || folder.empty()) return false;
  // The nearest folder above that exists, resolved, plus the names below it that do not.
  std::string base = Basename(path);
  if (base == "." || base == ".." || base == "/") return false;
  std::string existing = Dirname(path);
  std::string rest = base;
  char* real = nullptr;
  while (!(real = realpath(existing.c_str(), nullptr))) {
    const std::string name = Basename(existing);
    if (name == "." || name == ".." || existing == "/") return false;
    rest = name + "/" + rest;
    existing = Dirname(existing);
  }
  std::string resolved = real;
  free(real);
  resolved += (resolved == "/" ? "" : "/") + rest;
  return resolved != folder && IsSameOrBelow(resolved, folder);
}

bool CreateParentFolder(const std::string& path, std::string* message) {
  const std::string parent = Dirname(path);
  if (g_mkdir_with_parents(parent.c_str(), 0755) == 0) return true;
  if (message) *message = Failure(parent, errno);
  return false;
}

TransferOutcome CopyOut(const std::string& path, const std::string& to) {
  TransferOutcome outcome;
  const int in = OpenSource(path, &outcome.message);
  if (in < 0) return outcome;
  {
    FileLock lock(path, false);
    outcome.ok =
        CreateParentFolder(to, &outcome.message) && WriteReplacing(in, to, false, &outcome.message);
  }
  close(in);
  if (outcome.ok) ReadAttributes(path, outcome);
  return outcome;
}

TransferOutcome CopyIn(const std::string& from, const std::string& path) {
  TransferOutcome outcome;
  const int in = OpenSource(from, &outcome.message);
  if (in < 0) return outcome;
  if (CreateParentFolder(path, &outcome.message)) {
    FileLock lock(path, true);
    outcome.ok = WriteReplacing(in, path, false, &outcome.message);
  }
  close(in);
  if (outcome.ok) ReadAttributes(path, outcome);
  return outcome;
}

bool ReplaceContent(const std::string& path, const std::string& source) {
  std::string message;
  const int in = OpenSource(source, &message);
  if (in < 0) return false;
  bool ok;
  {
    FileLock lock(path, true);
    ok = WriteReplacing(in, path, false, &message);
  }
  close(in);
  return ok;
}

bool RemoveItem(const std::string& path) {
  struct stat st;
  if (lstat(path.c_str(), &st) != 0) return false;
  if (!S_ISDIR(st.st_mode)) {
    FileLock lock(path, true);
    return unlink(path.c_str()) == 0;
  }
  return nftw(path.c_str(), RemoveEntry, 16, FTW_DEPTH | FTW_PHYS) == 0;
}

bool MoveItem(const std::string& from, const std::string& to, bool across_file_systems) {
  struct stat st;
  if (lstat(from.c_str(), &st) != 0) return false;
  // Both locks in one fixed order, so two moves between the same files cannot deadlock.
  const bool from_first = from < to;
  FileLock first(from_first ? from : to, true);
  FileLock second(from_first ? to : from, true);
  if (renameat2(AT_FDCWD, from.c_str(), AT_FDCWD, to.c_str(), RENAME_NOREPLACE) == 0) return true;
  if (errno == EINVAL) {
    // A file system without the no-replace flag: check, then rename.
    struct stat existing;
    if (lstat(to.c_str(), &existing) == 0) return false;
    if (rename(from.c_str(), to.c_str()) == 0) return true;
  }
  if (errno != EXDEV || !across_file_systems || !S_ISREG(st.st_mode)) return false;
  std::string message;
  const int in = OpenSource(from, &message);
  if (in < 0) return false;
  const bool copied = WriteReplacing(in, to, true, &message);
  close(in);
  // The source goes only once the copy is safely on disk; if removing it fails both stay.
  return copied && unlink(from.c_str()) == 0;
}

}  // namespace corvane::cloud
