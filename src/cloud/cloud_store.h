// What the cloud service needs from the place documents are synced: where the container is and
// whose it is, what the sync client says about a file, and the conflict copies it left. The
// synced-folder store answers from the sync clients' own files; tests wrap it to control time
// and failures.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "cloud/sync_clients.h"

namespace corvane::cloud {

struct ContainerLocation {
  enum class Status { kNoAccount, kNoContainer, kAvailable };
  Status status = Status::kNoAccount;
  std::string folder;  // the container folder; its real path when available
  // Names the account and the folder: sync client kind, its account or device id, the folder.
  // Empty without an account. Any change to it is an identity change.
  std::string identity_source;
};

// What a sync client reports about one file. Without a report a file on disk is current.
struct ItemState {
  bool downloaded = true;
  bool downloading = false;
  bool uploaded = true;
  bool uploading = false;
  bool conflict = false;
  std::optional<std::string> error;
};

struct ConflictVersion {
  std::string name;    // the conflict copy, in the document's folder
  std::string device;  // "" when unknown
  int64_t modified_ms = 0;
};

class CloudStore {
 public:
  virtual ~CloudStore() = default;

  virtual ContainerLocation Locate(const std::string& container_id) = 0;
  // Files whose edits can change what Locate answers.
  virtual std::vector<std::string> ConfigurationFiles() = 0;

  // The client's report on one file; nothing when it has none.
  virtual std::optional<ItemState> ClientState(const std::string& path) = 0;
  // Reports on the files `paths` below `folder` that the client knows something about.
  virtual std::map<std::string, ItemState> ClientStates(const std::string& folder,
                                                        const std::vector<std::string>& paths) = 0;
  // Asks the client to fetch `path`; false with `error` when there is nothing to fetch.
  virtual bool StartDownloading(const std::string& path, std::string* error) = 0;

  // The unresolved conflict copies of the document `name` in the open folder `folder_fd`,
  // oldest first (modification time, then name).
  virtual std::vector<ConflictVersion> ConflictVersions(int folder_fd, const std::string& name) = 0;
};

std::unique_ptr<CloudStore> MakeSyncedFolderStore(ClientPaths paths);

// The 16 lower-case hex characters that name an identity: the start of the source's SHA-256.
std::string IdentityOf(const std::string& identity_source);

// Milliseconds since the epoch, rounded down.
int64_t MillisecondsOf(int64_t seconds, int64_t nanoseconds);

// What a file without a date reports: the distant past (0001-01-01), never a sentinel.
inline constexpr int64_t kDistantPastMs = -62135769600000;

}  // namespace corvane::cloud
