// Standard codec: any bytes either decode or fail cleanly, and whatever decodes survives an
// encode/decode round trip. The encoder chooses integer widths by value and writes zero padding
// and minimal sizes, so a re-encoding may differ from the input; it must be a fixed point.
#include <cstddef>
#include <cstdint>
#include <span>

#include "channel/standard_codec.h"
#include "fuzz_check.h"
#include "value_equivalence.h"

namespace {

using namespace corvane::channel;
using corvane::fuzz::Equivalence;
using corvane::fuzz::Equivalent;

constexpr Equivalence kByValue{.integers_by_value = true};

template <typename T>
void CheckFailure(const Decoded<T>& decoded, size_t size) {
  FUZZ_CHECK(!decoded.error.empty());
  FUZZ_CHECK(decoded.error_offset <= size);
}

void Message(std::span<const uint8_t> input) {
  Decoded<Value> first = DecodeMessage(input);
  if (!first) return CheckFailure(first, input.size());
  const Bytes encoded = EncodeMessage(*first.value);
  Decoded<Value> second = DecodeMessage(encoded);
  FUZZ_CHECK(second);
  FUZZ_CHECK(Equivalent(*first.value, *second.value, kByValue));
  FUZZ_CHECK(EncodeMessage(*second.value) == encoded);
}

void Call(std::span<const uint8_t> input) {
  Decoded<MethodCall> first = DecodeMethodCall(input);
  if (!first) return CheckFailure(first, input.size());
  const Bytes encoded = EncodeMethodCall(*first.value);
  Decoded<MethodCall> second = DecodeMethodCall(encoded);
  FUZZ_CHECK(second);
  FUZZ_CHECK(second.value->method == first.value->method);
  FUZZ_CHECK(Equivalent(first.value->arguments, second.value->arguments, kByValue));
  FUZZ_CHECK(EncodeMethodCall(*second.value) == encoded);
}

Bytes Encode(const MethodReply& reply) {
  switch (reply.kind) {
    case MethodReply::Kind::kSuccess:
      return EncodeSuccessEnvelope(reply.value);
    case MethodReply::Kind::kError:
      return EncodeErrorEnvelope(reply.error);
    case MethodReply::Kind::kNotImplemented:
      return Bytes();
  }
  std::abort();
}

void Envelope(std::span<const uint8_t> input) {
  Decoded<MethodReply> first = DecodeEnvelope(input);
  if (!first) return CheckFailure(first, input.size());
  const MethodReply& a = *first.value;
  FUZZ_CHECK((a.kind == MethodReply::Kind::kNotImplemented) == input.empty());
  const Bytes encoded = Encode(a);
  Decoded<MethodReply> second = DecodeEnvelope(encoded);
  FUZZ_CHECK(second);
  const MethodReply& b = *second.value;
  FUZZ_CHECK(a.kind == b.kind);
  FUZZ_CHECK(Equivalent(a.value, b.value, kByValue));
  FUZZ_CHECK(a.error.code == b.error.code);
  FUZZ_CHECK(a.error.message == b.error.message);
  FUZZ_CHECK(Equivalent(a.error.details, b.error.details, kByValue));
  FUZZ_CHECK(a.error.stacktrace == b.error.stacktrace);
  FUZZ_CHECK(Encode(b) == encoded);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::span<const uint8_t> input(data, size);
  Message(input);
  Call(input);
  Envelope(input);
  return 0;
}
