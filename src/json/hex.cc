#include "json/hex.h"

#include <array>

namespace corvane::json {

namespace {

constexpr char kDigits[] = "0123456789abcdef";
constexpr uint8_t kBad = 0xff;
constexpr uint8_t kSpace = 0xfe;

// One table lookup a character: camera frames reach 16 MiB, so this runs over 32 MiB of text.
constexpr std::array<uint8_t, 256> MakeTable() {
  std::array<uint8_t, 256> t{};
  for (auto& v : t) v = kBad;
  for (int i = 0; i < 10; ++i) t['0' + i] = static_cast<uint8_t>(i);
  for (int i = 0; i < 6; ++i) {
    t['a' + i] = static_cast<uint8_t>(10 + i);
    t['A' + i] = static_cast<uint8_t>(10 + i);
  }
  for (char c : {' ', '\t', '\n', '\r', '\f', '\v'}) t[static_cast<uint8_t>(c)] = kSpace;
  return t;
}

constexpr std::array<uint8_t, 256> kTable = MakeTable();

}  // namespace

void AppendHex(std::span<const uint8_t> bytes, std::string& out) {
  const size_t at = out.size();
  out.resize(at + bytes.size() * 2);
  char* p = out.data() + at;
  for (uint8_t b : bytes) {
    *p++ = kDigits[b >> 4];
    *p++ = kDigits[b & 15];
  }
}

std::string HexEncode(std::span<const uint8_t> bytes) {
  std::string out;
  AppendHex(bytes, out);
  return out;
}

std::optional<channel::Bytes> HexDecode(std::string_view text, bool skip_whitespace,
                                        std::string* error) {
  channel::Bytes out;
  out.reserve(text.size() / 2);
  int high = -1;  // the first digit of a pair, while waiting for the second
  for (size_t i = 0; i < text.size(); ++i) {
    const uint8_t v = kTable[static_cast<uint8_t>(text[i])];
    if (v < 16) {
      if (high < 0) {
        high = v;
      } else {
        out.push_back(static_cast<uint8_t>(high << 4 | v));
        high = -1;
      }
      continue;
    }
    if (v == kSpace && skip_whitespace) continue;
    if (error) {
      const auto c = static_cast<unsigned char>(text[i]);
      *error = "bad hex digit ";
      if (c >= 0x21 && c < 0x7f) {
        *error += '\'';
        *error += static_cast<char>(c);
        *error += '\'';
      } else {
        *error += "0x";
        *error += kDigits[c >> 4];
        *error += kDigits[c & 15];
      }
      *error += " at offset " + std::to_string(i);
    }
    return std::nullopt;
  }
  if (high >= 0) {
    if (error) *error = "odd number of hex digits";
    return std::nullopt;
  }
  return out;
}

}  // namespace corvane::json
