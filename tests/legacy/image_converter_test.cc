// Image conversion and the JPEG encoder under it, checked on the pixels that come out. Images are
// made with gdk-pixbuf's and libjpeg's own writers; by hand only what they cannot write.
#include "legacy/image_converter.h"

#include <gdk-pixbuf/gdk-pixbuf.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <zlib.h>

#include <cstdio>  // before jpeglib.h, which needs it
//
#include <jpeglib.h>

namespace corvane::legacy {
namespace {

using namespace std::string_literals;

// Vertical bands `band` pixels wide, one colour (0xRRGGBBAA) each.
GdkPixbuf* Bands(int band, int h, bool alpha, std::initializer_list<uint32_t> colours) {
  GdkPixbuf* pb = gdk_pixbuf_new(GDK_COLORSPACE_RGB, alpha, 8, band * int(colours.size()), h);
  int x = 0;
  for (uint32_t colour : colours) {
    GdkPixbuf* sub = gdk_pixbuf_new_subpixbuf(pb, x, 0, band, h);
    gdk_pixbuf_fill(sub, colour);
    g_object_unref(sub);
    x += band;
  }
  return pb;
}

// Takes `pb`; empty when this machine has no writer for `format`.
std::vector<uint8_t> Save(GdkPixbuf* pb, const char* format) {
  gchar* buffer = nullptr;
  gsize size = 0;
  std::vector<uint8_t> out;
  if (gdk_pixbuf_save_to_buffer(pb, &buffer, &size, format, nullptr, nullptr))
    out.assign(buffer, buffer + size);
  g_free(buffer);
  g_object_unref(pb);
  return out;
}

void Put32(std::vector<uint8_t>& out, uint32_t v) {
  for (int s = 24; s >= 0; s -= 8) out.push_back(static_cast<uint8_t>(v >> s));
}

void PngChunk(std::vector<uint8_t>& out, const char* type, const std::vector<uint8_t>& data) {
  Put32(out, static_cast<uint32_t>(data.size()));
  const size_t start = out.size();
  out.insert(out.end(), type, type + 4);
  out.insert(out.end(), data.begin(), data.end());
  Put32(out, static_cast<uint32_t>(crc32(0, out.data() + start, out.size() - start)));
}

std::vector<uint8_t> B(const std::string& s) { return {s.begin(), s.end()}; }

// A grey `w` x `h` PNG of which only `rows` rows follow the header: a file that promises more
// than it holds.
std::vector<uint8_t> GreyPng(uint32_t w, uint32_t h, uint32_t rows) {
  std::vector<uint8_t> out = B("\x89PNG\r\n\x1a\n"), ihdr, raw((w + 1) * size_t{rows}, 0x80);
  for (size_t i = 0; i < raw.size(); i += w + 1) raw[i] = 0;  // no filter
  uLongf size = compressBound(raw.size());
  std::vector<uint8_t> idat(size);
  compress(idat.data(), &size, raw.data(), raw.size());
  idat.resize(size);
  Put32(ihdr, w);
  Put32(ihdr, h);
  ihdr.insert(ihdr.end(), {8, 0, 0, 0, 0});  // 8-bit greyscale
  PngChunk(out, "IHDR", ihdr);
  PngChunk(out, "IDAT", idat);
  PngChunk(out, "IEND", {});
  return out;
}

// Converts, decodes the JPEG that comes back and gives its size and the colours at `points`
// (0xRRGGBB, each channel in 16ths: JPEG is lossy).
std::pair<std::pair<int, int>, std::vector<uint32_t>> Converted(
    const std::vector<uint8_t>& image, std::vector<std::pair<int, int>> points) {
  const Conversion c = ConvertToJpeg(image.data(), image.size());
  EXPECT_EQ(c.status, ConversionStatus::kConverted);
  GdkPixbufLoader* loader = gdk_pixbuf_loader_new_with_type("jpeg", nullptr);
  gdk_pixbuf_loader_write(loader, c.jpeg.data(), c.jpeg.size(), nullptr);
  gdk_pixbuf_loader_close(loader, nullptr);
  GdkPixbuf* pb = gdk_pixbuf_loader_get_pixbuf(loader);
  std::pair<std::pair<int, int>, std::vector<uint32_t>> out;
  if (pb && gdk_pixbuf_get_n_channels(pb) == 3) {
    out.first = {gdk_pixbuf_get_width(pb), gdk_pixbuf_get_height(pb)};
    for (const auto& [x, y] : points) {
      const uint8_t* p = gdk_pixbuf_read_pixels(pb) + y * gdk_pixbuf_get_rowstride(pb) + x * 3;
      out.second.push_back((p[0] + 8) / 16 << 16 | (p[1] + 8) / 16 << 8 | (p[2] + 8) / 16);
    }
  }
  g_object_unref(loader);
  return out;
}

// `jpeg` with an EXIF block saying how to turn it for display (1 upright .. 8).
std::vector<uint8_t> WithExifOrientation(std::vector<uint8_t> jpeg, char orientation) {
  // APP1 "Exif", a little-endian TIFF block with one entry: Orientation (SHORT, count 1).
  const std::string app1 =
      std::string("\xFF\xE1\0\042Exif\0\0II*\0\010\0\0\0\001\0\022\001\003\0\001\0\0\0", 28) +
      orientation + std::string(7, '\0');
  jpeg.insert(jpeg.begin() + 2, app1.begin(), app1.end());
  return jpeg;
}

TEST(ImageConverter, ConvertedPixelsAreWhatTheSourceShows) {
  // Red | blue, and the 16ths Converted gives for them.
  constexpr uint32_t kRed = 0xDC1414FF, kBlue = 0x1414DCFF, kRed16 = 0x0E0101, kBlue16 = 0x01010E;
  using Result = std::pair<std::pair<int, int>, std::vector<uint32_t>>;
  // Transparency flattened onto white; half blue over white is 127, 127, 255.
  EXPECT_EQ(Converted(Save(Bands(16, 16, true, {kRed, 0, 0x0000FF80}), "png"),
                      {{8, 8}, {24, 8}, {40, 8}}),
            Result({48, 16}, {kRed16, 0x101010, 0x080810}));
  // EXIF "turn 90 degrees clockwise to display": upright, red on top.
  EXPECT_EQ(Converted(WithExifOrientation(Save(Bands(16, 16, false, {kRed, kBlue}), "jpeg"), 6),
                      {{8, 4}, {8, 28}}),
            Result({16, 32}, {kRed16, kBlue16}));
  for (const char* format : {"tiff", "webp"}) {
    const std::vector<uint8_t> image = Save(Bands(16, 16, false, {kRed, kBlue}), format);
    if (image.empty()) continue;  // no writer for it on this machine
    EXPECT_EQ(Converted(image, {{4, 8}, {28, 8}}), Result({32, 16}, {kRed16, kBlue16})) << format;
  }
  // The decoder hands back a partial image for a file that ends early; the rows it never
  // received must be white, not whatever the memory held before.
  EXPECT_EQ(Converted(GreyPng(64, 64, 8), {{32, 2}, {32, 60}}),
            Result({64, 64}, {0x080808, 0x101010}));
}

TEST(ImageConverter, NonImagesAndBrokenImagesAreRefused) {
  using enum ConversionStatus;
  const std::pair<std::vector<uint8_t>, ConversionStatus> cases[] = {
      {{}, kNotAnImage},
      {B("hello"), kNotAnImage},
      {B("\x89PNG\r\n\x1a\n"), kUndecodable},
      // Sniffed as GIF, so handed to its loader, which finds no image.
      {B("GIF87a\1\0"s), kUndecodable},
      {B("GIF89a\1\0"s), kUndecodable},
      {B("\xFF\xD8\xFF\0\x13\x37"s), kUndecodable},
      // Decodable, but not a format migration takes: refused before any loader sees it.
      {Save(Bands(8, 8, false, {0}), "bmp"), kNotAnImage},
      {B("\0\0\0\x18"
         "ftypisom"s),
       kNotAnImage},
  };
  for (const auto& [bytes, status] : cases) {
    const Conversion result = ConvertToJpeg(bytes.data(), bytes.size());
    EXPECT_EQ(std::pair(result.status, result.jpeg.size()), std::pair(status, size_t{0}))
        << &bytes - &cases[0].first;
  }
  EXPECT_EQ(ConvertToJpeg(nullptr, 0).status, kNotAnImage);
}

long PeakRssKb() {
  rusage usage{};
  getrusage(RUSAGE_SELF, &usage);
  return usage.ru_maxrss;
}

TEST(ImageConverter, OversizedImagesAreRefusedFromTheirHeader) {
  // A baseline JPEG's frame header made to say 65000 x 65000.
  std::vector<uint8_t> jpeg = Save(Bands(16, 16, false, {0}), "jpeg");
  const uint8_t kSof[] = {0xFF, 0xC0};
  const auto sof = std::search(jpeg.begin(), jpeg.end(), std::begin(kSof), std::end(kSof));
  ASSERT_NE(sof, jpeg.end());
  std::fill(sof + 5, sof + 9, 0xFD);
  // Lossless WebP and HEIC headers alone: their loaders allocate before asking, so they are
  // checked from the header first.
  std::vector<uint8_t> webp = B("RIFF\x70\0\0\0WEBPVP8L\x64\0\0\0\x2F\xFF\xFF\xFF\x0F"s);
  webp.resize(120);                  // 16384 x 16384
  const std::vector<uint8_t> heic =  // 100000 x 100000
      B("\0\0\0\x18"
        "ftypheic\0\0\0\0mif1heic\0\0\0\x14ispe\0\0\0\0\0\x01\x86\xA0\0\x01\x86\xA0"s);
  // A complete, valid image just over a (lowered) limit: decoding 4000x4000 would take 48 MB,
  // more than making it did, which the peak resident size would show. (Each test runs in a
  // process of its own.)
  const std::vector<uint8_t> big = GreyPng(4000, 4000, 4000);
  const long before = PeakRssKb();
  for (const auto& image : {GreyPng(100000, 100000, 1), jpeg, webp, heic}) {
    EXPECT_EQ(ConvertToJpeg(image.data(), image.size()).status, ConversionStatus::kTooLarge)
        << SniffImageFormat(image.data(), image.size());
  }
  EXPECT_EQ(ConvertToJpeg(big.data(), big.size(), 4000 * 4000 - 1).status,
            ConversionStatus::kTooLarge);
  EXPECT_LT(PeakRssKb() - before, 8 * 1024) << "refusing must not decode";
  EXPECT_EQ(ConvertToJpeg(big.data(), big.size(), 4000 * 4000).status,
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
}  // namespace corvane::legacy
