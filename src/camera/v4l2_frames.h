// Frames of a V4L2 capture device: the negotiated formats, conversion of the device's own pixel
// format (YUYV, MJPEG, ...) to RGB through libv4lconvert, and the sample the service sees for
// one dequeued buffer. Conversion happens only when a frame is asked for.
#pragma once

#include <linux/videodev2.h>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <vector>

#include "camera/capture_backend.h"

struct v4lconvert_data;

namespace corvane::camera {

class V4l2Converter {
 public:
  // Takes `data` (from v4lconvert_create*); null makes every conversion fail.
  explicit V4l2Converter(v4lconvert_data* data) : data_(data) {}
  ~V4l2Converter();
  V4l2Converter(const V4l2Converter&) = delete;
  V4l2Converter& operator=(const V4l2Converter&) = delete;

  // The device format that yields RGB at exactly `width` x `height`, or nothing.
  std::optional<v4l2_format> SourceFor(int width, int height);
  // Uses `source` (as the device accepted it) from now on.
  void SetSource(const v4l2_format& source);
  int width() const { return static_cast<int>(source_.fmt.pix.width); }
  int height() const { return static_cast<int>(source_.fmt.pix.height); }

  // Converts one buffer of `size` bytes into `rgb`; false when it is not a whole picture.
  bool ToRgb(const uint8_t* data, size_t size, std::vector<uint8_t>& rgb);

 private:
  v4lconvert_data* data_;
  v4l2_format source_{};
  v4l2_format target_{};
};

// One dequeued buffer, valid during the sample callback.
class V4l2Sample final : public CaptureSample {
 public:
  V4l2Sample(V4l2Converter& converter, const uint8_t* data, size_t size,
             std::optional<int64_t> time_ns)
      : converter_(converter), data_(data), size_(size), time_ns_(time_ns) {}

  std::optional<int64_t> presentation_time() const override { return time_ns_; }
  bool has_image() const override { return data_ != nullptr && size_ > 0; }
  int width() const override { return converter_.width(); }
  int height() const override { return converter_.height(); }
  bool ReadRgb(std::vector<uint8_t>& scratch, RgbImage* image) override;

 private:
  V4l2Converter& converter_;
  const uint8_t* data_;
  size_t size_;
  std::optional<int64_t> time_ns_;
};

// The buffer's time in nanoseconds; drivers that give none get the time it was dequeued.
int64_t BufferTimeNs(const v4l2_buffer& buffer);

// Takes every buffer the device has filled, gives all but the newest straight back, and hands
// the newest to `use` before giving it back too: a slow reader never makes frames queue up.
// Returns null, or the failure code that ends the stream.
struct BufferQueue {
  std::function<int(v4l2_buffer*)> dequeue;  // 0, or -1 with errno set
  std::function<void(const v4l2_buffer&)> requeue;
};
const char* TakeNewestBuffer(const BufferQueue& queue,
                             const std::function<void(const v4l2_buffer&)>& use);

}  // namespace corvane::camera
