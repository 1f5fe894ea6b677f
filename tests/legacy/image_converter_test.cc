// Image conversion and the JPEG encoder under it, checked on the pixels that come out.
#include "legacy/image_converter.h"

#include <gtest/gtest.h>
#include <sys/resource.h>

#include <cstdio>  // before jpeglib.h, which needs it
//
#include <jpeglib.h>

#include "image_test_support.h"

namespace corvane::legacy::testing {
namespace {

const Rgba kRed{220, 20, 20}, kBlue{20, 20, 220}, kWhite{255, 255, 255};

// Converts and decodes the JPEG that comes back; null (with a failure) when there is none.
GdkPixbuf* ConvertAndLoad(const std::vector<uint8_t>& image) {
  Conversion c = ConvertToJpeg(image.data(), image.size());
  EXPECT_EQ(c.status, ConversionStatus::kConverted);
  // The encoder's format (JFIF, 4:2:0) is the camera tests' business.
  GdkPixbuf* pb = Load(c.jpeg);
  EXPECT_TRUE(pb);
  EXPECT_FALSE(pb && gdk_pixbuf_get_has_alpha(pb));
  return pb;
}

TEST(ImageConverter, ConvertedPixelsAreWhatTheSourceShows) {
  // Opaque red | fully transparent (black underneath) | half-transparent blue.
  GdkPixbuf* alpha = MakePixbuf(48, 16, true, [](int x, int) -> Rgba {
    if (x < 16) return kRed;
    if (x < 32) return {0, 0, 0, 0};
    return {0, 0, 255, 128};
  });
  // Stored 32x16, left red and right blue.
  GdkPixbuf* wide = MakePixbuf(32, 16, false, [](int x, int) { return x < 16 ? kRed : kBlue; });
  const struct {
    const char* why;
    std::vector<uint8_t> image;
    int width, height;
    std::vector<std::pair<std::pair<int, int>, Rgba>> pixels;
  } cases[] = {
      {"transparency flattened onto white (half blue over white: 127, 127, 255)",
       Save(alpha, "png"),
       48,
       16,
       {{{8, 8}, kRed}, {{24, 8}, kWhite}, {{40, 8}, {127, 127, 255}}}},
      {"EXIF \"turn 90 degrees clockwise to display\": upright, red on top",
       WithExifOrientation(Save(wide, "jpeg"), 6),
       16,
       32,
       {{{8, 4}, kRed}, {{8, 28}, kBlue}}},
      {"TIFF", Save(wide, "tiff"), 32, 16, {{{4, 8}, kRed}, {{28, 8}, kBlue}}},
      {"WebP", Save(wide, "webp"), 32, 16, {{{4, 8}, kRed}, {{28, 8}, kBlue}}},
      // The decoder hands back a partial image for a file that ends early; the rows it never
      // received must be white, not whatever the memory held before.
      {"rows missing from a short file",
       GreyPng(64, 64, 8),
       64,
       64,
       {{{32, 2}, {0x80, 0x80, 0x80}}, {{32, 60}, kWhite}}},
  };
  g_object_unref(alpha);
  g_object_unref(wide);
  for (const auto& c : cases) {
    SCOPED_TRACE(c.why);
    if (c.image.empty()) continue;  // no writer for it on this machine
    GdkPixbuf* out = ConvertAndLoad(c.image);
    ASSERT_TRUE(out);
    EXPECT_EQ(gdk_pixbuf_get_width(out), c.width);
    EXPECT_EQ(gdk_pixbuf_get_height(out), c.height);
    for (const auto& [at, colour] : c.pixels) {
      EXPECT_TRUE(Near(PixelAt(out, at.first, at.second), colour)) << at.first << "," << at.second;
    }
    g_object_unref(out);
  }
}

TEST(ImageConverter, NonImagesAndBrokenImagesAreRefused) {
  const std::vector<uint8_t> png = GreyPng(8, 8);
  GdkPixbuf* pixbuf = MakePixbuf(8, 8, false, [](int, int) { return kRed; });
  const std::vector<uint8_t> bmp = Save(pixbuf, "bmp");
  g_object_unref(pixbuf);
  const struct {
    const char* name;
    std::vector<uint8_t> bytes;
    ConversionStatus status;
  } cases[] = {
      {"empty", {}, ConversionStatus::kNotAnImage},
      {"text", {'h', 'e', 'l', 'l', 'o'}, ConversionStatus::kNotAnImage},
      {"png signature alone", std::vector<uint8_t>(png.begin(), png.begin() + 8),
       ConversionStatus::kUndecodable},
      // Sniffed as GIF, so handed to its loader, which finds no image.
      {"gif87a header", {'G', 'I', 'F', '8', '7', 'a', 1, 0}, ConversionStatus::kUndecodable},
      {"gif89a header", {'G', 'I', 'F', '8', '9', 'a', 1, 0}, ConversionStatus::kUndecodable},
      {"jpeg marker then garbage",
       {0xFF, 0xD8, 0xFF, 0x00, 0x13, 0x37},
       ConversionStatus::kUndecodable},
      // Decodable, but not a format migration takes: refused before any loader sees it.
      {"bmp", bmp, ConversionStatus::kNotAnImage},
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

long PeakRssKb() {
  rusage usage{};
  getrusage(RUSAGE_SELF, &usage);
  return usage.ru_maxrss;
}

TEST(ImageConverter, OversizedImagesAreRefusedFromTheirHeader) {
  // Headers that claim more than any decoder should be allowed to allocate ...
  const std::vector<uint8_t> png = GreyPng(100000, 100000, 1);
  // ... and a complete, valid image just over a (lowered) limit: decoding 3000x3000 would take
  // 27 MB, which the peak resident size would show. (Each test runs in a process of its own.)
  const std::vector<uint8_t> big = GreyPng(3000, 3000);
  GdkPixbuf* small = MakePixbuf(16, 16, false, [](int, int) { return kRed; });
  const std::vector<std::vector<uint8_t>> headers = {
      png, WithJpegSize(Save(small, "jpeg"), 65000, 65000),
      // Their loaders allocate before asking: checked from the header first.
      WebpHeader(16384, 16384), HeicHeader(100000, 100000)};
  g_object_unref(small);
  const long before = PeakRssKb();
  for (const auto& image : headers) {
    EXPECT_EQ(ConvertToJpeg(image.data(), image.size()).status, ConversionStatus::kTooLarge)
        << SniffImageFormat(image.data(), image.size());
  }
  EXPECT_EQ(ConvertToJpeg(big.data(), big.size(), 3000 * 3000 - 1).status,
            ConversionStatus::kTooLarge);
  EXPECT_LT(PeakRssKb() - before, 20 * 1024) << "refusing must not decode";
  // The same image converts when allowed.
  EXPECT_EQ(ConvertToJpeg(big.data(), big.size(), 3000 * 3000).status,
            ConversionStatus::kConverted);
}

// libjpeg's simple progression: ten scans for colour. Then the last scan once more per `extra`,
// as a hostile file repeats one to make the decoder redo the whole picture each time.
std::vector<uint8_t> ProgressiveJpeg(int side, int extra) {
  jpeg_compress_struct c{};
  jpeg_error_mgr error{};
  c.err = jpeg_std_error(&error);
  jpeg_create_compress(&c);
  unsigned char* buffer = nullptr;
  unsigned long size = 0;
  jpeg_mem_dest(&c, &buffer, &size);
  c.image_width = c.image_height = side;
  c.input_components = 3;
  c.in_color_space = JCS_RGB;
  jpeg_set_defaults(&c);
  jpeg_simple_progression(&c);
  jpeg_start_compress(&c, TRUE);
  std::vector<uint8_t> row(side * 3, 0x80);
  for (JSAMPROW r = row.data(); c.next_scanline < c.image_height;) jpeg_write_scanlines(&c, &r, 1);
  jpeg_finish_compress(&c);
  jpeg_destroy_compress(&c);
  std::vector<uint8_t> out(buffer, buffer + size - 2);  // without the end marker
  free(buffer);
  const uint8_t kSos[] = {0xFF, 0xDA};
  const auto last = std::find_end(out.begin(), out.end(), std::begin(kSos), std::end(kSos));
  const std::vector<uint8_t> scan(last, out.end());
  for (int i = 0; i < extra; ++i) out.insert(out.end(), scan.begin(), scan.end());
  out.insert(out.end(), {0xFF, 0xD9});
  return out;
}

TEST(ImageConverter, JpegScansArePaidForInPixels) {
  // At the pixel limit sixteen scans; below it more, but never past a thousand.
  const struct {
    int side, extra;
    int64_t max_pixels;
    ConversionStatus status;
  } cases[] = {
      {64, 6, 64 * 64, ConversionStatus::kConverted},
      {64, 7, 64 * 64, ConversionStatus::kTooLarge},
      {64, 7, 64 * 64 * 2, ConversionStatus::kConverted},
      {8, 990, kMaxImagePixels, ConversionStatus::kConverted},
      {8, 991, kMaxImagePixels, ConversionStatus::kTooLarge},
  };
  for (const auto& c : cases) {
    const std::vector<uint8_t> jpeg = ProgressiveJpeg(c.side, c.extra);
    EXPECT_EQ(ConvertToJpeg(jpeg.data(), jpeg.size(), c.max_pixels).status, c.status) << c.extra;
  }
}

}  // namespace
}  // namespace corvane::legacy::testing
