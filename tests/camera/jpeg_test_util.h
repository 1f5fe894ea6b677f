// Decoding JPEG bytes back to RGB, to compare what was sent with what was given.
#pragma once

#include <csetjmp>
#include <cstdint>
#include <cstdio>
#include <optional>
#include <vector>

// clang-format off
#include <jpeglib.h>  // after <cstdio>: it needs FILE
// clang-format on

namespace corvane::testing {

struct DecodedJpeg {
  int width = 0, height = 0;
  bool jfif = false;
  std::vector<uint8_t> rgb;
};

inline std::optional<DecodedJpeg> DecodeJpeg(const std::vector<uint8_t>& bytes) {
  struct Errors {
    jpeg_error_mgr base;
    std::jmp_buf jump;
  } errors;
  jpeg_decompress_struct info{};
  info.err = jpeg_std_error(&errors.base);
  errors.base.error_exit = [](j_common_ptr c) {
    std::longjmp(reinterpret_cast<Errors*>(c->err)->jump, 1);
  };
  if (setjmp(errors.jump)) return jpeg_destroy_decompress(&info), std::nullopt;
  jpeg_create_decompress(&info);
  jpeg_mem_src(&info, bytes.data(), static_cast<unsigned long>(bytes.size()));
  jpeg_read_header(&info, TRUE);
  info.out_color_space = JCS_RGB;
  jpeg_start_decompress(&info);
  DecodedJpeg out{static_cast<int>(info.output_width), static_cast<int>(info.output_height),
                  info.saw_JFIF_marker != 0};
  out.rgb.resize(static_cast<size_t>(out.width) * out.height * 3);
  while (info.output_scanline < info.output_height) {
    JSAMPROW row = out.rgb.data() + static_cast<size_t>(info.output_scanline) * out.width * 3;
    jpeg_read_scanlines(&info, &row, 1);
  }
  jpeg_finish_decompress(&info);
  jpeg_destroy_decompress(&info);
  return out;
}

// Mean absolute difference per channel between two RGB images of the same size.
inline double MeanDifference(const std::vector<uint8_t>& a, const std::vector<uint8_t>& b) {
  if (a.size() != b.size() || a.empty()) return 1e9;
  double sum = 0;
  for (size_t i = 0; i < a.size(); ++i) sum += a[i] > b[i] ? a[i] - b[i] : b[i] - a[i];
  return sum / static_cast<double>(a.size());
}

}  // namespace corvane::testing
