#include "cloud/folder_watcher.h"

#include <gio/gio.h>

#include <algorithm>

namespace corvane::cloud {

FolderWatcher::FolderWatcher(std::chrono::milliseconds interval, Batch on_batch,
                             std::function<bool(const std::string&)> ignore)
    : interval_(interval), on_batch_(std::move(on_batch)), ignore_(std::move(ignore)) {}

FolderWatcher::~FolderWatcher() {
  if (timer_) g_source_remove(timer_);
  WatchExactly({});
}

size_t FolderWatcher::WatchExactly(const std::vector<std::string>& paths, size_t* failed) {
  if (failed) *failed = 0;
  // The common case while watching: the same folders as before.
  if (paths.size() == monitors_.size() &&
      std::all_of(paths.begin(), paths.end(),
                  [this](const std::string& p) { return monitors_.count(p) > 0; })) {
    return 0;
  }
  std::map<std::string, GFileMonitor*> kept;
  size_t added = 0;
  for (const auto& path : paths) {
    if (kept.count(path)) continue;
    auto existing = monitors_.find(path);
    if (existing != monitors_.end()) {
      kept.emplace(path, existing->second);
      monitors_.erase(existing);
      continue;
    }
    GFile* file = g_file_new_for_path(path.c_str());
    const bool folder = g_file_test(path.c_str(), G_FILE_TEST_IS_DIR);
    // Moves inside a folder come as one event with both names; renames out or in as their own.
    const auto flags = static_cast<GFileMonitorFlags>(G_FILE_MONITOR_WATCH_MOVES);
    GFileMonitor* monitor = folder ? g_file_monitor_directory(file, flags, nullptr, nullptr)
                                   : g_file_monitor_file(file, flags, nullptr, nullptr);
    g_object_unref(file);
    if (!monitor) {
      if (failed) ++*failed;
      continue;
    }
    g_signal_connect(monitor, "changed", G_CALLBACK(OnChanged), this);
    kept.emplace(path, monitor);
    ++added;
  }
  for (auto& [path, monitor] : monitors_) {
    g_signal_handlers_disconnect_by_data(monitor, this);
    g_file_monitor_cancel(monitor);
    g_object_unref(monitor);
  }
  monitors_ = std::move(kept);
  return added;
}

void FolderWatcher::Poke() {
  if (timer_) return;
  timer_ = g_timeout_add(
      static_cast<guint>(interval_.count()),
      [](gpointer data) -> gboolean {
        auto* self = static_cast<FolderWatcher*>(data);
        self->timer_ = 0;
        self->on_batch_();  // may destroy the watcher: nothing of it is touched afterwards
        return G_SOURCE_REMOVE;
      },
      this);
}

void FolderWatcher::OnChanged(GFileMonitor*, GFile* file, GFile* other, int, void* self) {
  static_cast<FolderWatcher*>(self)->Changed(file, other);
}

bool FolderWatcher::Ignored(GFile* file) const {
  if (!file) return true;
  gchar* name = g_file_get_basename(file);
  const bool ignored = name && ignore_(name);
  g_free(name);
  return ignored;
}

void FolderWatcher::Changed(GFile* file, GFile* other) {
  // A temporary file renamed onto a document is a change of that document.
  if (ignore_ && Ignored(file) && Ignored(other)) return;
  Poke();
}

}  // namespace corvane::cloud
