#include "cloud/container_dir.h"

#include <fcntl.h>
#include <glib.h>
#include <linux/openat2.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <climits>
#include <vector>

#include "cloud/paths.h"

namespace corvane::cloud {

namespace {

constexpr int kFolderFlags = O_RDONLY | O_DIRECTORY | O_CLOEXEC;

// Set once openat2 turns out to be missing (kernels before 5.6, or a filter that hides it).
std::atomic<bool> g_component_walk{false};

int OpenBeneath(int root, const std::string& relative) {
  open_how how{};
  how.flags = kFolderFlags;
  how.resolve = RESOLVE_BENEATH | RESOLVE_NO_SYMLINKS | RESOLVE_NO_MAGICLINKS;
  return static_cast<int>(syscall(SYS_openat2, root, relative.c_str(), &how, sizeof how));
}

// Opens the folders `names` below `root` one at a time, never through a link; with `create`
// the missing ones are made.
int Walk(int root, const std::vector<std::string>& names, bool create) {
  int fd = root;
  for (const std::string& name : names) {
    int next = openat(fd, name.c_str(), kFolderFlags | O_NOFOLLOW);
    if (next < 0 && errno == ENOENT && create &&
        (mkdirat(fd, name.c_str(), 0755) == 0 || errno == EEXIST)) {
      next = openat(fd, name.c_str(), kFolderFlags | O_NOFOLLOW);
    }
    const int error = errno;
    if (fd != root) close(fd);
    if (next < 0) {
      errno = error;
      return -1;
    }
    fd = next;
  }
  return fd;
}

}  // namespace

Folder::~Folder() {
  if (fd_ >= 0) close(fd_);
}

std::shared_ptr<const ContainerDir> ContainerDir::Open(const std::string& folder) {
  const int fd = open(folder.c_str(), kFolderFlags);
  if (fd < 0) return nullptr;
  return std::shared_ptr<const ContainerDir>(
      new ContainerDir(std::make_shared<Folder>(fd), folder));
}

std::optional<Entry> ContainerDir::Find(const std::string& path, bool create_folders,
                                        int* error) const {
  *error = kRefused;
  if (path.size() <= path_.size() + 1 || path.compare(0, path_.size(), path_) != 0 ||
      path[path_.size()] != '/') {
    return std::nullopt;
  }
  if (path.size() >= PATH_MAX) {
    *error = ENAMETOOLONG;
    return std::nullopt;
  }
  std::vector<std::string> names;
  std::string below;  // the folders below the container, joined again without empty names
  for (size_t start = path_.size() + 1; start <= path.size();) {
    size_t end = path.find('/', start);
    if (end == std::string::npos) end = path.size();
    std::string name = path.substr(start, end - start);
    start = end + 1;
    if (name.empty()) continue;
    if (name == "." || name == "..") return std::nullopt;
    names.push_back(std::move(name));
  }
  if (names.empty()) return std::nullopt;
  Entry entry{root_, std::move(names.back()), path};
  names.pop_back();
  if (names.empty()) return entry;
  int fd = -1;
  bool walk = g_component_walk;
  if (!walk) {
    for (const auto& name : names) below += (below.empty() ? "" : "/") + name;
    fd = OpenBeneath(root_->fd(), below);
    if (fd < 0 && errno == ENOSYS) g_component_walk = walk = true;
    if (fd < 0 && errno == ENOENT && create_folders) walk = true;
  }
  if (walk) fd = Walk(root_->fd(), names, create_folders);
  if (fd < 0) {
    *error = errno;
    return std::nullopt;
  }
  entry.folder = std::make_shared<Folder>(fd);
  return entry;
}

std::optional<Entry> LocalEntry(const std::string& path, bool create_folders, int* error) {
  *error = kRefused;
  if (path.empty() || path[0] != '/') return std::nullopt;
  if (path.size() >= PATH_MAX) {
    *error = ENAMETOOLONG;
    return std::nullopt;
  }
  std::string trimmed = path;
  while (trimmed.size() > 1 && trimmed.back() == '/') trimmed.pop_back();
  const std::string name = Basename(trimmed);
  if (name == "/" || name == "." || name == "..") return std::nullopt;
  const std::string parent = Dirname(trimmed);
  if (create_folders && g_mkdir_with_parents(parent.c_str(), 0755) != 0) {
    *error = errno;
    return std::nullopt;
  }
  const int fd = open(parent.c_str(), kFolderFlags);
  if (fd < 0) {
    *error = errno;
    return std::nullopt;
  }
  return Entry{std::make_shared<Folder>(fd), name, path};
}

void UseComponentWalk(bool on) { g_component_walk = on; }

}  // namespace corvane::cloud
