// Old images to JPEG: decoded with gdk-pixbuf, upright by their EXIF orientation, transparent
// parts on white, encoded with libjpeg-turbo.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

namespace corvane::legacy {

// High enough that re-encoding an old photo loses nothing visible.
inline constexpr int kJpegQuality = 90;
// 64 megapixels: the largest phone photos pass; decoding one takes about 256 MB.
inline constexpr int64_t kMaxImagePixels = int64_t{64} << 20;

enum class ConversionStatus {
  kConverted,
  kNotAnImage,   // empty, or not a format we decode
  kTooLarge,     // more pixels, or pixels times JPEG scans, than allowed; nothing was decoded
  kUndecodable,  // the decoder gave up (truncated, corrupt)
};

struct Conversion {
  ConversionStatus status;
  std::vector<uint8_t> jpeg;  // empty unless converted
};

// PNG, JPEG, GIF (first frame), TIFF, WebP and HEIF/AVIF, the last two where gdk-pixbuf has a
// loader for them. Images over `max_pixels` (for JPEG, also past the scans that many pixels
// allow) are refused from their header, before decoding.
Conversion ConvertToJpeg(const uint8_t* data, size_t size, int64_t max_pixels = kMaxImagePixels);

// The gdk-pixbuf loader for the image format `data` begins with; null when none of the above.
const char* SniffImageFormat(const uint8_t* data, size_t size);

}  // namespace corvane::legacy
