#include "cloud/file_transfer.h"

#include <dirent.h>
#include <fcntl.h>
#include <glib.h>
#include <stdio.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <utility>
#include <vector>

#include "cloud/cloud_store.h"

namespace corvane::cloud {

namespace {

constexpr mode_t kNewFileMode = 0644;
// Deeper folder trees than this are not removed in one go; each level holds a descriptor.
constexpr int kMaxRemoveDepth = 128;

std::string Failure(const std::string& path, int error) { return path + ": " + g_strerror(error); }

// An advisory lock on an existing file, held while the object lives. A name that does not
// exist (yet), or is a link, takes no lock: there is nothing another process could be reading.
class FileLock {
 public:
  FileLock(const Entry& entry, bool exclusive) {
    fd_ = openat(entry.folder->fd(), entry.name.c_str(),
                 O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOFOLLOW);
    if (fd_ < 0) return;
    while (flock(fd_, exclusive ? LOCK_EX : LOCK_SH) != 0 && errno == EINTR) {
    }
  }
  ~FileLock() {
    if (fd_ >= 0) close(fd_);
  }
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

// A new, empty file beside `entry` under a name that no one else uses; -1 on failure.
int CreateTemporary(const Entry& entry, std::string* name) {
  // Short enough that the name stays within the file system's limit.
  const std::string stem = "." + entry.name.substr(0, 200) + ".corvane-";
  for (int attempt = 0; attempt < 100; ++attempt) {
    char suffix[16];
    std::snprintf(suffix, sizeof suffix, "%08x", g_random_int());
    *name = stem + suffix;
    const int fd = openat(entry.folder->fd(), name->c_str(),
                          O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC | O_NOFOLLOW, 0600);
    if (fd >= 0 || errno != EEXIST) return fd;
  }
  return -1;
}

// Writes the bytes of `in` (from its current offset) to a new file beside `to`, syncs it and
// renames it into place; `written` describes the new file. With `no_replace` an existing `to`
// is kept and the call fails.
bool WriteReplacing(int in, const Entry& to, bool no_replace, std::string* message,
                    struct stat* written) {
  const int dir = to.folder->fd();
  std::string temp;
  const int out = CreateTemporary(to, &temp);
  if (out < 0) {
    *message = Failure(to.path, errno);
    return false;
  }
  struct stat old;
  const mode_t mode =
      fstatat(dir, to.name.c_str(), &old, AT_SYMLINK_NOFOLLOW) == 0 && S_ISREG(old.st_mode)
          ? (old.st_mode & 07777)
          : kNewFileMode;
  int error = 0;
  bool ok = CopyData(in, out, &error) && fchmod(out, mode) == 0 && fsync(out) == 0 &&
            fstat(out, written) == 0;
  if (!ok && error == 0) error = errno;
  if (close(out) != 0 && ok) ok = false, error = errno;
  if (ok) {
    const int r = no_replace ? renameat2(dir, temp.c_str(), dir, to.name.c_str(), RENAME_NOREPLACE)
                             : renameat(dir, temp.c_str(), dir, to.name.c_str());
    if (r != 0) ok = false, error = errno;
  }
  if (!ok) {
    unlinkat(dir, temp.c_str(), 0);
    *message = Failure(to.path, error);
    return false;
  }
  fsync(dir);  // the rename itself reaches the disk with the folder
  return true;
}

void ReadAttributes(const struct stat& st, TransferOutcome& outcome) {
  outcome.attributes_read = true;
  outcome.modified_ms = MillisecondsOf(st.st_mtim.tv_sec, st.st_mtim.tv_nsec);
  outcome.size = st.st_size;
}

// Opens a regular file for reading; sets `message` otherwise. Without blocking, so that a
// named pipe fails at once instead of holding a worker until some writer comes (the flag means
// nothing to the regular file read afterwards).
int OpenSource(int dir, const std::string& name, int no_follow, const std::string& path,
               std::string* message, struct stat* st) {
  const int fd = openat(dir, name.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | no_follow);
  if (fd < 0) {
    *message = Failure(path, errno);
    return -1;
  }
  if (fstat(fd, st) != 0 || !S_ISREG(st->st_mode)) {
    *message = Failure(path, S_ISDIR(st->st_mode) ? EISDIR : EINVAL);
    close(fd);
    return -1;
  }
  return fd;
}
int OpenSource(const Entry& entry, std::string* message, struct stat* st) {
  return OpenSource(entry.folder->fd(), entry.name, O_NOFOLLOW, entry.path, message, st);
}

// Empties the folder `dir` (and closes it): entries are unlinked by name in it, links included,
// and subfolders are entered only as folders, never through a link.
bool RemoveContents(int dir, int depth) {
  DIR* stream = fdopendir(dir);
  if (!stream) {
    close(dir);
    return false;
  }
  std::vector<std::string> names;
  while (dirent* e = readdir(stream)) {
    const std::string name = e->d_name;
    if (name != "." && name != "..") names.push_back(name);
  }
  bool ok = true;
  for (const std::string& name : names) {
    if (unlinkat(dirfd(stream), name.c_str(), 0) == 0) continue;
    if (errno != EISDIR || depth >= kMaxRemoveDepth) {
      ok = false;
      continue;
    }
    const int sub =
        openat(dirfd(stream), name.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
    ok = sub >= 0 && RemoveContents(sub, depth + 1) &&
         unlinkat(dirfd(stream), name.c_str(), AT_REMOVEDIR) == 0 && ok;
  }
  closedir(stream);
  return ok;
}

}  // namespace

TransferOutcome CopyOut(const Entry& from, const Entry& to) {
  TransferOutcome outcome;
  struct stat st;
  const int in = OpenSource(from, &outcome.message, &st);
  if (in < 0) return outcome;
  // The shared lock on the very file being read.
  while (flock(in, LOCK_SH) != 0 && errno == EINTR) {
  }
  struct stat written;
  outcome.ok = WriteReplacing(in, to, false, &outcome.message, &written);
  if (outcome.ok && fstat(in, &st) == 0) ReadAttributes(st, outcome);
  close(in);
  return outcome;
}

LocalSource::LocalSource(const std::string& path) {
  struct stat st;
  if (path.empty() || path[0] != '/') {
    message = path + ": not an absolute path";
  } else {
    fd = OpenSource(AT_FDCWD, path, 0, path, &message, &st);
  }
}

LocalSource::~LocalSource() {
  if (fd >= 0) close(fd);
}

TransferOutcome CopyIn(const LocalSource& from, const Entry& to) {
  TransferOutcome outcome;
  struct stat st;
  if (from.fd < 0) {
    outcome.message = from.message;
    return outcome;
  }
  {
    FileLock lock(to, true);
    outcome.ok = WriteReplacing(from.fd, to, false, &outcome.message, &st);
  }
  if (outcome.ok) ReadAttributes(st, outcome);
  return outcome;
}

bool ReplaceContent(const Entry& to, const Entry& from) {
  std::string message;
  struct stat st;
  const int in = OpenSource(from, &message, &st);
  if (in < 0) return false;
  bool ok;
  {
    FileLock lock(to, true);
    ok = WriteReplacing(in, to, false, &message, &st);
  }
  close(in);
  return ok;
}

bool RemoveItem(const Entry& entry) {
  const int dir = entry.folder->fd();
  {
    FileLock lock(entry, true);
    if (unlinkat(dir, entry.name.c_str(), 0) == 0) return true;
  }
  if (errno != EISDIR) return false;
  const int sub = openat(dir, entry.name.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
  return sub >= 0 && RemoveContents(sub, 0) && unlinkat(dir, entry.name.c_str(), AT_REMOVEDIR) == 0;
}

bool MoveItem(const Entry& from, const Entry& to, bool across_file_systems) {
  struct stat st;
  if (fstatat(from.folder->fd(), from.name.c_str(), &st, AT_SYMLINK_NOFOLLOW) != 0) return false;
  // Both locks in one fixed order, so two moves between the same files cannot deadlock.
  const bool from_first = from.path < to.path;
  FileLock first(from_first ? from : to, true);
  FileLock second(from_first ? to : from, true);
  const int from_dir = from.folder->fd(), to_dir = to.folder->fd();
  const char* from_name = from.name.c_str();
  const char* to_name = to.name.c_str();
  if (renameat2(from_dir, from_name, to_dir, to_name, RENAME_NOREPLACE) == 0) return true;
  if (errno == EINVAL) {
    // A file system without the no-replace flag: check, then rename.
    struct stat existing;
    if (fstatat(to_dir, to_name, &existing, AT_SYMLINK_NOFOLLOW) == 0) return false;
    if (renameat(from_dir, from_name, to_dir, to_name) == 0) return true;
  }
  if (errno != EXDEV || !across_file_systems || !S_ISREG(st.st_mode)) return false;
  std::string message;
  const int in = OpenSource(from, &message, &st);
  if (in < 0) return false;
  const bool copied = WriteReplacing(in, to, true, &message, &st);
  close(in);
  // The source goes only once the copy is safely on disk; if removing it fails both stay.
  return copied && unlinkat(from_dir, from_name, 0) == 0;
}

}  // namespace corvane::cloud
