#include "imaging/jpeg_encoder.h"

#include <csetjmp>
#include <cstdio>

// jpeglib.h needs size_t and FILE declared first.
// clang-format off
#include <jpeglib.h>
// clang-format on

namespace corvane::imaging {

namespace {

// Encoder failures unwind to the encode call. libjpeg is C, so an exception may not cross it.
struct ErrorManager {
  jpeg_error_mgr base;
  std::jmp_buf jump;
};

[[noreturn]] void OnFatalError(j_common_ptr info) {
  std::longjmp(reinterpret_cast<ErrorManager*>(info->err)->jump, 1);
}

void OnMessage(j_common_ptr, int) {}  // warnings are not worth a log line per frame

// Writes straight into the vector that is returned, so the bytes are never copied again.
struct VectorDestination {
  jpeg_destination_mgr base;
  std::vector<uint8_t>* out;

  static void Init(j_compress_ptr info) {
    auto* self = reinterpret_cast<VectorDestination*>(info->dest);
    self->base.next_output_byte = self->out->data();
    self->base.free_in_buffer = self->out->size();
  }
  static boolean Grow(j_compress_ptr info) {
    auto* self = reinterpret_cast<VectorDestination*>(info->dest);
    const size_t used = self->out->size();  // only called with the buffer full
    self->out->resize(used * 2);
    self->base.next_output_byte = self->out->data() + used;
    self->base.free_in_buffer = self->out->size() - used;
    return TRUE;
  }
  static void Term(j_compress_ptr info) {
    auto* self = reinterpret_cast<VectorDestination*>(info->dest);
    self->out->resize(self->out->size() - self->base.free_in_buffer);
  }
};

}  // namespace

std::vector<uint8_t> EncodeJpeg(const uint8_t* rgb, int width, int height, size_t stride,
                                int quality) {
  if (rgb == nullptr || width <= 0 || height <= 0 || width > JPEG_MAX_DIMENSION ||
      height > JPEG_MAX_DIMENSION || stride < static_cast<size_t>(width) * 3 || quality < 1 ||
      quality > 100) {
    return {};
  }

  std::vector<uint8_t> out;
  // A photo at quality 80 takes one to two bits a pixel; a busy one grows the buffer once or
  // twice.
  out.resize(static_cast<size_t>(width) * static_cast<size_t>(height) / 4 + 4096);

  jpeg_compress_struct info{};
  ErrorManager errors{};
  VectorDestination destination{};
  info.err = jpeg_std_error(&errors.base);
  errors.base.error_exit = OnFatalError;
  errors.base.emit_message = OnMessage;
  if (setjmp(errors.jump) != 0) {
    jpeg_destroy_compress(&info);
    return {};
  }
  jpeg_create_compress(&info);

  destination.out = &out;
  destination.base.init_destination = VectorDestination::Init;
  destination.base.empty_output_buffer = VectorDestination::Grow;
  destination.base.term_destination = VectorDestination::Term;
  info.dest = &destination.base;

  info.image_width = static_cast<JDIMENSION>(width);
  info.image_height = static_cast<JDIMENSION>(height);
  info.input_components = 3;
  info.in_color_space = JCS_RGB;
  // Defaults for RGB input: YCbCr with 2x2 luma sampling (4:2:0) and a JFIF marker, which
  // readers take as sRGB.
  jpeg_set_defaults(&info);
  info.write_JFIF_header = TRUE;
  info.dct_method = JDCT_ISLOW;  // as fast as the fast DCT with SIMD, and slightly smaller
  jpeg_set_quality(&info, quality, TRUE);

  jpeg_start_compress(&info, TRUE);
  while (info.next_scanline < info.image_height) {
    JSAMPROW row = const_cast<JSAMPROW>(rgb + static_cast<size_t>(info.next_scanline) * stride);
    jpeg_write_scanlines(&info, &row, 1);
  }
  jpeg_finish_compress(&info);
  jpeg_destroy_compress(&info);
  return out;
}

}  // namespace corvane::imaging
