// BonjourBridge: finds command stations and other instances of the application on the local
// network by DNS-SD, resolves them to a numeric address and port, and reports them on
// "corvane/bonjour" (start, stop, list) and "corvane/bonjour_events" (found, lost).
//
// A service is keyed by instance name + type + domain (see ServiceTable): one "found" per
// instance however many interfaces and protocols it is seen on, again only when its host or
// port changes, and one "lost" when its last sighting is gone.
#pragma once

#include <cstddef>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "channel/event_channel.h"
#include "channel/method_channel.h"
#include "discovery/dns_sd_backend.h"

namespace corvane::dispatch {
class SerialQueue;
}

namespace corvane::discovery {

class BonjourBridge {
 public:
  static constexpr const char* kMethodChannel = "corvane/bonjour";
  static constexpr const char* kEventChannel = "corvane/bonjour_events";
  static constexpr const char* kQueueLabel = "corvane.bonjour";
  // More browse types than any caller needs; past it "start" still answers but browses no more.
  static constexpr size_t kMaxBrowsers = 64;
  // DNS names are at most 255 bytes; a longer type cannot be a service type.
  static constexpr size_t kMaxTypeLength = 255;

  // The types browsed when "start" names none, in order.
  static const std::vector<std::string>& DefaultTypes();

  // Opens both channels on `messenger`. The backend is made on the bridge's queue.
  explicit BonjourBridge(channel::BinaryMessenger& messenger,
                         BackendFactory factory = MakeAvahiBackend);
  BonjourBridge(const BonjourBridge&) = delete;
  BonjourBridge& operator=(const BonjourBridge&) = delete;
  ~BonjourBridge();  // closes the channels, then the backend on its queue

 private:
  struct Events;
  class Core;

  void HandleCall(const channel::MethodCall& call, std::unique_ptr<channel::MethodResult> result);
  std::optional<channel::MethodError> Listen(std::unique_ptr<channel::EventSink> sink);
  std::optional<channel::MethodError> Cancel();

  std::shared_ptr<Events> events_;  // main thread only
  std::unique_ptr<dispatch::SerialQueue> queue_;
  std::shared_ptr<Core> core_;  // queue only
  channel::MethodChannel methods_;
  channel::EventChannel events_channel_;
};

}  // namespace corvane::discovery
