#include "camera/v4l2_frames.h"

#include <glib.h>
#include <libv4lconvert.h>

#include <cerrno>

namespace corvane::camera {

V4l2Converter::~V4l2Converter() {
  if (data_) v4lconvert_destroy(data_);
}

std::optional<v4l2_format> V4l2Converter::SourceFor(int width, int height) {
  if (!data_) return std::nullopt;
  v4l2_format target{};
  target.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
  target.fmt.pix.width = static_cast<uint32_t>(width);
  target.fmt.pix.height = static_cast<uint32_t>(height);
  target.fmt.pix.pixelformat = V4L2_PIX_FMT_RGB24;
  target.fmt.pix.field = V4L2_FIELD_NONE;
  v4l2_format source{};
  if (v4lconvert_try_format(data_, &target, &source) != 0) return std::nullopt;
  // The converter picks the nearest size it can make; only the exact one will do.
  if (static_cast<int>(target.fmt.pix.width) != width ||
      static_cast<int>(target.fmt.pix.height) != height) {
    return std::nullopt;
  }
  return source;
}

void V4l2Converter::SetSource(const v4l2_format& source) {
  source_ = source;
  target_ = source;
  target_.fmt.pix.pixelformat = V4L2_PIX_FMT_RGB24;
  target_.fmt.pix.bytesperline = source.fmt.pix.width * 3;
  target_.fmt.pix.sizeimage = source.fmt.pix.width * source.fmt.pix.height * 3;
}

bool V4l2Converter::ToRgb(const uint8_t* data, size_t size, std::vector<uint8_t>& rgb) {
  if (!data_ || data == nullptr || size == 0) return false;
  const uint32_t format = source_.fmt.pix.pixelformat;
  const bool compressed = format == V4L2_PIX_FMT_MJPEG || format == V4L2_PIX_FMT_JPEG;
  // A short uncompressed frame is a truncated one: converting it would read past its end.
  if (!compressed && size < source_.fmt.pix.sizeimage) return false;
  const size_t needed = target_.fmt.pix.sizeimage;
  if (needed == 0) return false;
  rgb.resize(needed);
  const int written =
      v4lconvert_convert(data_, &source_, &target_, const_cast<uint8_t*>(data),
                         static_cast<int>(size), rgb.data(), static_cast<int>(needed));
  return written >= 0 && static_cast<size_t>(written) == needed;
}

bool V4l2Sample::ReadRgb(std::vector<uint8_t>& scratch, RgbImage* image) {
  if (!converter_.ToRgb(data_, size_, scratch)) return false;
  *image = RgbImage{scratch.data(), width(), height(), static_cast<size_t>(width()) * 3};
  return true;
}

int64_t BufferTimeNs(const v4l2_buffer& buffer) {
  const int64_t ns = static_cast<int64_t>(buffer.timestamp.tv_sec) * 1'000'000'000 +
                     static_cast<int64_t>(buffer.timestamp.tv_usec) * 1000;
  return ns != 0 ? ns : g_get_monotonic_time() * 1000;
}

const char* TakeNewestBuffer(const BufferQueue& queue,
                             const std::function<void(const v4l2_buffer&)>& use) {
  std::optional<v4l2_buffer> newest;
  const char* failure = nullptr;
  for (;;) {
    v4l2_buffer buffer{};
    buffer.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
    buffer.memory = V4L2_MEMORY_MMAP;
    if (queue.dequeue(&buffer) != 0) {
      if (errno == EINTR) continue;
      if (errno != EAGAIN) failure = errno == ENODEV ? kStreamDisconnected : kStreamFailed;
      break;
    }
    if (newest) queue.requeue(*newest);
    newest = buffer;
  }
  if (newest) {
    // A buffer the driver marks as damaged is given back unseen.
    if ((newest->flags & V4L2_BUF_FLAG_ERROR) == 0) use(*newest);
    queue.requeue(*newest);
  }
  return failure;
}

}  // namespace corvane::camera
