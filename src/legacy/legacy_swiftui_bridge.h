// LegacySwiftUIBridge: the earlier edition's preferences and files, on `io.corvane/legacy_swiftui`.
//
// The handler runs on the main thread and only picks the method (and answers a backup call
// without a path at once); every read, write and conversion runs on the bridge's serial queue,
// so two calls never overlap. Replies leave from the main thread.
#pragma once

#include <atomic>
#include <memory>
#include <string>

#include "channel/method_channel.h"
#include "dispatch/queue.h"
#include "legacy/legacy_locations.h"

namespace corvane::legacy {

inline constexpr const char* kMethodChannel = "io.corvane/legacy_swiftui";
inline constexpr const char* kQueueLabel = "corvane.legacy-swiftui";

class LegacySwiftUIBridge {
 public:
  // Opens the channel on `messenger` (call on the main thread). The folders are derived from
  // `environment` on every call.
  static std::shared_ptr<LegacySwiftUIBridge> Create(channel::BinaryMessenger& messenger,
                                                     LegacyEnvironment environment);
  ~LegacySwiftUIBridge();

  LegacySwiftUIBridge(const LegacySwiftUIBridge&) = delete;
  LegacySwiftUIBridge& operator=(const LegacySwiftUIBridge&) = delete;

  struct State;  // everything that lives on the queue

 private:
  explicit LegacySwiftUIBridge(LegacyEnvironment environment);

  void HandleCall(const channel::MethodCall& call, std::unique_ptr<channel::MethodResult> result);
  void BackupDefaults(const channel::Value& args, std::unique_ptr<channel::MethodResult> result);
  void ConvertImage(const channel::Value& args, std::unique_ptr<channel::MethodResult> result);

  // Runs `fn` with the queue's state, on the queue. When the bridge has gone first, the result
  // `fn` owns is dropped, which answers it.
  template <typename F>
  void OnQueue(F fn);

  std::unique_ptr<dispatch::SerialQueue> queue_;
  std::shared_ptr<State> state_;
  std::unique_ptr<channel::MethodChannel> methods_;
  // Bytes of images copied for conversions still waiting or running.
  std::shared_ptr<std::atomic<size_t>> queued_image_bytes_ =
      std::make_shared<std::atomic<size_t>>(0);
};

}  // namespace corvane::legacy
