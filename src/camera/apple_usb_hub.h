// AppleUsbHub: the process's camera sessions, keyed by the caller's token, on one serial queue.
// Every camera call except "supported" is decided there, so sessions of every window share one
// view of which devices are taken.
#pragma once

#include <functional>
#include <memory>
#include <string>

#include "camera/capture_backend.h"
#include "channel/method_channel.h"
#include "channel/value.h"
#include "dispatch/clock.h"
#include "dispatch/queue.h"

namespace corvane::camera {

inline constexpr const char* kSessionsQueueLabel = "io.corvane.apple-usb.sessions";

class AppleUsbHub {
 public:
  using BackendFactory =
      std::function<std::shared_ptr<CaptureBackend>(dispatch::SerialQueue& hub_queue)>;
  struct Options {
    BackendFactory backend;
    dispatch::Clock* clock = nullptr;  // the system clock by default
  };

  // The process's hub on the machine's cameras: made on first use and never destroyed.
  static std::shared_ptr<AppleUsbHub> Shared();
  // A hub of its own (tests, benchmarks). Destroying it ends its sessions unanswered.
  static std::shared_ptr<AppleUsbHub> Create(Options options);
  ~AppleUsbHub();
  AppleUsbHub(const AppleUsbHub&) = delete;
  AppleUsbHub& operator=(const AppleUsbHub&) = delete;

  struct Call {
    std::string method;
    channel::Value arguments;  // a map; anything else reads as an empty one
    std::string owner;
    bool visible = true;    // the application was not hidden when the call arrived
    bool supported = true;  // video capture exists here
    std::unique_ptr<channel::MethodResult> result;
  };
  // Decides `call` on the hub queue and answers it from there.
  void Handle(Call call);
  // Ends every session of `owner`: "suspended" keeps them registered, any other reason
  // removes them.
  void EndOwner(std::string owner, std::string reason);

  dispatch::SerialQueue& queue() { return *queue_; }

  struct State;  // everything that lives on the queue

 private:
  explicit AppleUsbHub(Options options);

  std::unique_ptr<dispatch::SerialQueue> queue_;
  std::shared_ptr<State> state_;
};

}  // namespace corvane::camera
