// The V4L2 backend's frame handling where no driver here can show it: MJPEG buffers (vivid
// has none), and which of several filled buffers is used. tests/device runs the rest for real.
#include <gtest/gtest.h>
#include <libv4l-plugin.h>
#include <libv4lconvert.h>

#include <cerrno>
#include <cstring>
#include <deque>

#include "camera/v4l2_frames.h"
#include "imaging/jpeg_encoder.h"
#include "jpeg_test_util.h"

namespace corvane::camera {
namespace {

// A recorded device for libv4lconvert: a capture node offering YUYV and MJPEG at 640x480
// only.
int FakeIoctl(void*, int, unsigned long request, void* arg) {
  static const uint32_t kFormats[] = {V4L2_PIX_FMT_YUYV, V4L2_PIX_FMT_MJPEG};
  switch (request) {
    case VIDIOC_QUERYCAP: {
      auto* caps = static_cast<v4l2_capability*>(arg);
      std::memset(caps, 0, sizeof *caps);
      std::strcpy(reinterpret_cast<char*>(caps->driver), "recorded");
      caps->device_caps = V4L2_CAP_VIDEO_CAPTURE | V4L2_CAP_STREAMING;
      caps->capabilities = caps->device_caps | V4L2_CAP_DEVICE_CAPS;
      return 0;
    }
    case VIDIOC_ENUM_FMT: {
      auto* desc = static_cast<v4l2_fmtdesc*>(arg);
      if (desc->index >= 2) break;
      desc->pixelformat = kFormats[desc->index];
      desc->flags = desc->pixelformat == V4L2_PIX_FMT_MJPEG ? V4L2_FMT_FLAG_COMPRESSED : 0;
      return 0;
    }
    case VIDIOC_ENUM_FRAMESIZES: {
      auto* size = static_cast<v4l2_frmsizeenum*>(arg);
      if (size->index >= 1) break;
      size->type = V4L2_FRMSIZE_TYPE_DISCRETE;
      size->discrete = {640, 480};
      return 0;
    }
    case VIDIOC_TRY_FMT: {
      auto& pix = static_cast<v4l2_format*>(arg)->fmt.pix;
      pix.width = 640;
      pix.height = 480;
      if (pix.pixelformat != V4L2_PIX_FMT_MJPEG) pix.pixelformat = V4L2_PIX_FMT_YUYV;
      pix.field = V4L2_FIELD_NONE;
      pix.bytesperline = pix.pixelformat == V4L2_PIX_FMT_YUYV ? 640 * 2 : 0;
      pix.sizeimage = pix.pixelformat == V4L2_PIX_FMT_YUYV ? 640 * 480 * 2 : 640 * 480;
      return 0;
    }
    default:
      break;
  }
  errno = EINVAL;
  return -1;
}

std::unique_ptr<V4l2Converter> RecordedConverter() {
  static libv4l_dev_ops ops = [] {
    libv4l_dev_ops o{};
    o.ioctl = FakeIoctl;
    return o;
  }();
  return std::make_unique<V4l2Converter>(v4lconvert_create_with_dev_ops(-1, nullptr, &ops));
}

v4l2_format Format(uint32_t pixelformat, int width, int height) {
  v4l2_format f{};
  f.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
  f.fmt.pix.width = static_cast<uint32_t>(width);
  f.fmt.pix.height = static_cast<uint32_t>(height);
  f.fmt.pix.pixelformat = pixelformat;
  f.fmt.pix.field = V4L2_FIELD_NONE;
  const bool yuyv = pixelformat == V4L2_PIX_FMT_YUYV;
  f.fmt.pix.bytesperline = yuyv ? static_cast<uint32_t>(width) * 2 : 0;
  f.fmt.pix.sizeimage = static_cast<uint32_t>(width * height * (yuyv ? 2 : 1));
  return f;
}

TEST(V4l2Frames, ConverterChoosesOnlyExactSizesTheDeviceOffers) {
  auto converter = RecordedConverter();
  EXPECT_FALSE(converter->SourceFor(1280, 720)) << "the device has no 1280x720";
  auto source = converter->SourceFor(640, 480);
  ASSERT_TRUE(source);
  EXPECT_EQ(source->fmt.pix.width, 640u);
  EXPECT_EQ(source->fmt.pix.height, 480u);
  V4l2Converter broken(nullptr);
  EXPECT_FALSE(broken.SourceFor(640, 480));
}

// Drops the Huffman tables, as many webcams do: their MJPEG relies on the standard ones.
std::vector<uint8_t> WithoutHuffmanTables(const std::vector<uint8_t>& jpeg) {
  std::vector<uint8_t> out(jpeg.begin(), jpeg.begin() + 2);
  size_t i = 2;
  while (i + 4 <= jpeg.size() && jpeg[i] == 0xFF && jpeg[i + 1] != 0xDA) {
    const size_t length = (jpeg[i + 2] << 8) | jpeg[i + 3];
    if (jpeg[i + 1] != 0xC4) out.insert(out.end(), jpeg.begin() + i, jpeg.begin() + i + 2 + length);
    i += 2 + length;
  }
  out.insert(out.end(), jpeg.begin() + i, jpeg.end());
  return out;
}

TEST(V4l2Frames, MjpegBuffersDecodeWithOrWithoutHuffmanTables) {
  const int w = 640, h = 480;
  const std::vector<uint8_t> rgb = corvane::testing::Gradient(w, h, w * 3);
  const std::vector<uint8_t> mjpeg = imaging::EncodeJpeg(rgb.data(), w, h, w * 3, 90);
  ASSERT_FALSE(mjpeg.empty());
  const std::vector<uint8_t> bare = WithoutHuffmanTables(mjpeg);
  ASSERT_LT(bare.size(), mjpeg.size());

  auto converter = RecordedConverter();
  converter->SetSource(Format(V4L2_PIX_FMT_MJPEG, w, h));
  for (const auto* buffer : {&mjpeg, &bare}) {
    std::vector<uint8_t> scratch;
    RgbImage image;
    V4l2Sample sample(*converter, buffer->data(), buffer->size(), 1);
    ASSERT_TRUE(sample.ReadRgb(scratch, &image));
    EXPECT_EQ(image.width, w);
    EXPECT_LT(corvane::testing::MeanDifference(scratch, rgb), 3.0);
  }
}

TEST(V4l2Frames, OnlyTheNewestFilledBufferIsUsedAndEveryOneGoesBack) {
  struct Case {
    const char* name;
    std::vector<uint32_t> ready;  // indexes the device has filled, oldest first
    int end_errno;                // what the dequeue says after them
    uint32_t damaged = 99;        // index flagged as damaged
    int used;                     // index handed on, or -1
    const char* failure;
  } cases[] = {
      {"three ready", {0, 1, 2}, EAGAIN, 99, 2, nullptr},
      {"none ready", {}, EAGAIN, 99, -1, nullptr},
      {"newest damaged", {0, 1}, EAGAIN, 1, -1, nullptr},
      {"unplugged after one", {3}, ENODEV, 99, 3, kStreamDisconnected},
      {"driver error", {}, EIO, 99, -1, kStreamFailed},
  };
  for (const Case& c : cases) {
    std::deque<uint32_t> ready(c.ready.begin(), c.ready.end());
    std::vector<uint32_t> requeued;
    bool interrupted = false;
    BufferQueue queue{[&](v4l2_buffer* b) {
                        if (!interrupted) {  // a signal first: must be retried
                          interrupted = true;
                          errno = EINTR;
                          return -1;
                        }
                        if (ready.empty()) {
                          errno = c.end_errno;
                          return -1;
                        }
                        b->index = ready.front();
                        b->flags = b->index == c.damaged ? V4L2_BUF_FLAG_ERROR : 0;
                        ready.pop_front();
                        return 0;
                      },
                      [&](const v4l2_buffer& b) { requeued.push_back(b.index); }};
    int used = -1;
    const char* failure =
        TakeNewestBuffer(queue, [&](const v4l2_buffer& b) { used = static_cast<int>(b.index); });
    EXPECT_EQ(used, c.used) << c.name;
    EXPECT_STREQ(failure ? failure : "", c.failure ? c.failure : "") << c.name;
    EXPECT_EQ(requeued, c.ready) << c.name << ": every buffer back, in order";
  }
}

}  // namespace
}  // namespace corvane::camera
