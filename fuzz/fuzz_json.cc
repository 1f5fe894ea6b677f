// JSON mapping: any text either parses or fails with a reason, and whatever parses survives
// ToJson and a second parse unchanged, down to the integer width and the sign of zero. The
// printed form is canonical, so printing the second parse gives the same text.
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "fuzz_check.h"
#include "json/json_mapping.h"
#include "value_equivalence.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  using corvane::json::ParseJsonValue;
  using corvane::json::ToJson;
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  const corvane::json::ParsedJson first = ParseJsonValue(text);
  if (!first.value) {
    FUZZ_CHECK(!first.error.empty());
    return 0;
  }
  const std::string printed = ToJson(*first.value);
  const corvane::json::ParsedJson second = ParseJsonValue(printed);
  if (!second.value) {
    std::fprintf(stderr, "printed: %s\nerror: %s\n", printed.c_str(), second.error.c_str());
  }
  FUZZ_CHECK(second.value);
  FUZZ_CHECK(corvane::fuzz::Equivalent(*first.value, *second.value));
  FUZZ_CHECK(ToJson(*second.value) == printed);
  return 0;
}
