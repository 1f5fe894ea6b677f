// The shared JPEG encoder, checked by decoding what it wrote.
#include "imaging/jpeg_encoder.h"

#include <gtest/gtest.h>

#include "jpeg_test_util.h"

namespace corvane::imaging {
namespace {

std::vector<uint8_t> Packed(const std::vector<uint8_t>& rgb, int width, int height, size_t stride) {
  std::vector<uint8_t> packed;
  for (int y = 0; y < height; ++y) {
    packed.insert(packed.end(), rgb.begin() + y * stride, rgb.begin() + y * stride + width * 3);
  }
  return packed;
}

TEST(JpegEncoder, RoundTripsPixelsOfEveryShapeAndStride) {
  struct Case {
    int width, height;
    size_t stride;
  } cases[] = {{1, 1, 3}, {7, 5, 21}, {7, 5, 32}, {640, 480, 1920}, {1280, 720, 1280 * 3 + 64}};
  for (const Case& c : cases) {
    SCOPED_TRACE(std::to_string(c.width) + "x" + std::to_string(c.height));
    auto rgb = corvane::testing::Gradient(c.width, c.height, c.stride);
    auto jpeg = EncodeJpeg(rgb.data(), c.width, c.height, c.stride, 80);
    ASSERT_GE(jpeg.size(), 4u);
    EXPECT_EQ(jpeg[jpeg.size() - 2], 0xFF) << "ends with its end-of-image marker";
    EXPECT_EQ(jpeg[jpeg.size() - 1], 0xD9);
    auto decoded = corvane::testing::DecodeJpeg(jpeg);
    ASSERT_TRUE(decoded);
    EXPECT_EQ(decoded->width, c.width);
    EXPECT_EQ(decoded->height, c.height);
    EXPECT_TRUE(decoded->jfif);
    EXPECT_EQ(decoded->luma_h, 2);
    EXPECT_EQ(decoded->luma_v, 2);
    // Tiny pictures are all edge; larger ones must be close.
    const double limit = c.width * c.height < 100 ? 12.0 : 2.0;
    EXPECT_LT(
        corvane::testing::MeanDifference(decoded->rgb, Packed(rgb, c.width, c.height, c.stride)),
        limit);
  }
}

TEST(JpegEncoder, QualityTradesSizeForFidelity) {
  std::vector<uint8_t> noise(320 * 240 * 3);
  uint32_t seed = 12345;
  for (auto& b : noise) b = static_cast<uint8_t>((seed = seed * 1103515245 + 12345) >> 24);
  auto low = EncodeJpeg(noise.data(), 320, 240, 960, 20);
  auto high = EncodeJpeg(noise.data(), 320, 240, 960, 95);
  ASSERT_FALSE(low.empty());
  ASSERT_FALSE(high.empty());
  EXPECT_LT(low.size() * 2, high.size());
  // Larger than the first guess of the output size: the buffer has to grow.
  EXPECT_GT(high.size(), 320u * 240u / 4u + 4096u);
  auto decoded = corvane::testing::DecodeJpeg(high);
  ASSERT_TRUE(decoded);
  EXPECT_LT(corvane::testing::MeanDifference(decoded->rgb, noise),
            corvane::testing::MeanDifference(corvane::testing::DecodeJpeg(low)->rgb, noise));
}

TEST(JpegEncoder, RefusesBadArguments) {
  std::vector<uint8_t> rgb(16 * 16 * 3, 0x80);
  struct Case {
    const char* name;
    const uint8_t* pixels;
    int width, height;
    size_t stride;
    int quality;
  } cases[] = {
      {"null pixels", nullptr, 16, 16, 48, 80},     {"zero width", rgb.data(), 0, 16, 48, 80},
      {"zero height", rgb.data(), 16, 0, 48, 80},   {"negative", rgb.data(), -4, 16, 48, 80},
      {"short stride", rgb.data(), 16, 16, 47, 80}, {"quality 0", rgb.data(), 16, 16, 48, 0},
      {"quality 101", rgb.data(), 16, 16, 48, 101}, {"too wide", rgb.data(), 70000, 1, 210000, 80},
  };
  for (const Case& c : cases) {
    EXPECT_TRUE(EncodeJpeg(c.pixels, c.width, c.height, c.stride, c.quality).empty()) << c.name;
  }
}

}  // namespace
}  // namespace corvane::imaging
