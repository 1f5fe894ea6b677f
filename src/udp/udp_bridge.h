// UdpBridge: UDP sessions for the Flutter side on `corvane/udp` and `corvane/udp_events`.
//
// The channel handlers run on the main thread: they validate arguments there and queue the
// work on the bridge's serial queue, where every session, socket, timer and guarded send lives.
// Events leave that queue for the main thread, where the one event sink is kept.
#pragma once

#include <functional>
#include <memory>
#include <string>

#include "channel/event_channel.h"
#include "channel/method_channel.h"
#include "dispatch/clock.h"
#include "dispatch/queue.h"
#include "udp/local_network_permission.h"
#include "udp/udp_network.h"

namespace corvane::udp {

inline constexpr const char* kMethodChannel = "corvane/udp";
inline constexpr const char* kEventChannel = "corvane/udp_events";
inline constexpr const char* kQueueLabel = "corvane.udp.bridge";

class UdpBridge : public std::enable_shared_from_this<UdpBridge> {
 public:
  struct Options {
    // Makes the socket layer on the bridge's queue; the system one by default.
    std::function<std::shared_ptr<UdpNetwork>(dispatch::SerialQueue&)> network;
    // Wall clock, monotonic clock and time-outs; the system clock by default.
    dispatch::Clock* clock = nullptr;
    // The bridge's own permission browse; the DNS-SD one by default.
    PermissionBrowserFactory permission_browser;
  };

  // Opens both channels on `messenger` (call on the main thread).
  static std::shared_ptr<UdpBridge> Create(channel::BinaryMessenger& messenger, Options options);
  static std::shared_ptr<UdpBridge> Create(channel::BinaryMessenger& messenger) {
    return Create(messenger, Options());
  }
  ~UdpBridge();

  UdpBridge(const UdpBridge&) = delete;
  UdpBridge& operator=(const UdpBridge&) = delete;

  dispatch::SerialQueue& queue() { return *queue_; }

  struct State;  // everything that lives on the queue

 private:
  UdpBridge(channel::BinaryMessenger& messenger, Options options);
  void Open(channel::BinaryMessenger& messenger);

  void HandleCall(const channel::MethodCall& call, std::unique_ptr<channel::MethodResult> result);
  void Capabilities(std::unique_ptr<channel::MethodResult> result);
  void OpenSession(const channel::Value& args, std::unique_ptr<channel::MethodResult> result);
  void OpenListener(const channel::Value& args, std::unique_ptr<channel::MethodResult> result);
  void Send(const channel::Value& args, std::unique_ptr<channel::MethodResult> result);
  void SendGuarded(const channel::Value& args, std::unique_ptr<channel::MethodResult> result);
  void CancelSend(const channel::Value& args, std::unique_ptr<channel::MethodResult> result);
  void Close(const channel::Value& args, std::unique_ptr<channel::MethodResult> result);
  void Interfaces(std::unique_ptr<channel::MethodResult> result);
  void TriggerPermission(std::unique_ptr<channel::MethodResult> result);

  // Runs `fn` with the queue's state, on the queue; nothing when the bridge has gone.
  template <typename F>
  void OnQueue(F fn);
  void Emit(channel::ValueMap event);

  std::unique_ptr<dispatch::SerialQueue> queue_;
  std::shared_ptr<State> state_;
  std::unique_ptr<channel::MethodChannel> methods_;
  std::unique_ptr<channel::EventChannel> events_;
  std::unique_ptr<channel::EventSink> sink_;  // main thread only
};

}  // namespace corvane::udp
