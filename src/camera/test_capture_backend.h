// A capture backend the caller drives: which cameras exist, whether access is granted, which
// step of opening fails, and every frame (its time, size and pixels) with the moment it arrives.
// It stands in where no camera is attached, behind the same interface as the real one.
#pragma once

#include <chrono>
#include <condition_variable>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "camera/capture_backend.h"

namespace corvane::camera {

class TestCaptureBackend : public CaptureBackend {
 public:
  struct Frame {
    std::optional<int64_t> time_ns;
    int width = 0;
    int height = 0;
    // Packed RGB, width * 3 bytes a row; null for a frame without a picture, shorter than the
    // size says for a truncated one.
    std::shared_ptr<const std::vector<uint8_t>> rgb;
  };
  // A frame filled by `pixel(x, y)` -> 0xRRGGBB.
  template <typename F>
  static Frame MakeFrame(int64_t time_ns, int width, int height, F pixel) {
    auto rgb = std::make_shared<std::vector<uint8_t>>(static_cast<size_t>(width) * height * 3);
    uint8_t* p = rgb->data();
    for (int y = 0; y < height; ++y) {
      for (int x = 0; x < width; ++x) {
        const uint32_t c = pixel(x, y);
        *p++ = static_cast<uint8_t>(c >> 16);
        *p++ = static_cast<uint8_t>(c >> 8);
        *p++ = static_cast<uint8_t>(c);
      }
    }
    return Frame{time_ns, width, height, std::move(rgb)};
  }

  // Configuration; safe from any thread.
  void SetDevices(std::vector<CameraDevice> devices);
  void SetAuthorization(Authorization authorization);
  void SetAccessAnswer(bool granted);  // what the user answers when asked, at once
  // Keeps access questions unanswered until AnswerAccess.
  void HoldAccessAnswers();
  void AnswerAccess(bool granted);
  // Makes a step of opening `device_id` fail with `code` (Open: "permission" or
  // "deviceBusy"; Configure: "unsupported", "unavailable", ...; Start: "deviceBusy").
  void FailOpen(const std::string& device_id, const char* code);
  void FailConfigure(const std::string& device_id, const char* code);
  void FailStart(const std::string& device_id, const char* code);

  int access_requests() const;
  bool streaming(const std::string& device_id) const;
  // Waits until `device_id` streams (or stops streaming, with `running` false).
  bool WaitStreaming(const std::string& device_id, bool running = true,
                     std::chrono::milliseconds timeout = std::chrono::seconds(5)) const;

  // Hands `frame` to the running stream of `device_id` on its capture queue and waits until
  // the session has taken it. False when the device does not stream.
  bool Deliver(const std::string& device_id, const Frame& frame);
  // Reports a failure of the running stream (kStream* code). False when it does not stream.
  bool Fail(const std::string& device_id, const char* code);

  Authorization authorization() override;
  void RequestAccess(std::function<void(bool granted)> done) override;
  std::vector<CameraDevice> Enumerate() override;
  std::unique_ptr<CaptureStream> Open(const CameraDevice& device, const char** error) override;

 private:
  class Stream;
  struct Running {
    dispatch::SerialQueue* queue;
    CaptureStream::Handlers handlers;
  };

  mutable std::mutex mutex_;
  mutable std::condition_variable changed_;
  std::vector<CameraDevice> devices_;
  Authorization authorization_ = Authorization::kAuthorized;
  bool access_answer_ = true;
  int access_requests_ = 0;
  bool hold_access_ = false;
  std::vector<std::function<void(bool)>> held_access_;
  std::map<std::string, const char*> open_failures_;
  std::map<std::string, const char*> configure_failures_;
  std::map<std::string, const char*> start_failures_;
  std::map<std::string, std::shared_ptr<Running>> running_;
};

}  // namespace corvane::camera
