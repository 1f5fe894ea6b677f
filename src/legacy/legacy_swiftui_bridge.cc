#include "legacy/legacy_swiftui_bridge.h"

#include "channel/args.h"
#include "channel/log.h"
#include "legacy/image_converter.h"
#include "legacy/legacy_backup.h"
#include "legacy/legacy_files.h"
#include "legacy/legacy_log.h"
#include "legacy/legacy_preferences.h"

namespace corvane::legacy {

namespace {

using channel::MethodResult;
using channel::Value;

constexpr const char* kBackupError = "legacy_backup";
constexpr const char* kMissingPath = "Missing path";
constexpr const char* kBackupExists = "Backup already exists";
// Images waiting for the queue are copies held in memory; a flood of calls is answered null
// past this much rather than growing without bound.
constexpr size_t kMaxQueuedImageBytes = 128u << 20;

}  // namespace

struct LegacySwiftUIBridge::State {
  LegacyEnvironment environment;

  LegacyPreferences ReadPreferences() const {
    const LegacyLocations locations(environment);
    return locations.root() ? LegacyPreferences::Load(locations.store()) : LegacyPreferences();
  }
};

std::shared_ptr<LegacySwiftUIBridge> LegacySwiftUIBridge::Create(
    channel::BinaryMessenger& messenger, LegacyEnvironment environment) {
  std::shared_ptr<LegacySwiftUIBridge> bridge(new LegacySwiftUIBridge(std::move(environment)));
  bridge->methods_ = std::make_unique<channel::MethodChannel>(messenger, kMethodChannel);
  bridge->methods_->SetMethodCallHandler(
      [weak = std::weak_ptr(bridge)](const channel::MethodCall& call,
                                     std::unique_ptr<MethodResult> result) {
        if (auto self = weak.lock()) self->HandleCall(call, std::move(result));
      });
  return bridge;
}

LegacySwiftUIBridge::LegacySwiftUIBridge(LegacyEnvironment environment)
    : queue_(std::make_unique<dispatch::SerialQueue>(kQueueLabel)),
      state_(std::make_shared<State>(State{std::move(environment)})) {}

LegacySwiftUIBridge::~LegacySwiftUIBridge() {
  methods_.reset();
  // The running task finishes; calls still waiting are dropped with the queue, and dropping
  // their results answers them.
  queue_.reset();
}

template <typename F>
void LegacySwiftUIBridge::OnQueue(F fn) {
  queue_->Async([weak = std::weak_ptr<State>(state_), fn = std::move(fn)]() mutable {
    if (auto state = weak.lock()) fn(*state);
  });
}

void LegacySwiftUIBridge::HandleCall(const channel::MethodCall& call,
                                     std::unique_ptr<MethodResult> result) {
  const std::string& method = call.method;
  if (method == "probe") {
    return OnQueue([result = std::move(result)](State& state) {
      result->Success(Value(state.ReadPreferences().Probe()));
    });
  }
  if (method == "readDefaults") {
    return OnQueue([result = std::move(result)](State& state) {
      result->Success(Value(state.ReadPreferences().Values()));
    });
  }
  if (method == "backupDefaults") return BackupDefaults(call.arguments, std::move(result));
  if (method == "listFiles") {
    return OnQueue([result = std::move(result)](State& state) {
      result->Success(Value(ListLegacyFiles(LegacyLocations(state.environment))));
    });
  }
  if (method == "convertImage") return ConvertImage(call.arguments, std::move(result));
  result->NotImplemented();
}

void LegacySwiftUIBridge::BackupDefaults(const Value& arguments,
                                         std::unique_ptr<MethodResult> result) {
  const std::string* path = channel::Args(arguments).non_empty_string("path");
  // A relative path would land wherever the host happened to start: refused like no path.
  if (!path || path->front() != '/') return result->Error(kBackupError, kMissingPath, arguments);
  OnQueue([path = *path, result = std::move(result)](State& state) {
    // Checked before reading the store, so an existing backup costs nothing.
    if (BackupPathTaken(path)) return result->Error(kBackupError, kBackupExists);
    switch (WriteBackup(path, state.ReadPreferences().Serialize())) {
      case BackupOutcome::kWritten:
        return result->Success(Value(true));
      case BackupOutcome::kExists:
        return result->Error(kBackupError, kBackupExists);
      case BackupOutcome::kFailed:
        return result->Success(Value(false));
    }
  });
}

void LegacySwiftUIBridge::ConvertImage(const Value& arguments,
                                       std::unique_ptr<MethodResult> result) {
  const channel::Bytes* bytes = arguments.bytes_if();
  if (!bytes || bytes->empty()) return result->Success();
  const size_t size = bytes->size();
  if (queued_image_bytes_->fetch_add(size) + size > kMaxQueuedImageBytes) {
    queued_image_bytes_->fetch_sub(size);
    channel::Log(channel::LogLevel::kWarning, kLogDomain, "too many images waiting; one refused");
    return result->Success();
  }
  // Given back when the task has run or was dropped with the queue.
  auto release = std::shared_ptr<void>(
      nullptr, [queued = queued_image_bytes_, size](void*) { queued->fetch_sub(size); });
  OnQueue([image = *bytes, result = std::move(result), release = std::move(release)](State&) {
    Conversion conversion = ConvertToJpeg(image.data(), image.size());
    if (conversion.status != ConversionStatus::kConverted) return result->Success();
    result->Success(Value(std::move(conversion.jpeg)));
  });
}

}  // namespace corvane::legacy
