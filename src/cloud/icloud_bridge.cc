#include "cloud/icloud_bridge.h"

#include <fcntl.h>
#include <glib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <condition_variable>
#include <fstream>
#include <mutex>
#include <set>

#include "channel/args.h"
#include "channel/log.h"
#include "channel/utf8.h"
#include "cloud/container_dir.h"
#include "cloud/file_transfer.h"
#include "cloud/folder_watcher.h"
#include "cloud/paths.h"

namespace corvane::cloud {

namespace {

using channel::Args;
using channel::MethodResult;
using channel::Value;
using channel::ValueList;
using channel::ValueMap;

// The Flutter side shows this text as it stands.
constexpr const char* kBadArguments = "Ongeldige argumenten.";
constexpr const char* kLogDomain = "corvane-cloud";
constexpr const char* kOutsideContainer = ": not in the cloud container";
constexpr const char* kNoHostName = "Mac";
constexpr int64_t kDefaultDownloadTimeoutMs = 60000;
// Identity-relevant files are re-read this long after the last edit settles.
constexpr std::chrono::milliseconds kIdentitySettle{250};

ValueMap Fields(std::initializer_list<std::pair<const char*, Value>> entries) {
  ValueMap map;
  map.reserve(entries.size());
  for (const auto& [key, value] : entries) map.Append(Value(key), value);
  return map;
}

Value TransferReply(const TransferOutcome& outcome) {
  if (!outcome.ok)
    return Value(Fields({{"ok", Value(false)}, {"message", Value(outcome.message)}}));
  return Value(
      Fields({{"ok", Value(true)},
              {"modifiedMs", Value(outcome.attributes_read ? outcome.modified_ms : int64_t{0})},
              {"size", Value(outcome.attributes_read ? outcome.size : int64_t{0})}}));
}

Value FailureReply(const std::string& message) {
  return Value(Fields({{"ok", Value(false)}, {"message", Value(message)}}));
}

Value BadTransferArguments() {
  return Value(Fields({{"ok", Value(false)}, {"message", Value(kBadArguments)}}));
}

std::string ConflictId(size_t position, int64_t modified_ms) {
  return std::to_string(position) + "|" + std::to_string(modified_ms);
}

// Names of files that come and go while a sync client or this service works, never documents.
bool IsTransientName(const std::string& name) { return !name.empty() && name[0] == '.'; }

bool IsUtf8(const std::string& text) {
  return channel::IsValidUtf8(reinterpret_cast<const uint8_t*>(text.data()), text.size());
}

// The entry of `name` in the folder of `entry`.
Entry Sibling(const Entry& entry, const std::string& name) {
  return Entry{entry.folder, name, Dirname(entry.path) + "/" + name};
}

// One map per document, built in place: with ten thousand documents this is the listing's hot
// path. Names that are not UTF-8 cannot cross the channel and are left out; `left_out` hears
// of each.
ValueList ItemMaps(const std::string& documents, std::vector<DocumentItem>& found,
                   const std::map<std::string, ItemState>& states,
                   const std::function<void(const std::string&)>& left_out) {
  ValueList items;
  items.reserve(found.size());
  const ItemState on_disk;
  for (DocumentItem& item : found) {
    if (!IsUtf8(item.relative)) {
      left_out(item.relative);
      continue;
    }
    std::string path = documents + "/" + item.relative;
    auto known = states.find(path);
    const ItemState& state = known != states.end() ? known->second : on_disk;
    ValueMap map;
    map.reserve(10);
    map.Append(Value("path"), Value(std::move(path)));
    map.Append(Value("relative"), Value(std::move(item.relative)));
    map.Append(Value("size"), Value(item.size));
    map.Append(Value("modifiedMs"), Value(item.modified_ms));
    map.Append(Value("downloaded"), Value(state.downloaded));
    map.Append(Value("downloading"), Value(state.downloading));
    map.Append(Value("uploaded"), Value(state.uploaded));
    map.Append(Value("uploading"), Value(state.uploading));
    map.Append(Value("conflict"), Value(state.conflict || item.has_conflicts));
    if (state.error) map.Append(Value("error"), Value(*state.error));
    items.emplace_back(std::move(map));
  }
  return items;
}

// PRETTY_HOSTNAME from a machine-info file (shell-style assignments, optionally quoted).
std::string PrettyHostName(const std::string& file) {
  std::ifstream in(file);
  std::string line;
  while (std::getline(in, line)) {
    if (line.rfind("PRETTY_HOSTNAME=", 0) != 0) continue;
    std::string value = line.substr(16);
    if (value.size() >= 2 && (value.front() == '"' || value.front() == '\'') &&
        value.back() == value.front()) {
      value = value.substr(1, value.size() - 2);
    }
    std::string unescaped;
    for (size_t i = 0; i < value.size(); ++i) {
      if (value[i] == '\\' && i + 1 < value.size()) ++i;
      unescaped += value[i];
    }
    return unescaped;
  }
  return "";
}

}  // namespace

struct ICloudBridge::Core {
  std::shared_ptr<CloudStore> store;
  std::optional<std::string> container_id;
  std::chrono::milliseconds download_poll;

