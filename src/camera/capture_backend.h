// What the camera service needs from the machine's capture stack: the cameras attached, access
// rights, and a running stream of frames from one of them. The V4L2 backend is the real one; the
// test backend stands in where no camera is attached.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "dispatch/queue.h"

namespace corvane::camera {

struct CameraDevice {
  std::string id;    // stable across replugs where the device allows
  std::string name;  // the product name, for people
};

enum class Authorization { kNotDetermined, kAuthorized, kDenied, kRestricted };

// Packed 8-bit RGB rows `stride` bytes apart.
struct RgbImage {
  const uint8_t* pixels = nullptr;
  int width = 0;
  int height = 0;
  size_t stride = 0;
};

// One captured frame. It lives only during the sample callback: its buffer goes back to the
// device as soon as the callback returns.
class CaptureSample {
 public:
  virtual ~CaptureSample() = default;
  // Nanoseconds on the stream's clock; empty when the frame carries no usable time.
  virtual std::optional<int64_t> presentation_time() const = 0;
  // False when the frame holds no picture at all (an empty buffer).
  virtual bool has_image() const = 0;
  virtual int width() const = 0;
  virtual int height() const = 0;
  // The picture as RGB, converted now (so frames nobody asked for are never converted).
  // `scratch` may hold the converted pixels; false when the data is not a whole picture.
  virtual bool ReadRgb(std::vector<uint8_t>& scratch, RgbImage* image) = 0;
};

// Codes a stream reports on its own; the service passes them on as they are.
inline constexpr const char* kStreamFailed = "unavailable";          // a runtime error
inline constexpr const char* kStreamDisconnected = "deviceMissing";  // unplugged
inline constexpr const char* kStreamInterrupted = "suspended";       // taken away for a while

// One opened camera.
class CaptureStream {
 public:
  struct Handlers {
    // Every frame, on the capture queue given to Start.
    std::function<void(CaptureSample&)> on_sample;
    // A failure of the running stream (one of the kStream* codes), on any thread.
    std::function<void(const char* code)> on_failure;
  };

  virtual ~CaptureStream() = default;
  // Chooses 1280x720, else 640x480. Null, or the code that ends the opening: "unsupported"
  // (neither size), "unavailable" (the device refuses to be set up), "deviceBusy".
  virtual const char* Configure() = 0;
  // Starts delivering frames on `capture_queue`, which outlives the stream. Null, or
  // "deviceBusy" when the stream would not start.
  virtual const char* Start(dispatch::SerialQueue& capture_queue, Handlers handlers) = 0;
  // Stops the device and gives it back; a frame already being handed over may still arrive.
  // Safe to call more than once.
  virtual void Stop() = 0;
};

class CaptureBackend {
 public:
  virtual ~CaptureBackend() = default;
  // Whether the user lets this program use cameras. Asked on the hub queue.
  virtual Authorization authorization() = 0;
  // Asks the user, on the main thread; `done` may be called on any thread.
  virtual void RequestAccess(std::function<void(bool granted)> done) = 0;
  // The usable cameras, in a stable order. On the hub queue.
  virtual std::vector<CameraDevice> Enumerate() = 0;
  // Opens `device` for capture, on the hub queue. On failure returns null and sets `*error` to
  // "permission" (no rights to the device) or "deviceBusy".
  virtual std::unique_ptr<CaptureStream> Open(const CameraDevice& device, const char** error) = 0;
};

}  // namespace corvane::camera
