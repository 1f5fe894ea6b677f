#include "legacy/legacy_files.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <vector>

#include "channel/log.h"
#include "channel/utf8.h"
#include "legacy/legacy_log.h"

namespace corvane::legacy {

namespace {

using channel::Value;
using channel::ValueList;
using channel::ValueMap;

constexpr std::string_view kPlaceholderSuffix = ".icloud";

struct Folder {
  std::string path;
  const char* kind;
};

// One folder's entries. Hidden files other than placeholders (".DS_Store" and the like) and
// anything that is not a regular file are left out.
void ListFolder(const Folder& folder, ValueList& out) {
  const int dir_fd = open(folder.path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (dir_fd < 0) return;
  DIR* dir = fdopendir(dir_fd);
  if (!dir) {
    close(dir_fd);
    return;
  }
  std::vector<std::string> names;
  while (const dirent* e = readdir(dir)) names.emplace_back(e->d_name);
  std::sort(names.begin(), names.end());

  for (const std::string& file : names) {
    std::string_view name = file;
    bool downloaded = true;
    if (name.starts_with('.')) {
      name = PlaceholderTarget(file);
      if (name.empty()) continue;
      downloaded = false;
    }
    struct stat st {};
    if (fstatat(dir_fd, file.c_str(), &st, 0) != 0 || !S_ISREG(st.st_mode)) continue;
    if (out.size() >= kMaxListedFiles) {
      channel::Log(channel::LogLevel::kWarning, kLogDomain,
                   "more than " + std::to_string(kMaxListedFiles) + " legacy files; the rest of " +
                       folder.path + " is not listed");
      break;
    }
    // Milliseconds rounded down, also before 1970: the nanoseconds are never negative.
    const int64_t modified_ms =
        static_cast<int64_t>(st.st_mtim.tv_sec) * 1000 + st.st_mtim.tv_nsec / 1000000;
    std::string path = folder.path + "/" + file;
    // Names are bytes here but strings on the Flutter side, which refuses malformed UTF-8;
    // a path mangled into valid text would name no file, so such files are left out.
    if (!channel::IsValidUtf8(reinterpret_cast<const uint8_t*>(path.data()), path.size())) {
      continue;
    }
    ValueMap entry;
    entry.Append(Value("kind"), Value(folder.kind));
    entry.Append(Value("name"), Value(name));
    entry.Append(Value("path"), Value(std::move(path)));
    entry.Append(Value("bytes"), Value::Integer(st.st_size));
    entry.Append(Value("modifiedMs"), Value(modified_ms));
    entry.Append(Value("downloaded"), Value(downloaded));
    out.emplace_back(std::move(entry));
  }
  closedir(dir);
}

}  // namespace

std::string_view PlaceholderTarget(std::string_view file_name) {
  if (file_name.size() <= 1 + kPlaceholderSuffix.size() || !file_name.starts_with('.') ||
      !file_name.ends_with(kPlaceholderSuffix)) {
    return {};
  }
  return file_name.substr(1, file_name.size() - 1 - kPlaceholderSuffix.size());
}

ValueList ListLegacyFiles(const LegacyLocations& locations) {
  const std::string app = locations.application_folder();
  const std::string& cloud = locations.cloud_folder();
  const Folder folders[] = {
      {app.empty() ? app : app + "/LocalProjects", "localProject"},
      {app.empty() ? app : app + "/Backups", "backup"},
      {cloud.empty() ? cloud : cloud + "/Documents/Projects", "cloudProject"},
      {cloud.empty() ? cloud : cloud + "/Documents/Backups", "backup"},
  };
  ValueList entries;
  for (const Folder& folder : folders) {
    if (!folder.path.empty()) ListFolder(folder, entries);
  }
  return entries;
}

}  // namespace corvane::legacy
