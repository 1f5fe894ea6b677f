// AppleUsbSession: one opened camera token. Its state lives on the hub queue; frames arrive on
// the session's own capture queue, which shares nothing with the hub queue but the id of the
// read it must serve next (`wanted`, under a lock).
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "camera/capture_backend.h"
#include "channel/method_channel.h"
#include "dispatch/clock.h"
#include "dispatch/queue.h"

namespace corvane::camera {

inline constexpr const char* kFramesQueueLabel = "io.corvane.apple-usb.frames";

// Frames larger than this are refused before they are encoded, so one reply stays bounded.
inline constexpr int kMaxFrameSide = 1280;
inline constexpr int64_t kMaxFramePixels = 1280 * 720;
inline constexpr int kJpegQuality = 80;

using Reply = std::unique_ptr<channel::MethodResult>;

class AppleUsbSession : public std::enable_shared_from_this<AppleUsbSession> {
 public:
  struct Settings {
    std::string owner;
    std::string device_id;
    int64_t timeout_ms;
    int64_t limit;  // bytes of JPEG
  };

  // `queue` is the hub's queue, on which every method below runs.
  AppleUsbSession(Settings settings, dispatch::SerialQueue& queue, dispatch::Clock& clock,
                  Reply opened);
  ~AppleUsbSession();
  AppleUsbSession(const AppleUsbSession&) = delete;
  AppleUsbSession& operator=(const AppleUsbSession&) = delete;

  const std::string& owner() const { return settings_.owner; }
  const std::string& device_id() const { return settings_.device_id; }
  const std::optional<std::string>& terminal() const { return terminal_; }
  int64_t sequence() const { return sequence_; }

  // Installed by the hub: ends the session, if it is still the one registered for its token.
  std::function<void(const std::string& code)> failed;

  // Starts frames from `stream` (configured) and answers "open"; ends with "deviceBusy" when
  // the stream will not start.
  void Run(std::unique_ptr<CaptureStream> stream);
  void Read(Reply reply);
  // The one way a session ends; the first reason wins.
  void Stop(const std::string& reason);

 private:
  struct CaptureSide;
  struct PendingRead {
    uint64_t id;
    Reply reply;
  };

  static void OnSample(CaptureSide& side, CaptureSample& sample);
  static void Encode(CaptureSide& side, CaptureSample& sample, uint64_t id);
  void Deliver(uint64_t id, std::vector<uint8_t> jpeg);
  void Fail(uint64_t id, const char* code);
  void TimedOut(uint64_t id);

  const Settings settings_;
  dispatch::SerialQueue& queue_;
  dispatch::Clock& clock_;
  std::shared_ptr<CaptureSide> capture_;
  // Declared before the stream, so the stream goes first and its last work still finds its
  // queue.
  std::unique_ptr<dispatch::SerialQueue> capture_queue_;
  std::unique_ptr<CaptureStream> stream_;
  Reply opened_;
  std::optional<PendingRead> pending_;
  dispatch::Timer timer_;
  std::optional<std::string> terminal_;
  int64_t sequence_ = 0;
  uint64_t last_request_ = 0;
};

}  // namespace corvane::camera
