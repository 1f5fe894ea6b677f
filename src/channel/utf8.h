// UTF-8 well-formedness, shared by the codec (strings off the wire) and the JSON mapping.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>

namespace corvane::channel {

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

// Whether all `n` bytes are ASCII, a word at a time; the last word overlaps the one before.
inline bool IsAscii(const uint8_t* s, size_t n) {
  if (n >= 8) {
    uint64_t any = 0, word;
    for (size_t i = 0; i + 8 <= n; i += 8) {
      std::memcpy(&word, s + i, 8);
      any |= word;
    }
    std::memcpy(&word, s + n - 8, 8);
    return ((any | word) & 0x8080808080808080ull) == 0;
  }
  uint32_t any = 0;
  if (n >= 4) {
    uint32_t head, tail;
    std::memcpy(&head, s, 4);
    std::memcpy(&tail, s + n - 4, 4);
    any = head | tail;
  } else {
    for (size_t i = 0; i < n; ++i) any |= s[i];
  }
  return (any & 0x80808080u) == 0;
}

inline bool IsValidUtf8(const uint8_t* s, size_t n) {
  // Keys, names and most strings on a channel are ASCII.
  if (IsAscii(s, n)) return true;
  size_t i = 0;
  while (i < n) {
    // Fast path: eight ASCII bytes at a time.
    if (i + 8 <= n) {
      uint64_t chunk;
      std::memcpy(&chunk, s + i, 8);
      if ((chunk & 0x8080808080808080ull) == 0) {
        i += 8;
        continue;
      }
    }
    const size_t len = Utf8SequenceLength(s + i, n - i);
    if (len == 0) return false;
    i += len;
  }
  return true;
}

// `s` with every byte that does not begin a well-formed sequence replaced by U+FFFD: what the
// Flutter side can decode, with as much of the text kept as can be.
inline std::string MakeValidUtf8(std::string_view s) {
  const auto* p = reinterpret_cast<const unsigned char*>(s.data());
  std::string out;
  out.reserve(s.size() + 8);
  for (size_t i = 0; i < s.size();) {
    const size_t len = Utf8SequenceLength(p + i, s.size() - i);
    if (len == 0) {
      out += "\xEF\xBF\xBD";
      ++i;
    } else {
      out.append(s.data() + i, len);
      i += len;
    }
  }
  return out;
}

}  // namespace corvane::channel
