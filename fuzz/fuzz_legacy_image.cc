// "convertImage": whatever the bytes, the answer is a complete JPEG or nothing, and images past
// the pixel limit are never decoded. The limit is lowered here so each run stays quick.
#include <cstddef>
#include <cstdint>

#include "fuzz_check.h"
#include "legacy/image_converter.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  using corvane::legacy::ConversionStatus;
  const auto conversion = corvane::legacy::ConvertToJpeg(data, size, int64_t{1} << 20);
  if (conversion.status != ConversionStatus::kConverted) {
    FUZZ_CHECK(conversion.jpeg.empty());
    return 0;
  }
  const auto& jpeg = conversion.jpeg;
  FUZZ_CHECK(jpeg.size() > 4);
  FUZZ_CHECK(jpeg[0] == 0xFF && jpeg[1] == 0xD8);
  FUZZ_CHECK(jpeg[jpeg.size() - 2] == 0xFF && jpeg[jpeg.size() - 1] == 0xD9);
  return 0;
}