  // Lets a waiting download end early when the service goes away.
  std::mutex mutex;
  std::condition_variable wake;
  bool stopping = false;
  // The container as last located, opened; nothing while there is none. Every file
  // operation resolves its paths below it: a stray path must never reach the user's other
  // files, nor a link swapped in lead an operation out.
  std::shared_ptr<const ContainerDir> container;
  // Names left out of listings that have been logged, so that each is logged once.
  std::set<std::string> logged_names;

  void Located(const ContainerLocation& location) {
    auto opened = location.status == ContainerLocation::Status::kAvailable
                      ? ContainerDir::Open(location.folder)
                      : nullptr;
    std::lock_guard lock(mutex);
    container = std::move(opened);
  }
  // The entry `path` names in the container; nothing, with the reason in `message`, when it
  // is refused or cannot be reached. Refusals by name and links on the way are logged.
  std::optional<Entry> Find(const std::string& path, bool create_folders,
                            std::string* message = nullptr, int* error = nullptr) {
    std::shared_ptr<const ContainerDir> dir;
    {
      std::lock_guard lock(mutex);
      dir = container;
    }
    int why = kRefused;
    std::optional<Entry> entry;
    if (dir) entry = dir->Find(path, create_folders, &why);
    if (entry) return entry;
    if (why == kRefused || why == ELOOP) {
      channel::Log(channel::LogLevel::kWarning, kLogDomain,
                   (why == kRefused ? "refused, not in the cloud container: "
                                    : "refused, a link on the way: ") +
                       path);
    }
    if (message)
      *message = path + (why == kRefused ? kOutsideContainer : ": ") +
                 (why == kRefused ? "" : g_strerror(why));
    if (error) *error = why;
    return std::nullopt;
  }
  // A local path's entry; relative paths are refused.
  static std::optional<Entry> Local(const std::string& path, bool create_folders,
                                    std::string* message = nullptr) {
    int why;
    auto entry = LocalEntry(path, create_folders, &why);
    if (!entry && message) {
      *message = path + (why == kRefused ? ": not an absolute path" : ": ") +
                 (why == kRefused ? "" : g_strerror(why));
    }
    return entry;
  }
  void LeftOut(const std::string& name) {
    constexpr size_t kMaxLogged = 1000;  // a peer may make names without end
    {
      std::lock_guard lock(mutex);
      if (logged_names.size() >= kMaxLogged || !logged_names.insert(name).second) return;
    }
    gchar* shown = g_strescape(name.c_str(), nullptr);
    channel::Log(channel::LogLevel::kWarning, kLogDomain,
                 std::string("left out of the listing, not UTF-8: ") + shown);
    g_free(shown);
  }
  ContainerLocation Locate() {
    ContainerLocation location;
    if (container_id) location = store->Locate(*container_id);
    Located(location);
    return location;
  }

  bool IsDownloaded(const std::string& path) {
    if (auto state = store->ClientState(path)) return state->downloaded;
    // Through links: a link whose target is missing here holds nothing that could be opened.
    struct stat st;
    return stat(path.c_str(), &st) == 0;
  }

