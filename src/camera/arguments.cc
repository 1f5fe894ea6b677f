#include "camera/arguments.h"

#include <cctype>

namespace corvane::camera {

namespace {
constexpr size_t kMaxDeviceIdUnits = 1024;
}

bool IsUuid(const std::string& text) {
  if (text.size() != 36) return false;
  for (size_t i = 0; i < text.size(); ++i) {
    const bool dash = i == 8 || i == 13 || i == 18 || i == 23;
    if (dash ? text[i] != '-' : !std::isxdigit(static_cast<unsigned char>(text[i]))) return false;
  }
  return true;
}

bool IsAcceptableDeviceId(const std::string& text) {
  if (text.empty()) return false;
  size_t units = 0;
  for (unsigned char c : text) {
    if (c < 0x20 || c == 0x7F) return false;
    // A lead byte starts a character; four-byte characters take two UTF-16 units.
    if ((c & 0xC0) != 0x80) units += c >= 0xF0 ? 2 : 1;
    if (units > kMaxDeviceIdUnits) return false;  // no need to read the rest of a huge one
  }
  return true;
}

}  // namespace corvane::camera
