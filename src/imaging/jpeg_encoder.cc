#include "imaging/jpeg_encoder.h"

#include <csetjmp>
#include <cstdio>  // before jpeglib.h, which uses FILE without including it
#include <new>

#include <jerror.h>
#include <jpeglib.h>

namespace corvane::imaging {

namespace {

// libjpeg reports fatal errors through a callback that must not return: jump back to the
// encoder's frame, which owns nothing that needs unwinding past this point.
struct ErrorManager {
  jpeg_error_mgr base;
  std::jmp_buf jump;
};

[[noreturn]] void ExitOnError(j_common_ptr info) {
  std::longjmp(reinterpret_cast<ErrorManager*>(info->err)->jump, 1);
}

void IgnoreMessage(j_common_ptr) {}

// Writes straight into the vector that is returned, so the output is never copied.
struct VectorDestination {
  jpeg_destination_mgr base;
  std::vector<uint8_t>* out;
};

void InitDestination(j_compress_ptr info) {
  auto* dest = reinterpret_cast<VectorDestination*>(info->dest);
  dest->base.next_output_byte = dest->out->data();
  dest->base.free_in_buffer = dest->out->size();
}

boolean GrowDestination(j_compress_ptr info) {
  auto* dest = reinterpret_cast<VectorDestination*>(info->dest);
  const size_t used = dest->out->size();  // the whole buffer is full when libjpeg calls this
  bool grown = true;
  try {
    dest->out->resize(used * 2);
  } catch (const std::bad_alloc&) {
    grown = false;
  }
  // Outside the handler: the error exit jumps, which must not leave a live exception behind.
  if (!grown) ERREXIT(info, JERR_OUT_OF_MEMORY);
  dest->base.next_output_byte = dest->out->data() + used;
  dest->base.free_in_buffer = dest->out->size() - used;
  return TRUE;
}

void TermDestination(j_compress_ptr info) {
  auto* dest = reinterpret_cast<VectorDestination*>(info->dest);
  dest->out->resize(dest->out->size() - dest->base.free_in_buffer);
}

// Everything with a destructor lives in the caller, so a longjmp out of here skips nothing.
bool Compress(jpeg_compress_struct& info, ErrorManager& errors, VectorDestination& dest,
              const uint8_t* rgb, int width, int height, size_t stride, int quality,
              JSAMPROW* rows) {
  if (setjmp(errors.jump)) return false;
  jpeg_create_compress(&info);
  info.dest = &dest.base;
  info.image_width = static_cast<JDIMENSION>(width);
  info.image_height = static_cast<JDIMENSION>(height);
  info.input_components = 3;
  info.in_color_space = JCS_RGB;
  jpeg_set_defaults(&info);  // YCbCr 4:2:0 with a JFIF header
  jpeg_set_quality(&info, quality, TRUE);
  // As fast as the fast DCT with SIMD, and slightly smaller output.
  info.dct_method = JDCT_ISLOW;
  jpeg_start_compress(&info, TRUE);
  constexpr int kBatch = 16;
  while (info.next_scanline < info.image_height) {
    const int first = static_cast<int>(info.next_scanline);
    const int count = first + kBatch <= height ? kBatch : height - first;
    for (int i = 0; i < count; ++i) {
      // libjpeg's row type is not const, but compression only reads the rows.
      rows[i] = const_cast<JSAMPROW>(rgb + static_cast<size_t>(first + i) * stride);
    }
    jpeg_write_scanlines(&info, rows, static_cast<JDIMENSION>(count));
  }
  jpeg_finish_compress(&info);
  return true;
}

}  // namespace

std::vector<uint8_t> EncodeJpeg(const uint8_t* rgb, int width, int height, size_t stride,
                                int quality) {
  if (!rgb || width <= 0 || height <= 0 || width > JPEG_MAX_DIMENSION ||
      height > JPEG_MAX_DIMENSION || stride < static_cast<size_t>(width) * 3 || quality < 1 ||
      quality > 100) {
    return {};
  }
  std::vector<uint8_t> out;
  // Room for a typical photo at high quality; larger output grows the buffer.
  out.resize(static_cast<size_t>(width) * static_cast<size_t>(height) / 2 + 4096);

  jpeg_compress_struct info{};
  ErrorManager errors{};
  info.err = jpeg_std_error(&errors.base);
  errors.base.error_exit = ExitOnError;
  errors.base.output_message = IgnoreMessage;
  VectorDestination dest{};
  dest.out = &out;
  dest.base.init_destination = InitDestination;
  dest.base.empty_output_buffer = GrowDestination;
  dest.base.term_destination = TermDestination;
  JSAMPROW rows[16];

  const bool ok = Compress(info, errors, dest, rgb, width, height, stride, quality, rows);
  jpeg_destroy_compress(&info);
  if (!ok) return {};
  return out;
}

}  // namespace corvane::imaging
