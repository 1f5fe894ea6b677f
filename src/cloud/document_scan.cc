#include "cloud/document_scan.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <set>

#include "channel/log.h"
#include "cloud/cloud_store.h"
#include "cloud/conflict_names.h"

namespace corvane::cloud {

namespace {

// Bounds against a hostile tree: nesting deeper than this is not a document library.
constexpr int kMaxDepth = 64;
constexpr size_t kMaxFolders = 100000;

bool EndsWithIgnoringCase(std::string_view name, std::string_view suffix) {
  if (name.size() < suffix.size()) return false;
  for (size_t i = 0; i < suffix.size(); ++i) {
    char c = name[name.size() - suffix.size() + i];
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
    if (c != suffix[i]) return false;
  }
  return true;
}

struct Walker {
  std::string root;
  DocumentScan scan;

  void Walk(int dir_fd, const std::string& relative, const std::string& path, int depth) {
    DIR* dir = fdopendir(dir_fd);
    if (!dir) {
      close(dir_fd);
      return;
    }
    scan.folders.push_back(path);
    std::vector<std::string> subfolders;
    std::set<std::string> in_conflict;
    const size_t first_item = scan.items.size();
    while (dirent* entry = readdir(dir)) {
      const std::string_view name(entry->d_name);
      // Hidden names are the sync clients' own (".stfolder", ".syncthing.*.tmp") or temporary.
      if (name[0] == '.') continue;
      unsigned char type = entry->d_type;
      const bool document = IsDocumentName(name);
      const bool maybe_copy = MayBeConflictCopyName(name);
      struct stat st;
      if (type == DT_UNKNOWN || ((document || maybe_copy) && type == DT_REG)) {
        if (fstatat(dirfd(dir), entry->d_name, &st, AT_SYMLINK_NOFOLLOW) != 0) continue;
        type = S_ISDIR(st.st_mode) ? DT_DIR : S_ISREG(st.st_mode) ? DT_REG : DT_UNKNOWN;
      }
      if (type == DT_DIR) {
        subfolders.emplace_back(name);
        continue;
      }
      if (type != DT_REG) continue;
      if (maybe_copy) {
        if (auto copy = ParseConflictCopyName(name)) {
          in_conflict.insert(copy->original);
          continue;
        }
      }
      if (!document) continue;
      scan.items.push_back(
          DocumentItem{relative.empty() ? std::string(name) : relative + "/" + std::string(name),
                       st.st_size, MillisecondsOf(st.st_mtim.tv_sec, st.st_mtim.tv_nsec), false});
    }
    if (!in_conflict.empty()) {
      for (size_t i = first_item; i < scan.items.size(); ++i) {
        const std::string& rel = scan.items[i].relative;
        const size_t slash = rel.find_last_of('/');
        scan.items[i].has_conflicts =
            in_conflict.count(slash == std::string::npos ? rel : rel.substr(slash + 1)) > 0;
      }
    }
    for (const auto& name : subfolders) {
      if (depth + 1 > kMaxDepth || scan.folders.size() >= kMaxFolders) {
        channel::Log(channel::LogLevel::kWarning, "corvane-cloud",
                     "listing stops at " + path + ": folders nested too deep or too many");
        break;
      }
      const int fd =
          openat(dirfd(dir), name.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
      if (fd < 0) continue;
      Walk(fd, relative.empty() ? name : relative + "/" + name, path + "/" + name, depth + 1);
    }
    closedir(dir);
  }
};

}  // namespace

bool IsDocumentName(std::string_view name) {
  return EndsWithIgnoringCase(name, ".corvane") || EndsWithIgnoringCase(name, ".corvanepack") ||
         name.rfind("corvane-backup-", 0) == 0;
}

DocumentScan ScanDocuments(const std::string& documents) {
  Walker walker{documents, {}};
  const int fd = open(documents.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (fd < 0) return walker.scan;
  walker.scan.ok = true;
  walker.Walk(fd, "", documents, 0);
  return walker.scan;
}

}  // namespace corvane::cloud
