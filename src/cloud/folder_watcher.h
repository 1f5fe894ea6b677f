// Change notifications for a set of folders (inotify through GFileMonitor), batched: the first
// change starts a timer and everything until it fires is one batch. Main thread only; nothing
// runs while nothing changes.
#pragma once

#include <chrono>
#include <functional>
#include <map>
#include <string>
#include <vector>

typedef struct _GFileMonitor GFileMonitor;
typedef struct _GFile GFile;

namespace corvane::cloud {

class FolderWatcher {
 public:
  using Batch = std::function<void()>;
  // `ignore` tells names whose changes do not count (temporary files of the sync clients).
  FolderWatcher(std::chrono::milliseconds interval, Batch on_batch,
                std::function<bool(const std::string& name)> ignore = {});
  ~FolderWatcher();
  FolderWatcher(const FolderWatcher&) = delete;
  FolderWatcher& operator=(const FolderWatcher&) = delete;

  // Watches exactly these paths from now on (folders, or files whose folder exists). Returns
  // how many were newly added; `failed` counts those that could not be watched.
  size_t WatchExactly(const std::vector<std::string>& paths, size_t* failed = nullptr);
  // Starts a batch as if something had changed.
  void Poke();

 private:
  static void OnChanged(GFileMonitor*, GFile* file, GFile* other, int event, void* self);
  void Changed(GFile* file, GFile* other);
  bool Ignored(GFile* file) const;

  std::chrono::milliseconds interval_;
  Batch on_batch_;
  std::function<bool(const std::string&)> ignore_;
  std::map<std::string, GFileMonitor*> monitors_;
  unsigned timer_ = 0;
};

}  // namespace corvane::cloud
