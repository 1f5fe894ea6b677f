// JPEG encoding with libjpeg-turbo, shared by the services that hand images to the Flutter side.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

namespace corvane::imaging {

// Packed 8-bit RGB rows `stride` bytes apart -> baseline JPEG with a JFIF header (sRGB),
// 4:2:0, the given libjpeg quality (1..100). Empty on failure (bad sizes, encoder error).
std::vector<uint8_t> EncodeJpeg(const uint8_t* rgb, int width, int height, size_t stride,
                                int quality);

}  // namespace corvane::imaging