  // Sleeps one poll interval; false once the service is stopping.
  bool Nap() {
    std::unique_lock lock(mutex);
    return !wake.wait_for(lock, download_poll, [this] { return stopping; });
  }

  bool Download(const std::string& path, int64_t timeout_ms) {
    if (IsDownloaded(path)) return true;
    std::string error;
    if (!store->StartDownloading(path, &error)) return IsDownloaded(path);
    // Milliseconds beyond a year wait as long as a year, below zero not at all; nothing
    // overflows.
    const auto timeout = std::chrono::milliseconds(std::clamp<int64_t>(timeout_ms, 0, 31536000000));
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    while (std::chrono::steady_clock::now() < deadline) {
      if (IsDownloaded(path)) return true;
      if (!Nap()) break;
    }
    return IsDownloaded(path);
  }

  Value Versions(const std::string& path) {
    ValueMap versions;
    int error;
    auto doc = Find(path, false, nullptr, &error);
    if (!doc && error == kRefused) return Value();
    struct stat st;
    if (doc && fstatat(doc->folder->fd(), doc->name.c_str(), &st, AT_SYMLINK_NOFOLLOW) == 0) {
      versions.Append(
          Value("current"),
          Value(Fields(
              {{"id", Value("current")},
               {"device", Value("")},
               {"modifiedMs", Value(MillisecondsOf(st.st_mtim.tv_sec, st.st_mtim.tv_nsec))}})));
    }
    ValueList conflicts;
    const auto copies = doc ? store->ConflictVersions(doc->folder->fd(), doc->name)
                            : std::vector<ConflictVersion>();
    for (size_t i = 0; i < copies.size(); ++i) {
      conflicts.emplace_back(Fields({{"id", Value(ConflictId(i, copies[i].modified_ms))},
                                     {"device", Value(copies[i].device)},
                                     {"modifiedMs", Value(copies[i].modified_ms)}}));
    }
    versions.Append(Value("conflicts"), Value(std::move(conflicts)));
    return Value(std::move(versions));
  }

  std::optional<ConflictVersion> FindConflict(const Entry& doc, const std::string& id) {
    const auto copies = store->ConflictVersions(doc.folder->fd(), doc.name);
    for (size_t i = 0; i < copies.size(); ++i) {
      if (ConflictId(i, copies[i].modified_ms) == id) return copies[i];
    }
    return std::nullopt;
  }

  bool SaveVersion(const std::string& path, const std::string& id, const std::string& to) {
    auto doc = Find(path, false);
    auto version = doc ? FindConflict(*doc, id) : std::nullopt;
    if (!version) return false;
    // A snapshot of the copy first: the sync client may replace or remove it meanwhile.
    gchar* uuid = g_uuid_string_random();
    gchar* upper = g_ascii_strup(uuid, -1);
    const std::string temp = std::string(g_get_tmp_dir()) + "/corvane-version-" + upper;
    g_free(upper);
    g_free(uuid);
    auto temp_entry = Local(temp, false);
    bool ok = temp_entry && CopyOut(Sibling(*doc, version->name), *temp_entry).ok;
    if (ok) {
      // Written as "write" writes: inside the container only.
      LocalSource source(temp);
      auto target = Find(to, true);
      ok = target && CopyIn(source, *target).ok;
    }
    unlink(temp.c_str());
    return ok;
  }

