#include "legacy/image_converter.h"

#include <gdk-pixbuf/gdk-pixbuf.h>

#include <algorithm>
#include <cstring>
#include <limits>
#include <optional>
#include <string>
#include <string_view>

#include "channel/log.h"
#include "imaging/jpeg_encoder.h"
#include "legacy/legacy_log.h"

namespace corvane::legacy {

namespace {

constexpr int kMaxJpegSide = 65500;  // libjpeg's own limit
// A progressive JPEG is decoded again over the whole picture for every scan it holds, and
// nothing in the format stops one scan from being repeated: the work is pixels times scans.
// An ordinary progressive file has about ten scans; this allows sixteen at the pixel limit,
// more for smaller pictures, and never more than kMaxJpegScans.
constexpr int64_t kJpegScansAtPixelLimit = 16;
constexpr int64_t kMaxJpegScans = 1000;

bool HasPrefix(const uint8_t* data, size_t size, std::string_view prefix, size_t at = 0) {
  return size >= at + prefix.size() && std::memcmp(data + at, prefix.data(), prefix.size()) == 0;
}

struct SizeGuard {
  int64_t max_pixels;
  int64_t scans = 1;
  bool refused = false;
};

// Every start-of-scan marker the decoder can meet is the byte pair FF DA (fill bytes before a
// marker are FF too), and entropy-coded data never holds it; counting the pairs gives an upper
// bound without parsing anything. Counting stops past `limit`.
int64_t JpegScanCount(const uint8_t* data, size_t size, int64_t limit) {
  int64_t scans = 0;
  const uint8_t* end = data + size;
  for (const uint8_t* p = data; scans <= limit && p + 1 < end; ++p) {
    p = static_cast<const uint8_t*>(std::memchr(p, 0xFF, static_cast<size_t>(end - p - 1)));
    if (!p) break;
    scans += p[1] == 0xDA;
  }
  return scans;
}

// Runs as soon as the decoder knows the dimensions and before it allocates the image. Asking
// for a 0x0 result makes every loader stop with an error instead.
void OnSizePrepared(GdkPixbufLoader* loader, int width, int height, gpointer data) {
  auto* guard = static_cast<SizeGuard*>(data);
  const int64_t pixels = int64_t{width} * height;
  if (width > 0 && height > 0 && width <= kMaxJpegSide && height <= kMaxJpegSide &&
      pixels <= guard->max_pixels &&
      pixels * guard->scans <= guard->max_pixels * kJpegScansAtPixelLimit) {
    return;
  }
  guard->refused = true;
  gdk_pixbuf_loader_set_size(loader, 0, 0);
}

// A file that ends early still gives an image, whose missing rows the decoder never writes:
// white, rather than whatever the memory held before.
void OnAreaPrepared(GdkPixbufLoader* loader, gpointer) {
  if (GdkPixbuf* pixbuf = gdk_pixbuf_loader_get_pixbuf(loader)) gdk_pixbuf_fill(pixbuf, 0xFFFFFFFF);
}

GdkPixbuf* Decode(const char* format, const uint8_t* data, size_t size, SizeGuard& guard,
                  ConversionStatus* status) {
  GError* error = nullptr;
  GdkPixbufLoader* loader = gdk_pixbuf_loader_new_with_type(format, &error);
  if (!loader) {
    // A format whose loader is not installed here.
    g_clear_error(&error);
    *status = ConversionStatus::kNotAnImage;
    return nullptr;
  }
  g_signal_connect(loader, "size-prepared", G_CALLBACK(OnSizePrepared), &guard);
  g_signal_connect(loader, "area-prepared", G_CALLBACK(OnAreaPrepared), nullptr);
  const bool written = gdk_pixbuf_loader_write(loader, data, size, &error);
  g_clear_error(&error);
  // Closed even after a failed write: the loader insists on it.
  const bool closed = gdk_pixbuf_loader_close(loader, &error);
  g_clear_error(&error);
  GdkPixbuf* pixbuf = nullptr;
  if (written && closed && !guard.refused) {
    pixbuf = gdk_pixbuf_loader_get_pixbuf(loader);
    if (pixbuf) g_object_ref(pixbuf);
  }
  g_object_unref(loader);
  if (!pixbuf)
    *status = guard.refused ? ConversionStatus::kTooLarge : ConversionStatus::kUndecodable;
  return pixbuf;
}

// 8-bit RGBA rows onto white, as packed RGB.
std::vector<uint8_t> FlattenOnWhite(const uint8_t* pixels, int width, int height, size_t stride) {
  std::vector<uint8_t> rgb(static_cast<size_t>(width) * height * 3);
  uint8_t* out = rgb.data();
  for (int y = 0; y < height; ++y) {
    const uint8_t* p = pixels + static_cast<size_t>(y) * stride;
    for (int x = 0; x < width; ++x, p += 4, out += 3) {
      const unsigned a = p[3];
      const unsigned white = 255 * (255 - a);
      // Rounded: (c*a + 255*(255-a)) / 255.
      out[0] = static_cast<uint8_t>((p[0] * a + white + 127) / 255);
      out[1] = static_cast<uint8_t>((p[1] * a + white + 127) / 255);
      out[2] = static_cast<uint8_t>((p[2] * a + white + 127) / 255);
    }
  }
  return rgb;
}

uint32_t Little(const uint8_t* p, int n) {
  uint32_t v = 0;
  for (int i = n - 1; i >= 0; --i) v = (v << 8) | p[i];
  return v;
}

uint32_t Big32(const uint8_t* p) {
  return uint32_t{p[0]} << 24 | uint32_t{p[1]} << 16 | uint32_t{p[2]} << 8 | p[3];
}

struct Dimensions {
  int64_t width = 0, height = 0;
};

// The canvas of a WebP file, from its first chunk.
std::optional<Dimensions> WebpDimensions(const uint8_t* data, size_t size) {
  if (size < 30) return std::nullopt;
  const uint8_t* chunk = data + 12;
  const uint8_t* body = chunk + 8;
  if (std::memcmp(chunk, "VP8 ", 4) == 0) {  // lossy: a key frame's header
    if (body[3] != 0x9D || body[4] != 0x01 || body[5] != 0x2A) return std::nullopt;
    return Dimensions{Little(body + 6, 2) & 0x3FFF, Little(body + 8, 2) & 0x3FFF};
  }
  if (std::memcmp(chunk, "VP8L", 4) == 0) {  // lossless
    if (body[0] != 0x2F) return std::nullopt;
    const uint32_t bits = Little(body + 1, 4);
    return Dimensions{(bits & 0x3FFF) + 1, ((bits >> 14) & 0x3FFF) + 1};
  }
  if (std::memcmp(chunk, "VP8X", 4) == 0) {  // extended: the canvas
    return Dimensions{int64_t{Little(body + 4, 3)} + 1, int64_t{Little(body + 7, 3)} + 1};
  }
  return std::nullopt;
}

// The largest image a HEIF/AVIF file describes: every image has a spatial-extent ("ispe")
// property, the full picture of a tiled one included.
std::optional<Dimensions> HeifDimensions(const uint8_t* data, size_t size) {
  std::optional<Dimensions> largest;
  for (size_t at = 4; at + 16 <= size; ++at) {
    if (std::memcmp(data + at, "ispe", 4) != 0 || Big32(data + at - 4) < 20) continue;
    // Clamped so the products below cannot overflow; anything this wide is refused anyway.
    constexpr int64_t kClamp = int64_t{1} << 24;
    const Dimensions d{std::min<int64_t>(Big32(data + at + 8), kClamp),
                       std::min<int64_t>(Big32(data + at + 12), kClamp)};
    if (!largest || d.width * d.height > largest->width * largest->height) largest = d;
  }
  return largest;
}

// Loaders that do not stop at "size-prepared" before allocating (WebP, HEIF) are checked from
// the file's own header first. Nothing when the header is not readable.
std::optional<Dimensions> HeaderDimensions(std::string_view format, const uint8_t* data,
                                           size_t size) {
  if (format == "webp") return WebpDimensions(data, size);
  if (format == "heif/avif") return HeifDimensions(data, size);
  return Dimensions{1, 1};  // decided by the loader's "size-prepared"
}

}  // namespace

const char* SniffImageFormat(const uint8_t* data, size_t size) {
  if (!data) return nullptr;
  if (HasPrefix(data, size, "\x89PNG\r\n\x1a\n")) return "png";
  if (HasPrefix(data, size, "\xFF\xD8\xFF")) return "jpeg";
  if (HasPrefix(data, size, "GIF87a") || HasPrefix(data, size, "GIF89a")) return "gif";
  if (HasPrefix(data, size, std::string_view("II*\0", 4)) ||
      HasPrefix(data, size, std::string_view("MM\0*", 4))) {
    return "tiff";
  }
  if (HasPrefix(data, size, "RIFF") && HasPrefix(data, size, "WEBP", 8)) return "webp";
  if (HasPrefix(data, size, "ftyp", 4)) {
    // Only still-image brands: an MP4 begins the same way.
    for (std::string_view brand :
         {"heic", "heix", "heim", "heis", "hevc", "hevx", "mif1", "msf1", "avif", "avis"}) {
      if (HasPrefix(data, size, brand, 8)) return "heif/avif";
    }
  }
  return nullptr;
}

Conversion ConvertToJpeg(const uint8_t* data, size_t size, int64_t max_pixels) {
  const char* format = SniffImageFormat(data, size);
  if (!format) return {ConversionStatus::kNotAnImage, {}};
  const std::optional<Dimensions> header = HeaderDimensions(format, data, size);
  if (!header) return {ConversionStatus::kUndecodable, {}};
  if (header->width <= 0 || header->height <= 0 || header->width > kMaxJpegSide ||
      header->height > kMaxJpegSide || header->width * header->height > max_pixels) {
    return {ConversionStatus::kTooLarge, {}};
  }
  SizeGuard guard{max_pixels};
  if (std::strcmp(format, "jpeg") == 0) {
    guard.scans = std::max<int64_t>(1, JpegScanCount(data, size, kMaxJpegScans));
    if (guard.scans > kMaxJpegScans) return {ConversionStatus::kTooLarge, {}};
  }
  ConversionStatus status = ConversionStatus::kConverted;
  GdkPixbuf* decoded = Decode(format, data, size, guard, &status);
  if (!decoded) {
    channel::Log(channel::LogLevel::kDebug, kLogDomain,
                 std::string("image refused: ") + format +
                     (status == ConversionStatus::kTooLarge ? " over the pixel or scan limit"
                                                            : " does not decode"));
    return {status, {}};
  }
  // A new pixbuf when the EXIF orientation asks for a turn, the same one (with a new
  // reference) otherwise.
  GdkPixbuf* upright = gdk_pixbuf_apply_embedded_orientation(decoded);
  g_object_unref(decoded);
  if (!upright) return {ConversionStatus::kUndecodable, {}};

  const int width = gdk_pixbuf_get_width(upright);
  const int height = gdk_pixbuf_get_height(upright);
  const int channels = gdk_pixbuf_get_n_channels(upright);
  const size_t stride = static_cast<size_t>(gdk_pixbuf_get_rowstride(upright));
  const uint8_t* pixels = gdk_pixbuf_read_pixels(upright);
  std::vector<uint8_t> jpeg;
  if (gdk_pixbuf_get_bits_per_sample(upright) == 8 && gdk_pixbuf_get_has_alpha(upright) &&
      channels == 4) {
    const std::vector<uint8_t> rgb = FlattenOnWhite(pixels, width, height, stride);
    jpeg = imaging::EncodeJpeg(rgb.data(), width, height, static_cast<size_t>(width) * 3,
                               kJpegQuality);
  } else if (gdk_pixbuf_get_bits_per_sample(upright) == 8 && channels == 3) {
    jpeg = imaging::EncodeJpeg(pixels, width, height, stride, kJpegQuality);
  }
  g_object_unref(upright);
  if (jpeg.empty()) return {ConversionStatus::kUndecodable, {}};
  return {ConversionStatus::kConverted, std::move(jpeg)};
}

}  // namespace corvane::legacy
