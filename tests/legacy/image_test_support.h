// Images made in the test: pixbufs saved by gdk-pixbuf's own writers, plus the few encodings
// it cannot write (EXIF orientation, headers that lie about the size).
#pragma once

#include <gdk-pixbuf/gdk-pixbuf.h>
#include <zlib.h>

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace corvane::legacy::testing {

struct Rgba {
  uint8_t r, g, b, a = 255;
};

using PixelFn = std::function<Rgba(int x, int y)>;

inline GdkPixbuf* MakePixbuf(int w, int h, bool alpha, const PixelFn& fn) {
  GdkPixbuf* pb = gdk_pixbuf_new(GDK_COLORSPACE_RGB, alpha, 8, w, h);
  const int n = gdk_pixbuf_get_n_channels(pb);
  const int stride = gdk_pixbuf_get_rowstride(pb);
  uint8_t* pixels = gdk_pixbuf_get_pixels(pb);
  for (int y = 0; y < h; ++y) {
    for (int x = 0; x < w; ++x) {
      const Rgba c = fn(x, y);
      uint8_t* p = pixels + y * stride + x * n;
      p[0] = c.r, p[1] = c.g, p[2] = c.b;
      if (alpha) p[3] = c.a;
    }
  }
  return pb;
}

// Empty when this machine has no writer for `format`.
inline std::vector<uint8_t> Save(GdkPixbuf* pb, const char* format) {
  gchar* buffer = nullptr;
  gsize size = 0;
  GError* error = nullptr;
  const bool ok =
      format == std::string("jpeg")
          ? gdk_pixbuf_save_to_buffer(pb, &buffer, &size, format, &error, "quality", "95", nullptr)
          : gdk_pixbuf_save_to_buffer(pb, &buffer, &size, format, &error, nullptr);
  g_clear_error(&error);
  std::vector<uint8_t> out;
  if (ok) out.assign(buffer, buffer + size);
  g_free(buffer);
  return out;
}

// Decodes with gdk-pixbuf; null when it does not decode. Caller unrefs.
inline GdkPixbuf* Load(const std::vector<uint8_t>& bytes) {
  GdkPixbufLoader* loader = gdk_pixbuf_loader_new();
  GdkPixbuf* pb = nullptr;
  if (gdk_pixbuf_loader_write(loader, bytes.data(), bytes.size(), nullptr) &&
      gdk_pixbuf_loader_close(loader, nullptr)) {
    pb = gdk_pixbuf_loader_get_pixbuf(loader);
    if (pb) g_object_ref(pb);
  } else {
    gdk_pixbuf_loader_close(loader, nullptr);
  }
  g_object_unref(loader);
  return pb;
}

inline Rgba PixelAt(GdkPixbuf* pb, int x, int y) {
  const uint8_t* p = gdk_pixbuf_read_pixels(pb) + y * gdk_pixbuf_get_rowstride(pb) +
                     x * gdk_pixbuf_get_n_channels(pb);
  return {p[0], p[1], p[2], gdk_pixbuf_get_has_alpha(pb) ? p[3] : uint8_t{255}};
}

// JPEG is lossy: colours within a few steps count as equal.
inline bool Near(Rgba a, Rgba b, int tolerance = 8) {
  return std::abs(a.r - b.r) <= tolerance && std::abs(a.g - b.g) <= tolerance &&
         std::abs(a.b - b.b) <= tolerance;
}

inline void PutBigEndian32(std::vector<uint8_t>& out, uint32_t v) {
  for (int s = 24; s >= 0; s -= 8) out.push_back(static_cast<uint8_t>(v >> s));
}

inline void PngChunk(std::vector<uint8_t>& out, const char* type,
                     const std::vector<uint8_t>& data) {
  PutBigEndian32(out, static_cast<uint32_t>(data.size()));
  const size_t start = out.size();
  out.insert(out.end(), type, type + 4);
  out.insert(out.end(), data.begin(), data.end());
  PutBigEndian32(out, static_cast<uint32_t>(crc32(0, out.data() + start, out.size() - start)));
}

// A PNG of one grey level, `w` x `h`, compressed row by row so that a large one costs little
// memory to make. With `rows` given, only that many rows follow the header: a file whose header
// promises far more than it holds.
inline std::vector<uint8_t> GreyPng(uint32_t w, uint32_t h, int64_t rows = -1) {
  std::vector<uint8_t> out = {0x89, 'P', 'N', 'G', '\r', '\n', 0x1a, '\n'};
  std::vector<uint8_t> ihdr;
  PutBigEndian32(ihdr, w);
  PutBigEndian32(ihdr, h);
  ihdr.insert(ihdr.end(), {8, 0, 0, 0, 0});  // 8-bit greyscale
  PngChunk(out, "IHDR", ihdr);
  const uint32_t n = rows < 0 ? h : static_cast<uint32_t>(rows);
  z_stream z{};
  deflateInit(&z, 6);
  std::vector<uint8_t> row(std::min<uint32_t>(w, 1 << 16) + 1, 0x80);
  row[0] = 0;  // no filter
  std::vector<uint8_t> compressed(deflateBound(&z, row.size() * static_cast<uLong>(n)) + 64);
  z.next_out = compressed.data();
  z.avail_out = static_cast<uInt>(compressed.size());
  for (uint32_t y = 0; y < n; ++y) {
    z.next_in = row.data();
    z.avail_in = static_cast<uInt>(row.size());
    deflate(&z, y + 1 == n ? Z_FINISH : Z_NO_FLUSH);
  }
  compressed.resize(z.total_out);
  deflateEnd(&z);
  PngChunk(out, "IDAT", compressed);
  PngChunk(out, "IEND", {});
  return out;
}

// A lossless WebP whose header announces `w` x `h` (up to 16384 each), with no real pixels.
inline std::vector<uint8_t> WebpHeader(uint32_t w, uint32_t h) {
  std::vector<uint8_t> out = {'R', 'I', 'F', 'F', 0,   0,   0, 0, 'W', 'E', 'B',
                              'P', 'V', 'P', '8', 'L', 100, 0, 0, 0,   0x2F};
  const uint32_t bits = (w - 1) | (h - 1) << 14;
  for (int s = 0; s < 32; s += 8) out.push_back(static_cast<uint8_t>(bits >> s));
  out.resize(out.size() + 95, 0);
  out[4] = static_cast<uint8_t>(out.size() - 8);
  return out;
}

// The start of a HEIC file whose image property announces `w` x `h`.
inline std::vector<uint8_t> HeicHeader(uint32_t w, uint32_t h) {
  std::vector<uint8_t> out = {0, 0, 0, 24, 'f', 't', 'y', 'p', 'h', 'e', 'i', 'c',
                              0, 0, 0, 0,  'm', 'i', 'f', '1', 'h', 'e', 'i', 'c'};
  PutBigEndian32(out, 20);
  out.insert(out.end(), {'i', 's', 'p', 'e', 0, 0, 0, 0});
  PutBigEndian32(out, w);
  PutBigEndian32(out, h);
  return out;
}

// `jpeg` (baseline) with its frame header saying `w` x `h`.
inline std::vector<uint8_t> WithJpegSize(std::vector<uint8_t> jpeg, uint16_t w, uint16_t h) {
  for (size_t i = 2; i + 9 < jpeg.size(); ++i) {
    if (jpeg[i] == 0xFF && jpeg[i + 1] == 0xC0) {
      jpeg[i + 5] = static_cast<uint8_t>(h >> 8), jpeg[i + 6] = static_cast<uint8_t>(h);
      jpeg[i + 7] = static_cast<uint8_t>(w >> 8), jpeg[i + 8] = static_cast<uint8_t>(w);
      break;
    }
  }
  return jpeg;
}

// `jpeg` with an EXIF block saying how to turn it for display (1 upright .. 8).
inline std::vector<uint8_t> WithExifOrientation(const std::vector<uint8_t>& jpeg,
                                                uint8_t orientation) {
  // APP1 "Exif", a little-endian TIFF block with one entry: Orientation (SHORT, count 1).
  const std::string app1 =
      std::string("\xFF\xE1\0\042Exif\0\0II*\0\010\0\0\0\001\0\022\001\003\0\001\0\0\0", 28) +
      static_cast<char>(orientation) + std::string(7, '\0');
  std::vector<uint8_t> out(jpeg.begin(), jpeg.begin() + 2);
  out.insert(out.end(), app1.begin(), app1.end());
  out.insert(out.end(), jpeg.begin() + 2, jpeg.end());
  return out;
}

}  // namespace corvane::legacy::testing
