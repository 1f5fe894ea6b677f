// Checks on the text arguments of the camera channel.
#pragma once

#include <string>

namespace corvane::camera {

// The textual form the platform's UUID parser accepts: 8-4-4-4-12 hexadecimal digits, either
// case.
bool IsUuid(const std::string& text);

// A device identifier the service will look up: not empty, at most 1024 UTF-16 code units, no
// control character (below U+0020, or U+007F). `text` is valid UTF-8 (the codec checks it).
bool IsAcceptableDeviceId(const std::string& text);

}  // namespace corvane::camera
