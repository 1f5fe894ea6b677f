// Per-file sync state from the Nextcloud or ownCloud desktop client, through the local socket
// its file-manager integrations use ($XDG_RUNTIME_DIR/Nextcloud/socket): one line
// "RETRIEVE_FILE_STATUS:<path>" per file, answered by "STATUS:<state>:<path>". Every exchange
// is bounded by a short time-out; a client that is not running has nothing to say.
#pragma once

#include <map>
#include <optional>
#include <string>
#include <vector>

#include "cloud/cloud_store.h"

namespace corvane::cloud {

class DesktopClientState {
 public:
  explicit DesktopClientState(std::string socket_path) : socket_(std::move(socket_path)) {}

  // The client's word on each path it answers for, within one time-out for all of them.
  std::map<std::string, ItemState> States(const std::vector<std::string>& paths) const;

  // What one status word means; nothing for a file the client does not track.
  static std::optional<ItemState> FromStatus(const std::string& status);

 private:
  std::string socket_;
};

}  // namespace corvane::cloud
