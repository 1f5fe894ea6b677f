// Image conversion and the JPEG encoder under it, checked on the pixels that come out.
#include "legacy/image_converter.h"

#include <gtest/gtest.h>
#include <sys/resource.h>

#include "image_test_support.h"
#include "imaging/jpeg_encoder.h"

namespace corvane::legacy::testing {
namespace {

const Rgba kRed{220, 20, 20}, kBlue{20, 20, 220}, kWhite{255, 255, 255}, kGreen{20, 200, 20};

// Converts and decodes the JPEG that comes back; null (with a failure) when there is none.
GdkPixbuf* ConvertAndLoad(const std::vector<uint8_t>& image) {
  Conversion c = ConvertToJpeg(image.data(), image.size());
  EXPECT_EQ(c.status, ConversionStatus::kConverted);
  if (c.jpeg.size() < 4) return nullptr;
  EXPECT_EQ(c.jpeg[0], 0xFF);
  EXPECT_EQ(c.jpeg[1], 0xD8);
  EXPECT_EQ(c.jpeg[c.jpeg.size() - 2], 0xFF);
  EXPECT_EQ(c.jpeg[c.jpeg.size() - 1], 0xD9);
  GdkPixbuf* pb = Load(c.jpeg);
  EXPECT_TRUE(pb);
  EXPECT_FALSE(pb && gdk_pixbuf_get_has_alpha(pb));
  return pb;
}

TEST(ImageConverter, EverySavedFormatKeepsItsPixels) {
  // Left half red, right half blue.
  GdkPixbuf* source = MakePixbuf(48, 32, false, [](int x, int) { return x < 24 ? kRed : kBlue; });
  for (const char* format : {"png", "jpeg", "tiff", "webp", "bmp"}) {
    SCOPED_TRACE(format);
    const std::vector<uint8_t> bytes = Save(source, format);
    if (bytes.empty()) continue;  // no writer here
    if (format == std::string("bmp")) {
      // Decodable, but not a format migration takes: refused before any loader sees it.
      EXPECT_EQ(ConvertToJpeg(bytes.data(), bytes.size()).status, ConversionStatus::kNotAnImage);
      continue;
    }
    GdkPixbuf* out = ConvertAndLoad(bytes);
    if (!out) continue;
    EXPECT_EQ(gdk_pixbuf_get_width(out), 48);
    EXPECT_EQ(gdk_pixbuf_get_height(out), 32);
    EXPECT_TRUE(Near(PixelAt(out, 4, 16), kRed));
    EXPECT_TRUE(Near(PixelAt(out, 44, 16), kBlue));
    g_object_unref(out);
  }
  g_object_unref(source);
}

TEST(ImageConverter, TransparencyIsFlattenedOntoWhite) {
  // Opaque red | fully transparent (black underneath) | half-transparent blue.
  GdkPixbuf* source = MakePixbuf(48, 16, true, [](int x, int) -> Rgba {
    if (x < 16) return kRed;
    if (x < 32) return {0, 0, 0, 0};
    return {0, 0, 255, 128};
  });
  GdkPixbuf* out = ConvertAndLoad(Save(source, "png"));
  ASSERT_TRUE(out);
  EXPECT_TRUE(Near(PixelAt(out, 8, 8), kRed));
  EXPECT_TRUE(Near(PixelAt(out, 24, 8), kWhite));
  // Half blue over white: (127, 127, 255).
  EXPECT_TRUE(Near(PixelAt(out, 40, 8), {127, 127, 255}));
  g_object_unref(out);
  g_object_unref(source);
}

TEST(ImageConverter, GifFirstFrameKeepsItsPixels) {
  const std::array<Rgba, 4> palette = {kRed, kGreen, kBlue, kWhite};
  const auto gif = FourColourGif(16, 16, palette, [](int, int y) { return y < 8 ? 0 : 2; });
  GdkPixbuf* out = ConvertAndLoad(gif);
  ASSERT_TRUE(out);
  EXPECT_EQ(gdk_pixbuf_get_width(out), 16);
  EXPECT_TRUE(Near(PixelAt(out, 8, 2), kRed));
  EXPECT_TRUE(Near(PixelAt(out, 8, 13), kBlue));
  g_object_unref(out);
}

TEST(ImageConverter, ExifOrientationTurnsTheImageUpright) {
  // Stored 32x16, left red and right blue, tagged "turn 90 degrees clockwise to display":
  // upright it is 16x32 with red on top.
  GdkPixbuf* source = MakePixbuf(32, 16, false, [](int x, int) { return x < 16 ? kRed : kBlue; });
  const std::vector<uint8_t> jpeg = Save(source, "jpeg");
  g_object_unref(source);
  GdkPixbuf* out = ConvertAndLoad(WithExifOrientation(jpeg, 6));
  ASSERT_TRUE(out);
  EXPECT_EQ(gdk_pixbuf_get_width(out), 16);
  EXPECT_EQ(gdk_pixbuf_get_height(out), 32);
  EXPECT_TRUE(Near(PixelAt(out, 8, 4), kRed));
  EXPECT_TRUE(Near(PixelAt(out, 8, 28), kBlue));
  g_object_unref(out);
}

TEST(ImageConverter, NonImagesAndBrokenImagesAreRefused) {
  const std::vector<uint8_t> png = GreyPng(8, 8);
  const struct {
    const char* name;
    std::vector<uint8_t> bytes;
    ConversionStatus status;
  } cases[] = {
      {"empty", {}, ConversionStatus::kNotAnImage},
      {"text", {'h', 'e', 'l', 'l', 'o'}, ConversionStatus::kNotAnImage},
      {"png signature alone", std::vector<uint8_t>(png.begin(), png.begin() + 8),
       ConversionStatus::kUndecodable},
      {"jpeg marker then garbage",
       {0xFF, 0xD8, 0xFF, 0x00, 0x13, 0x37},
       ConversionStatus::kUndecodable},
      {"mp4 brand",
       {0, 0, 0, 24, 'f', 't', 'y', 'p', 'i', 's', 'o', 'm'},
       ConversionStatus::kNotAnImage},
  };
  for (const auto& c : cases) {
    Conversion result = ConvertToJpeg(c.bytes.data(), c.bytes.size());
    EXPECT_EQ(result.status, c.status) << c.name;
    EXPECT_TRUE(result.jpeg.empty()) << c.name;
  }
  EXPECT_EQ(ConvertToJpeg(nullptr, 0).status, ConversionStatus::kNotAnImage);
}

TEST(ImageConverter, RowsMissingFromAShortFileComeOutWhite) {
  // The decoder hands back a partial image for a file that ends early; the rows it never
  // received must be white, not whatever the memory held before.
  const std::vector<uint8_t> png = GreyPng(64, 64, 8);
  GdkPixbuf* out = ConvertAndLoad(png);
  ASSERT_TRUE(out);
  EXPECT_TRUE(Near(PixelAt(out, 32, 2), {0x80, 0x80, 0x80}));
  EXPECT_TRUE(Near(PixelAt(out, 32, 60), kWhite));
  g_object_unref(out);
}

long PeakRssKb() {
  rusage usage{};
  getrusage(RUSAGE_SELF, &usage);
  return usage.ru_maxrss;
}

TEST(ImageConverter, OversizedImagesAreRefusedFromTheirHeader) {
  // Headers that claim more than any decoder should be allowed to allocate ...
  const std::vector<uint8_t> png = GreyPng(100000, 100000, 1);
  const std::array<Rgba, 4> palette = {kRed, kGreen, kBlue, kWhite};
  const auto gif = FourColourGif(
      65535, 65535, palette, [](int, int) { return 0; }, false);
  // ... and a complete, valid image just over a (lowered) limit: decoding 3000x3000 would take
  // 27 MB, which the peak resident size would show. (Each test runs in a process of its own.)
  const std::vector<uint8_t> big = GreyPng(3000, 3000);
  GdkPixbuf* small = MakePixbuf(16, 16, false, [](int, int) { return kRed; });
  const std::vector<std::vector<uint8_t>> headers = {
      png, gif, WithJpegSize(Save(small, "jpeg"), 65000, 65000),
      // Their loaders allocate before asking: checked from the header first.
      WebpHeader(16384, 16384), HeicHeader(100000, 100000)};
  // libtiff finds the strips too short for the size before the loader asks: refused either way.
  const std::vector<uint8_t> tiff = WithTiffSize(Save(small, "tiff"), 60000, 60000);
  g_object_unref(small);
  const long before = PeakRssKb();
  for (const auto& image : headers) {
    EXPECT_EQ(ConvertToJpeg(image.data(), image.size()).status, ConversionStatus::kTooLarge)
        << SniffImageFormat(image.data(), image.size());
  }
  EXPECT_TRUE(ConvertToJpeg(tiff.data(), tiff.size()).jpeg.empty());
  EXPECT_EQ(ConvertToJpeg(big.data(), big.size(), 3000 * 3000 - 1).status,
            ConversionStatus::kTooLarge);
  EXPECT_LT(PeakRssKb() - before, 20 * 1024) << "refusing must not decode";
  // The same image converts when allowed.
  EXPECT_EQ(ConvertToJpeg(big.data(), big.size(), 3000 * 3000).status,
            ConversionStatus::kConverted);
}

TEST(JpegEncoder, EncodesStridedRowsAsBaselineJfif420) {
  // 3x2 pixels in rows 16 bytes apart, the padding filled with noise that must not leak in.
  std::vector<uint8_t> rgb(32, 0x5A);
  const Rgba colours[6] = {kRed, kGreen, kBlue, kWhite, kRed, kBlue};
  for (int i = 0; i < 6; ++i) {
    uint8_t* p = rgb.data() + (i / 3) * 16 + (i % 3) * 3;
    p[0] = colours[i].r, p[1] = colours[i].g, p[2] = colours[i].b;
  }
  // Larger blocks of one colour survive 4:2:0 unchanged; check those on a bigger image below.
  const std::vector<uint8_t> jpeg = imaging::EncodeJpeg(rgb.data(), 3, 2, 16, 90);
  ASSERT_GT(jpeg.size(), 20u);
  EXPECT_EQ(std::string(jpeg.begin() + 6, jpeg.begin() + 11), std::string("JFIF\0", 5));
  // The frame header: baseline (SOF0), three components, luma sampled 2x2 and chroma 1x1.
  const uint8_t kSof0[] = {0xFF, 0xC0};
  auto sof = std::search(jpeg.begin(), jpeg.end(), std::begin(kSof0), std::end(kSof0));
  ASSERT_NE(sof, jpeg.end());
  const size_t at = static_cast<size_t>(sof - jpeg.begin());
  EXPECT_EQ(jpeg[at + 9], 3);
  EXPECT_EQ(jpeg[at + 11], 0x22);
  EXPECT_EQ(jpeg[at + 14], 0x11);
  EXPECT_EQ(jpeg[at + 17], 0x11);

  std::vector<uint8_t> wide(64 * 3 * 16 + 100, 0);
  for (int y = 0; y < 16; ++y) {
    for (int x = 0; x < 64; ++x) {
      uint8_t* p = wide.data() + y * (64 * 3 + 100 / 16) + x * 3;
      const Rgba c = x < 32 ? kGreen : kBlue;
      p[0] = c.r, p[1] = c.g, p[2] = c.b;
    }
  }
  GdkPixbuf* out = Load(imaging::EncodeJpeg(wide.data(), 64, 16, 64 * 3 + 100 / 16, 90));
  ASSERT_TRUE(out);
  EXPECT_TRUE(Near(PixelAt(out, 8, 8), kGreen));
  EXPECT_TRUE(Near(PixelAt(out, 56, 8), kBlue));
  g_object_unref(out);
}

TEST(JpegEncoder, RefusesWhatItCannotEncode) {
  std::vector<uint8_t> rgb(300, 0);
  EXPECT_TRUE(imaging::EncodeJpeg(nullptr, 1, 1, 3, 90).empty());
  EXPECT_TRUE(imaging::EncodeJpeg(rgb.data(), 0, 1, 3, 90).empty());
  EXPECT_TRUE(imaging::EncodeJpeg(rgb.data(), 1, -1, 3, 90).empty());
  EXPECT_TRUE(imaging::EncodeJpeg(rgb.data(), 10, 1, 29, 90).empty()) << "stride under a row";
  EXPECT_TRUE(imaging::EncodeJpeg(rgb.data(), 70000, 1, 210000, 90).empty());
  EXPECT_TRUE(imaging::EncodeJpeg(rgb.data(), 1, 1, 3, 0).empty());
  EXPECT_TRUE(imaging::EncodeJpeg(rgb.data(), 1, 1, 3, 101).empty());
  EXPECT_FALSE(imaging::EncodeJpeg(rgb.data(), 10, 10, 30, 1).empty());
}

}  // namespace
}  // namespace corvane::legacy::testing
