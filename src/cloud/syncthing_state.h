// Per-file sync state from a running Syncthing, through its REST API on loopback with the API
// key from its configuration. Every question is bounded by a short time-out; an instance that
// does not answer has nothing to say, and files then count as current.
#pragma once

#include <map>
#include <optional>
#include <string>

#include "cloud/cloud_store.h"
#include "cloud/sync_clients.h"

namespace corvane::cloud {

class SyncthingState {
 public:
  SyncthingState(SyncthingSetup setup, std::string folder_id, std::string root);

  // Nothing when Syncthing does not know the file or cannot be asked.
  std::optional<ItemState> FileState(const std::string& path) const;
  // Files below `folder` that Syncthing still has to fetch, by path.
  std::map<std::string, ItemState> FolderStates(const std::string& folder) const;

 private:
  // The body of a 200 answer to GET `target`; nothing on any other answer or failure.
  std::optional<std::string> Get(const std::string& target) const;
  std::string Relative(const std::string& path) const;

  SyncthingSetup setup_;
  std::string folder_id_;
  std::string root_;
};

}  // namespace corvane::cloud