  bool ResolveConflicts(const std::string& path, const std::optional<std::string>& keep) {
    auto doc = Find(path, false);
    if (!doc) return false;
    const auto copies = store->ConflictVersions(doc->folder->fd(), doc->name);
    bool kept = false;
    if (keep && *keep != "current") {
      for (size_t i = 0; i < copies.size() && !kept; ++i) {
        if (ConflictId(i, copies[i].modified_ms) != *keep) continue;
        if (!ReplaceContent(*doc, Sibling(*doc, copies[i].name))) return false;  // all stay
        kept = true;
      }
    }
    struct stat st;
    // Without the file and without a kept copy, the copies are all that is left of it.
    if (!kept && fstatat(doc->folder->fd(), doc->name.c_str(), &st, AT_SYMLINK_NOFOLLOW) != 0) {
      return false;
    }
    bool removed = true;
    for (const auto& copy : copies) removed = RemoveItem(Sibling(*doc, copy.name)) && removed;
    return removed;
  }
};

std::optional<std::string> ICloudBridge::AcceptedContainerId(
    const std::optional<std::string>& key) {
  // An unexpanded "$(...)" left by a build counts as no container, on purpose.
  if (!key || key->empty() || key->find("$(") != std::string::npos) return std::nullopt;
  return key;
}

std::shared_ptr<ICloudBridge> ICloudBridge::Create(channel::BinaryMessenger& messenger,
                                                   Options options) {
  std::shared_ptr<ICloudBridge> bridge(new ICloudBridge(std::move(options)));
  bridge->Open(messenger);
  bridge->StartIdentityWatch();
  return bridge;
}

ICloudBridge::ICloudBridge(Options options) : options_(std::move(options)) {
  if (!options_.store) options_.store = MakeSyncedFolderStore(ClientPaths::FromEnvironment());
  if (!options_.host_name) options_.host_name = [] { return std::string(g_get_host_name()); };
  io_ = std::make_unique<dispatch::ConcurrentQueue>(kQueueLabel, options_.workers);
  core_ = std::make_shared<Core>();
  core_->store = options_.store;
  core_->container_id = AcceptedContainerId(options_.container_key);
  core_->download_poll = options_.download_poll;
}

ICloudBridge::~ICloudBridge() {
  methods_.reset();
  events_.reset();
  watcher_.reset();
  identity_watcher_.reset();
  {
    std::lock_guard lock(core_->mutex);
    core_->stopping = true;
  }
  core_->wake.notify_all();
  core_.reset();  // queued work finds the core gone; running work holds its own reference
  io_.reset();
}

void ICloudBridge::Open(channel::BinaryMessenger& messenger) {
  methods_ = std::make_unique<channel::MethodChannel>(messenger, kMethodChannel);
  methods_->SetMethodCallHandler(
      [this](const channel::MethodCall& call, std::unique_ptr<MethodResult> result) {
        HandleCall(call, std::move(result));
      });
  events_ = std::make_unique<channel::EventChannel>(messenger, kEventChannel);
  events_->SetStreamHandler(std::make_unique<channel::FunctionStreamHandler>(
      [this](const Value&, std::unique_ptr<channel::EventSink> sink) {
        sink_ = std::move(sink);
        if (watcher_) Snapshot();
        return std::optional<channel::MethodError>();
      },
      [this](const Value&) {
        sink_.reset();
        return std::optional<channel::MethodError>();
      }));
}

template <typename F>
void ICloudBridge::OnIo(F fn) {
  io_->Async([weak = std::weak_ptr<Core>(core_), fn = std::move(fn)]() mutable {
    if (auto core = weak.lock()) fn(*core);
  });
}

template <typename F>
void ICloudBridge::OnMain(std::weak_ptr<ICloudBridge> weak, F fn) {
  dispatch::MainQueue().Async([weak = std::move(weak), fn = std::move(fn)]() mutable {
    if (auto self = weak.lock()) fn(*self);
  });
}

void ICloudBridge::HandleCall(const channel::MethodCall& call,
                              std::unique_ptr<MethodResult> result) {
  const std::string& method = call.method;
  const Value& args = call.arguments;
  if (method == "status") return Status(std::move(result));
  if (method == "startWatching") return StartWatching(std::move(result));
  if (method == "stopWatching") return StopWatching(std::move(result));
  if (method == "deviceName") return DeviceName(std::move(result));
  if (method == "download") return Download(args, std::move(result));
  if (method == "read") return Read(args, std::move(result));
  if (method == "write") return Write(args, std::move(result));
  if (method == "delete") return Delete(args, std::move(result));
  if (method == "move") return Move(args, std::move(result));
  if (method == "setUbiquitous") return SetUbiquitous(args, std::move(result));
  if (method == "versions") return Versions(args, std::move(result));
  if (method == "saveVersion") return SaveVersion(args, std::move(result));
  if (method == "resolveConflicts") return ResolveConflicts(args, std::move(result));
  result->NotImplemented();
}

void ICloudBridge::Status(std::unique_ptr<MethodResult> result) {
  OnIo([weak = weak_from_this(), result = std::move(result)](Core& core) mutable {
    if (!core.container_id) {
      return result->Success(
          Value(Fields({{"available", Value(false)}, {"reason", Value("noContainer")}})));
    }
    const std::string& id = *core.container_id;
    const ContainerLocation location = core.Locate();
    if (location.status != ContainerLocation::Status::kAvailable) {
      const char* reason =
          location.status == ContainerLocation::Status::kNoAccount ? "noAccount" : "noContainer";
      return result->Success(Value(Fields(
          {{"available", Value(false)}, {"reason", Value(reason)}, {"container", Value(id)}})));
    }
    const std::string documents = location.folder + "/Documents";
    g_mkdir_with_parents(documents.c_str(), 0755);  // a failure shows in the listing instead
    Value reply(Fields({{"available", Value(true)},
                        {"container", Value(id)},
                        {"identity", Value(IdentityOf(location.identity_source))},
                        {"documents", Value(documents)}}));
    OnMain(weak, [documents, reply = std::move(reply),
                  result = std::move(result)](ICloudBridge& self) mutable {
      self.SetDocuments(documents);
      result->Success(std::move(reply));
      if (self.wants_watching_) self.Snapshot();
    });
  });
}

void ICloudBridge::StartWatching(std::unique_ptr<MethodResult> result) {
  wants_watching_ = true;
  if (watcher_) {
    Snapshot();
    return result->Success();
  }
  watcher_ = std::make_unique<FolderWatcher>(
      options_.batch_interval, [this] { Snapshot(); }, IsTransientName);
  watcher_gathered_ = false;
  if (!documents_.empty()) {
    size_t failed = 0;
    watcher_->WatchExactly({documents_}, &failed);
    if (failed > 0) {
      Emit(Fields({{"type", Value("items")}, {"items", Value(ValueList())}}));
    } else {
      Snapshot();
    }
  }
  result->Success();
}

void ICloudBridge::StopWatching(std::unique_ptr<MethodResult> result) {
  wants_watching_ = false;
  watcher_.reset();
  result->Success();
}

void ICloudBridge::DeviceName(std::unique_ptr<MethodResult> result) {
  std::string name = PrettyHostName(options_.machine_info);
  if (name.empty()) name = options_.host_name();
  name = ValidUtf8(std::move(name));  // the file may hold any bytes
  result->Success(Value(name.empty() ? std::string(kNoHostName) : name));
}

void ICloudBridge::SetDocuments(const std::string& documents) {
  if (documents == documents_) return;
  documents_ = documents;
  if (watcher_) {
    watcher_->WatchExactly({documents_});
    watcher_gathered_ = false;
  }
}

void ICloudBridge::Snapshot() {
  if (!sink_ || !watcher_ || documents_.empty()) return;
  // The listing and its maps are made on the io queue; the main thread only watches the
  // folders found and sends the event.
  OnIo([weak = weak_from_this(), documents = documents_,
        snapshot = ++snapshots_started_](Core& core) {
    DocumentScan scan = ScanDocuments(documents);
    std::map<std::string, ItemState> states;
    if (scan.ok) {
      std::vector<std::string> paths;
      paths.reserve(scan.items.size());
      for (const auto& item : scan.items) paths.push_back(documents + "/" + item.relative);
      states = core.store->ClientStates(documents, paths);
    }
    ValueList items = ItemMaps(documents, scan.items, states,
                               [&core](const std::string& name) { core.LeftOut(name); });
    std::vector<std::string> folders =
        scan.ok ? std::move(scan.folders) : std::vector<std::string>{documents};
    OnMain(weak, [snapshot, documents, folders = std::move(folders),
                  items = std::move(items)](ICloudBridge& self) mutable {
      self.ShowItems(snapshot, documents, folders, std::move(items));
    });
  });
}

void ICloudBridge::ShowItems(uint64_t snapshot, const std::string& documents,
                             const std::vector<std::string>& folders, ValueList items) {
  if (!watcher_ || documents != documents_) return;  // stopped or moved meanwhile
  if (snapshot < snapshot_shown_) return;            // a newer listing is already out
  snapshot_shown_ = snapshot;
  // Folders that appeared since the last scan are watched from now on; anything created in
  // them before their watch began is caught by one more scan.
  const size_t added = watcher_->WatchExactly(folders);
  if (added > 0 && watcher_gathered_) watcher_->Poke();
  watcher_gathered_ = true;
  ValueMap event;
  event.Append(Value("type"), Value("items"));
  event.Append(Value("items"), Value(std::move(items)));
  Emit(std::move(event));
}

void ICloudBridge::Emit(ValueMap event) {
  if (sink_) sink_->Success(Value(std::move(event)));
}

void ICloudBridge::StartIdentityWatch() {
  identity_watcher_ = std::make_unique<FolderWatcher>(kIdentitySettle, [this] { CheckIdentity(); });
  CheckIdentity();
}

void ICloudBridge::CheckIdentity() {
  OnIo([weak = weak_from_this()](Core& core) {
    ContainerLocation location = core.Locate();
    OnMain(weak, [location](ICloudBridge& self) { self.IdentityChecked(location); });
  });
}

void ICloudBridge::IdentityChecked(const ContainerLocation& location) {
  // A container that went missing changes the identity too, though its folder's name stayed.
  const std::string seen =
      std::to_string(static_cast<int>(location.status)) + "\n" + location.identity_source;
  const bool changed = identity_source_ && *identity_source_ != seen;
  identity_source_ = seen;
  // Watch the clients' files, and the two nearest existing folders above the container, so
  // that an edit of the configuration or a move of the container (or of its sync root) is
  // noticed; a file whose folder does not exist yet is watched from the folder above.
  std::vector<std::string> paths;
  auto watch = [&paths](const std::string& path) {
    const std::string parent = Dirname(path);
    if (g_file_test(parent.c_str(), G_FILE_TEST_IS_DIR)) {
      paths.push_back(path);
    } else if (g_file_test(Dirname(parent).c_str(), G_FILE_TEST_IS_DIR)) {
      paths.push_back(Dirname(parent));
    }
  };
  for (const auto& file : options_.store->ConfigurationFiles()) watch(file);
  int above = 0;
  for (std::string folder = location.folder; above < 2 && folder.size() > 1;) {
    folder = Dirname(folder);
    if (g_file_test(folder.c_str(), G_FILE_TEST_IS_DIR)) paths.push_back(folder), ++above;
  }
  identity_watcher_->WatchExactly(paths);
  if (changed) Emit(Fields({{"type", Value("identity")}}));
}

void ICloudBridge::Download(const Value& arguments, std::unique_ptr<MethodResult> result) {
  Args args(arguments);
  const std::string* path = args.string("path");
  // Never resolved against the working folder.
  if (!path || path->empty() || (*path)[0] != '/') return result->Success(Value(false));
  const int64_t timeout_ms = args.integer("timeoutMs").value_or(kDefaultDownloadTimeoutMs);
  OnIo([path = *path, timeout_ms, result = std::move(result)](Core& core) mutable {
    result->Success(Value(core.Download(path, timeout_ms)));
  });
}

void ICloudBridge::Read(const Value& arguments, std::unique_ptr<MethodResult> result) {
  Args args(arguments);
  const std::string* path = args.string("path");
  const std::string* to = args.string("to");
  if (!path || !to) return result->Success(BadTransferArguments());
  OnIo([path = *path, to = *to, result = std::move(result)](Core& core) mutable {
    std::string message;
    auto from = core.Find(path, false, &message);
    auto target = from ? Core::Local(to, true, &message) : std::nullopt;
    result->Success(target ? TransferReply(CopyOut(*from, *target)) : FailureReply(message));
  });
}

void ICloudBridge::Write(const Value& arguments, std::unique_ptr<MethodResult> result) {
  Args args(arguments);
  const std::string* from = args.string("from");
  const std::string* path = args.string("path");
  if (!from || !path) return result->Success(BadTransferArguments());
  OnIo([from = *from, path = *path, result = std::move(result)](Core& core) mutable {
    // The local file is read before anything in the container is made.
    LocalSource source(from);
    std::string message = source.message;
    auto target = source.fd >= 0 ? core.Find(path, true, &message) : std::nullopt;
    result->Success(target ? TransferReply(CopyIn(source, *target)) : FailureReply(message));
  });
}

void ICloudBridge::Delete(const Value& arguments, std::unique_ptr<MethodResult> result) {
  Args args(arguments);
  const std::string* path = args.string("path");
  if (!path) return result->Success(Value(false));
  OnIo([path = *path, result = std::move(result)](Core& core) mutable {
    auto entry = core.Find(path, false);
    result->Success(Value(entry && RemoveItem(*entry)));
  });
}

void ICloudBridge::Move(const Value& arguments, std::unique_ptr<MethodResult> result) {
  Args args(arguments);
  const std::string* from = args.string("from");
  const std::string* to = args.string("to");
  if (!from || !to) return result->Success(Value(false));
  OnIo([from = *from, to = *to, result = std::move(result)](Core& core) mutable {
    auto source = core.Find(from, false);
    auto target = source ? core.Find(to, false) : std::nullopt;
    result->Success(Value(target && MoveItem(*source, *target, true)));
  });
}

void ICloudBridge::SetUbiquitous(const Value& arguments, std::unique_ptr<MethodResult> result) {
  Args args(arguments);
  const std::string* from = args.string("from");
  const std::string* to = args.string("to");
  if (!from || !to) return result->Success(Value(false));
  // A move between the container and local disk: the cloud end must be in the container, and
  // only a file travels (a folder from anywhere could be half the user's disk).
  const bool to_cloud = args.boolean("toCloud").value_or(true);
  OnIo([from = *from, to = *to, to_cloud, result = std::move(result)](Core& core) mutable {
    auto source = to_cloud ? Core::Local(from, false) : core.Find(from, false);
    struct stat st;
    if (!source ||
        fstatat(source->folder->fd(), source->name.c_str(), &st, AT_SYMLINK_NOFOLLOW) != 0 ||
        !S_ISREG(st.st_mode)) {
      return result->Success(Value(false));
    }
    auto target = to_cloud ? core.Find(to, true) : Core::Local(to, true);
    result->Success(Value(target && MoveItem(*source, *target, true)));
  });
}

void ICloudBridge::Versions(const Value& arguments, std::unique_ptr<MethodResult> result) {
  Args args(arguments);
  const std::string* path = args.string("path");
  if (!path) return result->Success();
  OnIo([path = *path, result = std::move(result)](Core& core) mutable {
    result->Success(core.Versions(path));
  });
}

void ICloudBridge::SaveVersion(const Value& arguments, std::unique_ptr<MethodResult> result) {
  Args args(arguments);
  const std::string* path = args.string("path");
  const std::string* version = args.string("version");
  const std::string* to = args.string("to");
  if (!path || !version || !to) return result->Success(Value(false));
  OnIo([path = *path, version = *version, to = *to, result = std::move(result)](
           Core& core) mutable { result->Success(Value(core.SaveVersion(path, version, to))); });
}

void ICloudBridge::ResolveConflicts(const Value& arguments, std::unique_ptr<MethodResult> result) {
  Args args(arguments);
  const std::string* path = args.string("path");
  if (!path) return result->Success(Value(false));
  std::optional<std::string> keep;
  if (const std::string* k = args.string("keep")) keep = *k;
  OnIo([path = *path, keep, result = std::move(result)](Core& core) mutable {
    result->Success(Value(core.ResolveConflicts(path, keep)));
  });
}

}  // namespace corvane::cloud
