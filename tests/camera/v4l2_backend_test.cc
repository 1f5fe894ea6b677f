// The V4L2 backend on this machine (udev, no camera attached) and its frame handling on
// synthesised YUYV and MJPEG buffers.
#include <gtest/gtest.h>
#include <libv4l-plugin.h>
#include <libv4lconvert.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <deque>
#include <filesystem>
#include <future>

#include "camera/udev_cameras.h"
#include "camera/v4l2_capture_backend.h"
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

// Full-range BT.601, as webcams send YUYV; Y/U/V of the colour 0xRRGGBB.
void ToYuv(uint32_t rgb, uint8_t* y, uint8_t* u, uint8_t* v) {
  const double r = (rgb >> 16) & 0xFF, g = (rgb >> 8) & 0xFF, b = rgb & 0xFF;
  auto byte = [](double x) { return static_cast<uint8_t>(std::clamp(x + 0.5, 0.0, 255.0)); };
  *y = byte(0.299 * r + 0.587 * g + 0.114 * b);
  *u = byte(-0.168736 * r - 0.331264 * g + 0.5 * b + 128);
  *v = byte(0.5 * r - 0.418688 * g - 0.081312 * b + 128);
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

TEST(V4l2Frames, YuyvBuffersConvertToTheirColoursAndShortOnesAreRefused) {
  // Four vertical bands of known colours.
  const uint32_t bands[] = {0xFF0000, 0x00FF00, 0x0000FF, 0x808080};
  const int w = 640, h = 480;
  std::vector<uint8_t> yuyv(static_cast<size_t>(w) * h * 2);
  for (int y = 0; y < h; ++y) {
    for (int x = 0; x < w; x += 2) {
      uint8_t Y, U, V;
      ToYuv(bands[x * 4 / w], &Y, &U, &V);
      uint8_t* p = &yuyv[(static_cast<size_t>(y) * w + x) * 2];
      p[0] = Y, p[1] = U, p[2] = Y, p[3] = V;
    }
  }
  auto converter = RecordedConverter();
  converter->SetSource(Format(V4L2_PIX_FMT_YUYV, w, h));

  std::vector<uint8_t> scratch;
  RgbImage image;
  V4l2Sample sample(*converter, yuyv.data(), yuyv.size(), 42);
  EXPECT_EQ(sample.presentation_time(), 42);
  ASSERT_TRUE(sample.has_image());
  EXPECT_EQ(sample.width(), w);
  EXPECT_EQ(sample.height(), h);
  ASSERT_TRUE(sample.ReadRgb(scratch, &image));
  ASSERT_EQ(image.stride, static_cast<size_t>(w) * 3);
  for (int band = 0; band < 4; ++band) {
    const uint8_t* p = image.pixels + 240 * image.stride + (band * w / 4 + 80) * 3;
    for (int c = 0; c < 3; ++c) {
      const int want = (bands[band] >> (16 - 8 * c)) & 0xFF;
      EXPECT_NEAR(p[c], want, 6) << "band " << band << " channel " << c;
    }
  }

  V4l2Sample truncated(*converter, yuyv.data(), yuyv.size() - 2, 43);
  EXPECT_FALSE(truncated.ReadRgb(scratch, &image));
  V4l2Sample empty(*converter, yuyv.data(), 0, 44);
  EXPECT_FALSE(empty.has_image());
  EXPECT_FALSE(empty.ReadRgb(scratch, &image));
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

TEST(V4l2Backend, EnumeratesThisMachineCleanlyAndWatchesForUnplugging) {
  dispatch::SerialQueue queue("test.camera.hub");
  auto backend = MakeV4l2CaptureBackend(queue);
  const std::vector<CameraDevice> devices = backend->Enumerate();
  const bool has_nodes = std::filesystem::exists("/dev/video0");
  if (!has_nodes) {
    EXPECT_TRUE(devices.empty());
    EXPECT_EQ(backend->authorization(), Authorization::kAuthorized);
    const char* error = nullptr;
    EXPECT_EQ(backend->Open(CameraDevice{"usb-none", "None"}, &error), nullptr);
    EXPECT_STREQ(error, "deviceBusy");
  }
  for (const CameraDevice& d : devices) EXPECT_FALSE(d.id.empty());

  // The unplug monitor lives on the hub queue's context; started and stopped there.
  UdevCameras cameras;
  bool started = false;
  bool stopped = false;
  std::promise<void> done;
  queue.Async([&] {
    started = cameras.StartMonitor(queue.context(), [](const std::string&) {});
    const bool running = cameras.monitoring();
    cameras.StopMonitor();
    stopped = running && !cameras.monitoring();
    done.set_value();
  });
  done.get_future().wait();
  EXPECT_TRUE(started);
  EXPECT_TRUE(stopped);
}

}  // namespace
}  // namespace corvane::camera
