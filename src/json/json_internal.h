// What the JSON mapping's reader and writer share: tag names and UTF-8 checking.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

namespace corvane::json {
namespace tags {

inline constexpr std::string_view kInt32 = "$int32";
inline constexpr std::string_view kInt64 = "$int64";
inline constexpr std::string_view kFloat64 = "$float64";
inline constexpr std::string_view kBytes = "$bytes";
inline constexpr std::string_view kInt32List = "$int32list";
inline constexpr std::string_view kInt64List = "$int64list";
inline constexpr std::string_view kFloat32List = "$float32list";
inline constexpr std::string_view kFloat64List = "$float64list";
inline constexpr std::string_view kMap = "$map";

// Spellings of the non-finite floats, which JSON numbers cannot carry.
inline constexpr std::string_view kNaN = "NaN";
inline constexpr std::string_view kInfinity = "Infinity";
inline constexpr std::string_view kMinusInfinity = "-Infinity";

}  // namespace tags

// Length of the well-formed UTF-8 sequence at `p` (at most `n` bytes available), or 0 when it
// is malformed: overlong forms, surrogates and code points past U+10FFFF are all refused.
inline size_t Utf8SequenceLength(const unsigned char* p, size_t n) {
  const unsigned char c = p[0];
  if (c < 0x80) return 1;
  size_t len;
  unsigned char lo = 0x80, hi = 0xbf;  // allowed range of the second byte
  if (c >= 0xc2 && c <= 0xdf) {
    len = 2;
  } else if (c >= 0xe0 && c <= 0xef) {
    len = 3;
    if (c == 0xe0) lo = 0xa0;
    if (c == 0xed) hi = 0x9f;
  } else if (c >= 0xf0 && c <= 0xf4) {
    len = 4;
    if (c == 0xf0) lo = 0x90;
    if (c == 0xf4) hi = 0x8f;
  } else {
    return 0;
  }
  if (n < len || p[1] < lo || p[1] > hi) return 0;
  for (size_t i = 2; i < len; ++i) {
    if ((p[i] & 0xc0) != 0x80) return 0;
  }
  return len;
}

}  // namespace corvane::json
