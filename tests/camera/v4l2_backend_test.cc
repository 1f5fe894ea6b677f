// Pictures where no driver here can show them: the JPEG encoder's shapes and refusals, MJPEG
// buffers (vivid has none), and which of several filled buffers is used.
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

using corvane::testing::Gradient;
using corvane::testing::MeanDifference;

TEST(JpegEncoder, RoundTripsPixelsOfEveryShapeAndStrideAndRefusesBadArguments) {
  for (auto [width, height, stride] :
       {std::tuple{1, 1, 3}, {7, 5, 21}, {7, 5, 32}, {1280, 720, 1280 * 3 + 64}}) {
    const auto rgb = Gradient(width, height, stride);
    std::vector<uint8_t> packed;
    for (int y = 0; y < height; ++y) {
      packed.insert(packed.end(), rgb.begin() + y * stride, rgb.begin() + y * stride + width * 3);
    }
    const auto jpeg = imaging::EncodeJpeg(rgb.data(), width, height, stride, 80);
    ASSERT_GE(jpeg.size(), 4u);
    EXPECT_EQ(jpeg[jpeg.size() - 2] << 8 | jpeg.back(), 0xFFD9) << "ends with end-of-image";
    auto decoded = corvane::testing::DecodeJpeg(jpeg);
    ASSERT_TRUE(decoded);
    EXPECT_EQ(std::tuple(decoded->width, decoded->height, decoded->jfif, decoded->luma_h,
                         decoded->luma_v),
              std::tuple(width, height, true, 2, 2));
    EXPECT_LT(MeanDifference(decoded->rgb, packed), width < 10 ? 12.0 : 2.0) << width;
  }
  const std::vector<uint8_t> grey(16 * 16 * 3, 0x80);
  const uint8_t* p = grey.data();
  for (auto [pixels, width, height, stride, quality] :
       {std::tuple{(const uint8_t*)nullptr, 16, 16, 48, 80},
        {p, 0, 16, 48, 80},
        {p, 16, 0, 48, 80},
        {p, -4, 16, 48, 80},
        {p, 16, 16, 47, 80},
        {p, 16, 16, 48, 0},
        {p, 16, 16, 48, 101},
        {p, 70000, 1, 210000, 80}}) {
    EXPECT_TRUE(imaging::EncodeJpeg(pixels, width, height, stride, quality).empty()) << width;
  }
}

// A recorded capture node for libv4lconvert offering YUYV and MJPEG at 640x480 only.
int FakeIoctl(void*, int, unsigned long request, void* arg) {
  static const uint32_t kFormats[] = {V4L2_PIX_FMT_YUYV, V4L2_PIX_FMT_MJPEG};
  if (request == VIDIOC_QUERYCAP) {
    auto* caps = static_cast<v4l2_capability*>(arg);
    *caps = {};
    caps->device_caps = V4L2_CAP_VIDEO_CAPTURE | V4L2_CAP_STREAMING;
    caps->capabilities = caps->device_caps | V4L2_CAP_DEVICE_CAPS;
    return 0;
  }
  if (request == VIDIOC_ENUM_FMT && static_cast<v4l2_fmtdesc*>(arg)->index < 2) {
    auto* desc = static_cast<v4l2_fmtdesc*>(arg);
    desc->pixelformat = kFormats[desc->index];
    desc->flags = desc->index == 1 ? V4L2_FMT_FLAG_COMPRESSED : 0;
    return 0;
  }
  if (request == VIDIOC_ENUM_FRAMESIZES && static_cast<v4l2_frmsizeenum*>(arg)->index == 0) {
    static_cast<v4l2_frmsizeenum*>(arg)->type = V4L2_FRMSIZE_TYPE_DISCRETE;
    static_cast<v4l2_frmsizeenum*>(arg)->discrete = {640, 480};
    return 0;
  }
  if (request == VIDIOC_TRY_FMT) {
    auto& pix = static_cast<v4l2_format*>(arg)->fmt.pix;
    const bool mjpeg = pix.pixelformat == V4L2_PIX_FMT_MJPEG;
    pix = {640,
           480,
           mjpeg ? V4L2_PIX_FMT_MJPEG : V4L2_PIX_FMT_YUYV,
           V4L2_FIELD_NONE,
           mjpeg ? 0u : 640 * 2,
           640 * 480 * (mjpeg ? 1u : 2u)};
    return 0;
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

TEST(V4l2Frames, OnlyOfferedSizesAndMjpegWithOrWithoutHuffmanTablesDecode) {
  auto converter = RecordedConverter();
  EXPECT_FALSE(converter->SourceFor(1280, 720)) << "the device has no 1280x720";
  EXPECT_FALSE(V4l2Converter(nullptr).SourceFor(640, 480));
  auto source = converter->SourceFor(640, 480);
  ASSERT_TRUE(source);
  EXPECT_EQ(std::pair(source->fmt.pix.width, source->fmt.pix.height), std::pair(640u, 480u));

  const std::vector<uint8_t> rgb = Gradient(640, 480, 640 * 3);
  const std::vector<uint8_t> mjpeg = imaging::EncodeJpeg(rgb.data(), 640, 480, 640 * 3, 90);
  const std::vector<uint8_t> bare = WithoutHuffmanTables(mjpeg);
  ASSERT_LT(bare.size(), mjpeg.size());
  v4l2_format format{V4L2_BUF_TYPE_VIDEO_CAPTURE};
  format.fmt.pix = {640, 480, V4L2_PIX_FMT_MJPEG, V4L2_FIELD_NONE, 0, 640 * 480};
  converter->SetSource(format);
  for (const auto* buffer : {&mjpeg, &bare}) {
    std::vector<uint8_t> scratch;
    RgbImage image;
    V4l2Sample sample(*converter, buffer->data(), buffer->size(), 1);
    ASSERT_TRUE(sample.ReadRgb(scratch, &image));
    EXPECT_EQ(image.width, 640);
    EXPECT_LT(MeanDifference(scratch, rgb), 3.0);
  }
}

TEST(V4l2Frames, OnlyTheNewestFilledBufferIsUsedAndEveryOneGoesBack) {
  struct Case {
    std::vector<uint32_t> ready;  // indexes the device has filled, oldest first
    int end_errno;                // what the dequeue says after them
    uint32_t damaged;             // index flagged as damaged
    int used;                     // index handed on, or -1
    const char* failure;
  } cases[] = {
      {{0, 1, 2}, EAGAIN, 99, 2, ""},   {{}, EAGAIN, 99, -1, ""},
      {{0, 1}, EAGAIN, 1, -1, ""},      {{3}, ENODEV, 99, 3, kStreamDisconnected},
      {{}, EIO, 99, -1, kStreamFailed},
  };
  for (const Case& c : cases) {
    std::deque<uint32_t> ready(c.ready.begin(), c.ready.end());
    std::vector<uint32_t> requeued;
    bool interrupted = false;
    BufferQueue queue{[&](v4l2_buffer* b) {
                        if (!interrupted || ready.empty()) {  // a signal first: retried
                          errno = interrupted ? c.end_errno : EINTR;
                          interrupted = true;
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
    EXPECT_EQ(std::tuple(used, std::string(failure ? failure : ""), requeued),
              std::tuple(c.used, std::string(c.failure), c.ready));
  }
}

}  // namespace
}  // namespace corvane::camera
