// ICloudBridge: the application's cloud document container on `io.corvane/icloud` and
// `io.corvane/icloud/events`. On Linux the container is a folder that a sync client (Nextcloud,
// ownCloud, Syncthing, Dropbox) keeps in step with the user's other machines; the store behind
// the service finds it and reads what the client says about files and conflicts.
//
// Handlers run on the main thread and hand every file operation to the concurrent "io" queue,
// so calls overlap; the sink, the watcher and the Documents folder live on the main thread.
#pragma once

#include <chrono>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>

#include "channel/event_channel.h"
#include "channel/method_channel.h"
#include "cloud/cloud_store.h"
#include "cloud/document_scan.h"
#include "dispatch/queue.h"

namespace corvane::cloud {

inline constexpr const char* kMethodChannel = "io.corvane/icloud";
inline constexpr const char* kEventChannel = "io.corvane/icloud/events";
inline constexpr const char* kQueueLabel = "io.corvane.icloud";

class FolderWatcher;

class ICloudBridge : public std::enable_shared_from_this<ICloudBridge> {
 public:
  struct Options {
    // The information file's "CorvaneICloudContainer" value, as written there.
    std::optional<std::string> container_key;
    // The synced-folder store over the user's own configuration by default.
    std::shared_ptr<CloudStore> store;
    // Where the machine's pretty name is kept, and the host name when it has none.
    std::string machine_info = "/etc/machine-info";
    std::function<std::string()> host_name;
    std::chrono::milliseconds batch_interval{1000};
    std::chrono::milliseconds download_poll{250};
    // A waiting download holds one worker; the others keep serving. As wide as the
    // platform's pool of blocked workers, so that a handful of waiting downloads never stalls
    // the other calls. Threads start only as work arrives.
    int workers = 64;
  };

  static std::shared_ptr<ICloudBridge> Create(channel::BinaryMessenger& messenger, Options options);
  ~ICloudBridge();
  ICloudBridge(const ICloudBridge&) = delete;
  ICloudBridge& operator=(const ICloudBridge&) = delete;

  // The container id when the key's value may be used: a non-empty string without an
  // unexpanded build-setting reference ("$(").
  static std::optional<std::string> AcceptedContainerId(const std::optional<std::string>& key);

  struct Core;  // what the io queue works with

 private:
  explicit ICloudBridge(Options options);
  void Open(channel::BinaryMessenger& messenger);

  void HandleCall(const channel::MethodCall& call, std::unique_ptr<channel::MethodResult> result);
  void Status(std::unique_ptr<channel::MethodResult> result);
  void StartWatching(std::unique_ptr<channel::MethodResult> result);
  void StopWatching(std::unique_ptr<channel::MethodResult> result);
  void DeviceName(std::unique_ptr<channel::MethodResult> result);
  void Download(const channel::Value& args, std::unique_ptr<channel::MethodResult> result);
  void Read(const channel::Value& args, std::unique_ptr<channel::MethodResult> result);
  void Write(const channel::Value& args, std::unique_ptr<channel::MethodResult> result);
  void Delete(const channel::Value& args, std::unique_ptr<channel::MethodResult> result);
  void Move(const channel::Value& args, std::unique_ptr<channel::MethodResult> result);
  void SetUbiquitous(const channel::Value& args, std::unique_ptr<channel::MethodResult> result);
  void Versions(const channel::Value& args, std::unique_ptr<channel::MethodResult> result);
  void SaveVersion(const channel::Value& args, std::unique_ptr<channel::MethodResult> result);
  void ResolveConflicts(const channel::Value& args, std::unique_ptr<channel::MethodResult> result);

  // Runs `fn` with the core on the io queue; nothing when the service has gone.
  template <typename F>
  void OnIo(F fn);
  // Runs `fn` with the service on the main thread; nothing when it has gone. Static: io work
  // must not touch the service before it is known to be alive.
  template <typename F>
  static void OnMain(std::weak_ptr<ICloudBridge> weak, F fn);

  // Watching (main thread).
  void Snapshot();
  void ShowItems(uint64_t snapshot, const std::string& documents,
                 const std::vector<std::string>& folders, channel::ValueList items);
  void SetDocuments(const std::string& documents);
  void Emit(channel::ValueMap event);

  // Identity (main thread).
  void StartIdentityWatch();
  void CheckIdentity();
  void IdentityChecked(const ContainerLocation& location);

  Options options_;
  std::unique_ptr<dispatch::ConcurrentQueue> io_;
  std::shared_ptr<Core> core_;
  std::unique_ptr<channel::MethodChannel> methods_;
  std::unique_ptr<channel::EventChannel> events_;

  // Main thread only.
  std::unique_ptr<channel::EventSink> sink_;
  std::unique_ptr<FolderWatcher> watcher_;  // the running "query"
  bool wants_watching_ = false;
  bool watcher_gathered_ = false;  // the first scan after (re)targeting has been shown
  std::string documents_;          // set by a successful "status"
  // Listings run side by side on the io queue; one that finishes after a newer one is stale.
  uint64_t snapshots_started_ = 0;
  uint64_t snapshot_shown_ = 0;
  std::unique_ptr<FolderWatcher> identity_watcher_;
  std::optional<std::string> identity_source_;  // the last one seen; nothing before the first
};

}  // namespace corvane::cloud
