// Files below the cloud container, reached through descriptors only. The container folder is
// opened once; every path below it is resolved from that descriptor without following any link,
// and the operations then act on the folder descriptor they were given (openat, unlinkat,
// renameat), never on the path string again. So a link that a sync client, or any process of
// the user, swaps in between a check and a use cannot lead an operation out of the container.
#pragma once

#include <memory>
#include <optional>
#include <string>

namespace corvane::cloud {

// An open folder, closed with its last holder.
class Folder {
 public:
  explicit Folder(int fd) : fd_(fd) {}
  ~Folder();
  Folder(const Folder&) = delete;
  Folder& operator=(const Folder&) = delete;
  int fd() const { return fd_; }

 private:
  int fd_;
};

// One name in an open folder: what every file operation works on.
struct Entry {
  std::shared_ptr<const Folder> folder;
  std::string name;
  std::string path;  // as the caller gave it, for messages only
};

// The error of a path refused by its name alone: relative, outside the container, or climbing.
inline constexpr int kRefused = -1;

class ContainerDir {
 public:
  // Nothing when `folder` cannot be opened as a folder.
  static std::shared_ptr<const ContainerDir> Open(const std::string& folder);

  // The entry that the absolute `path` names strictly below the container. Its folder is
  // reached without following links; with `create_folders` the missing ones on the way are
  // made. Nothing when the path is relative, outside, climbs ("..") or passes a link, with
  // `*error` kRefused or the system's error number.
  std::optional<Entry> Find(const std::string& path, bool create_folders, int* error) const;

  const std::string& path() const { return path_; }

 private:
  ContainerDir(std::shared_ptr<const Folder> root, std::string path)
      : root_(std::move(root)), path_(std::move(path)) {}
  std::shared_ptr<const Folder> root_;
  std::string path_;
};

// The entry of a local file outside the container: its folder opened by name, links and all,
// since the caller chose it. Relative paths are refused (kRefused), never resolved
// against the working folder.
std::optional<Entry> LocalEntry(const std::string& path, bool create_folders, int* error);

// Resolves folder by folder with O_NOFOLLOW, as on kernels without openat2; for tests.
void UseComponentWalk(bool on);

}  // namespace corvane::cloud
