// Where the user's sync clients keep their folders, read from the clients' own configuration,
// and the per-user settings file that names a container's folder outright.
//
// Detection order: the settings file ($XDG_CONFIG_HOME/corvane/cloud.conf), then the
// Nextcloud desktop client, the ownCloud desktop client, Syncthing and Dropbox. A detected
// client's container is <sync root>/<container id>.
#pragma once

#include <map>
#include <optional>
#include <string>
#include <vector>

#include "cloud/conflict_names.h"

namespace corvane::cloud {

// The base folders the clients' configuration lives under; from the environment by default,
// so tests point them at temporary folders.
struct ClientPaths {
  std::string home;
  std::string config_home;  // $XDG_CONFIG_HOME or ~/.config
  std::string state_home;   // $XDG_STATE_HOME or ~/.local/state
  std::string runtime_dir;  // $XDG_RUNTIME_DIR: where the desktop clients' sockets are

  static ClientPaths FromEnvironment();
  std::string SettingsFile() const;
};

struct SyncRoot {
  SyncClientKind kind = SyncClientKind::kFolder;
  std::string account;  // account or device id where the client has one
  std::string folder;   // the synced folder
};

// Syncthing's REST endpoint and device names, for per-file state and conflict device names.
struct SyncthingSetup {
  std::string api_address;  // host:port of the GUI/REST listener
  bool api_tls = false;
  std::string api_key;
  std::map<std::string, std::string> device_names;  // device id -> name
  struct Folder {
    std::string id;
    std::string path;
  };
  std::vector<Folder> folders;
  std::string own_device;  // digest of the device certificate; "" when unreadable
};

// The folder the settings file gives for `container_id`: an absolute path, or one below "~/".
std::optional<std::string> ConfiguredFolder(const ClientPaths& paths,
                                            const std::string& container_id);

// Every sync root of every detected client, in detection order.
std::vector<SyncRoot> DetectSyncRoots(const ClientPaths& paths);

std::optional<SyncthingSetup> ReadSyncthingSetup(const ClientPaths& paths);

// The files whose edits can move the container or change the identity, in detection order.
std::vector<std::string> ConfigurationFiles(const ClientPaths& paths);

std::string KindName(SyncClientKind kind);

}  // namespace corvane::cloud
