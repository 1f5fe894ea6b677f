// The cloud store of a folder that a desktop sync client keeps in step with other machines.
#include <dirent.h>
#include <fcntl.h>
#include <glib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>

#include "cloud/cloud_store.h"
#include "cloud/conflict_names.h"
#include "cloud/desktop_client_state.h"
#include "cloud/paths.h"
#include "cloud/syncthing_state.h"

namespace corvane::cloud {

namespace {

bool IsDirectory(const std::string& path) {
  struct stat st;
  return stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

class SyncedFolderStore final : public CloudStore {
 public:
  explicit SyncedFolderStore(ClientPaths paths) : paths_(std::move(paths)) {}

  ContainerLocation Locate(const std::string& container_id) override {
    ContainerLocation location;
    std::vector<SyncRoot> roots = DetectSyncRoots(paths_);
    SyncRoot chosen;
    if (auto configured = ConfiguredFolder(paths_, container_id)) {
      chosen.folder = *configured;
      // The folder is probably inside a client's sync root: that client's account owns it.
      size_t best = 0;
      for (const auto& root : roots) {
        if (IsSameOrBelow(chosen.folder, root.folder) && root.folder.size() >= best) {
          best = root.folder.size();
          chosen.kind = root.kind;
          chosen.account = root.account;
        }
      }
    } else if (roots.empty()) {
      return location;  // no account
    } else {
      // The first root that holds the container; else the first root, where it is missing.
      auto holds = std::find_if(roots.begin(), roots.end(), [&](const SyncRoot& r) {
        return IsDirectory(r.folder + "/" + container_id);
      });
      chosen = holds != roots.end() ? *holds : roots.front();
      chosen.folder += "/" + container_id;
    }
    const bool present = IsDirectory(chosen.folder);
    location.status =
        present ? ContainerLocation::Status::kAvailable : ContainerLocation::Status::kNoContainer;
    location.folder = present ? RealPath(chosen.folder) : chosen.folder;
    location.identity_source =
        KindName(chosen.kind) + "\n" + chosen.account + "\n" + location.folder;
    return location;
  }

  std::vector<std::string> ConfigurationFiles() override {
    return cloud::ConfigurationFiles(paths_);
  }

  std::optional<ItemState> ClientState(const std::string& path) override {
    if (auto syncthing = Syncthing(path)) return syncthing->FileState(path);
    if (auto desktop = DesktopClient(path)) {
      auto states = desktop->States({path});
      if (auto it = states.find(path); it != states.end()) return it->second;
    }
    return std::nullopt;
  }

  std::map<std::string, ItemState> ClientStates(const std::string& folder,
                                                const std::vector<std::string>& paths) override {
    if (auto syncthing = Syncthing(folder)) return syncthing->FolderStates(folder);
    if (auto desktop = DesktopClient(folder)) return desktop->States(paths);
    return {};
  }

  bool StartDownloading(const std::string& path, std::string* error) override {
    // A file the client still has to fetch is on its way once it is in the client's index;
    // there is no separate request to make.
    auto state = ClientState(path);
    if (state && !state->downloaded) return true;
    struct stat st;
    if (stat(path.c_str(), &st) == 0) return true;
    *error = path + ": " + g_strerror(errno);
    return false;
  }

  std::vector<ConflictVersion> ConflictVersions(int folder_fd, const std::string& name) override {
    std::vector<std::pair<std::string, ConflictVersion>> found;
    // A listing of its own: the folder's descriptor may be shared with other calls.
    const int listing = openat(folder_fd, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    DIR* dir = listing >= 0 ? fdopendir(listing) : nullptr;
    if (!dir) {
      if (listing >= 0) close(listing);
      return {};
    }
    std::optional<SyncthingSetup> syncthing;
    bool syncthing_read = false;
    while (dirent* entry = readdir(dir)) {
      auto parsed = ParseConflictCopyName(entry->d_name);
      if (!parsed || parsed->original != name) continue;
      struct stat st;
      if (fstatat(folder_fd, entry->d_name, &st, AT_SYMLINK_NOFOLLOW) != 0 ||
          !S_ISREG(st.st_mode)) {
        continue;
      }
      std::string device = parsed->device;
      if (parsed->client == SyncClientKind::kSyncthing) {
        if (!syncthing_read) syncthing = ReadSyncthingSetup(paths_), syncthing_read = true;
        device = SyncthingDeviceName(syncthing, device);
      }
      found.push_back(
          {entry->d_name, ConflictVersion{entry->d_name, device,
                                          MillisecondsOf(st.st_mtim.tv_sec, st.st_mtim.tv_nsec)}});
    }
    closedir(dir);
    std::sort(found.begin(), found.end(), [](const auto& a, const auto& b) {
      return a.second.modified_ms != b.second.modified_ms
                 ? a.second.modified_ms < b.second.modified_ms
                 : a.first < b.first;
    });
    std::vector<ConflictVersion> versions;
    for (auto& [n, v] : found) versions.push_back(std::move(v));
    return versions;
  }

 private:
  // Syncthing names the winning device by the start of its id; its configured name reads
  // better, and the short id stays when the device is unknown.
  static std::string SyncthingDeviceName(const std::optional<SyncthingSetup>& setup,
                                         const std::string& short_id) {
    if (!setup) return short_id;
    for (const auto& [id, device_name] : setup->device_names) {
      if (id.compare(0, short_id.size(), short_id) == 0 && !device_name.empty()) {
        return device_name;
      }
    }
    return short_id;
  }

  // The Syncthing folder that holds `path`, when Syncthing syncs it and its REST API answers.
  std::optional<SyncthingState> Syncthing(const std::string& path) {
    auto setup = ReadSyncthingSetup(paths_);
    if (!setup || setup->api_key.empty() || setup->api_address.empty()) return std::nullopt;
    const std::string real = RealPath(path);
    for (const auto& folder : setup->folders) {
      const std::string root = RealPath(folder.path);
      if (IsSameOrBelow(real, root) || IsSameOrBelow(path, root)) {
        return SyncthingState(*setup, folder.id, root);
      }
    }
    return std::nullopt;
  }

  // The Nextcloud or ownCloud client whose sync root holds `path`, when its socket exists.
  std::optional<DesktopClientState> DesktopClient(const std::string& path) {
    if (paths_.runtime_dir.empty()) return std::nullopt;
    const std::string real = RealPath(path);
    for (const auto& root : DetectSyncRoots(paths_)) {
      const char* app = root.kind == SyncClientKind::kNextcloud  ? "Nextcloud"
                        : root.kind == SyncClientKind::kOwncloud ? "ownCloud"
                                                                 : nullptr;
      if (!app || !IsSameOrBelow(real, RealPath(root.folder))) continue;
      const std::string socket = paths_.runtime_dir + "/" + app + "/socket";
      struct stat st;
      if (stat(socket.c_str(), &st) != 0 || !S_ISSOCK(st.st_mode)) return std::nullopt;
      return DesktopClientState(socket);
    }
    return std::nullopt;
  }

  ClientPaths paths_;
};

}  // namespace

std::unique_ptr<CloudStore> MakeSyncedFolderStore(ClientPaths paths) {
  return std::make_unique<SyncedFolderStore>(std::move(paths));
}

std::string IdentityOf(const std::string& identity_source) {
  gchar* digest = g_compute_checksum_for_string(G_CHECKSUM_SHA256, identity_source.data(),
                                                static_cast<gssize>(identity_source.size()));
  std::string identity(digest, 16);
  g_free(digest);
  return identity;
}

int64_t MillisecondsOf(int64_t seconds, int64_t nanoseconds) {
  // Floor, also before 1970: -0.5 s is -500 ms, and -0.0005 s is -1 ms.
  const int64_t ms = nanoseconds / 1000000;
  return seconds * 1000 + ms - ((nanoseconds % 1000000) < 0 ? 1 : 0);
}

}  // namespace corvane::cloud
