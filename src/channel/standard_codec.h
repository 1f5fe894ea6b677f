// Flutter's standard message codec and standard method codec, byte for byte.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>

#include "channel/value.h"

namespace corvane::channel {

// The result of a decode: a value, or why the bytes are not one. Decoding never reads past
// the end of its input.
template <typename T>
struct Decoded {
  std::optional<T> value;
  std::string error;
  size_t error_offset = 0;

  explicit operator bool() const { return value.has_value(); }
};

// Message codec. A value is written in full; zero bytes decode to null, as on the Flutter side.
void EncodeValue(const Value& value, Bytes& out);
Bytes EncodeMessage(const Value& value);
Decoded<Value> DecodeMessage(std::span<const uint8_t> bytes);

struct MethodCall {
  std::string method;
  Value arguments;
};

struct MethodError {
  std::string code;
  std::optional<std::string> message;
  Value details;
  // The optional fourth element of an error envelope; platform sides send it, Dart never does.
  std::optional<std::string> stacktrace;
};

// A decoded reply. Zero bytes are the not-implemented reply.
struct MethodReply {
  enum class Kind { kSuccess, kError, kNotImplemented };
  Kind kind = Kind::kNotImplemented;
  Value value;        // kSuccess
  MethodError error;  // kError
};

// Method codec.
Bytes EncodeMethodCall(const MethodCall& call);
Decoded<MethodCall> DecodeMethodCall(std::span<const uint8_t> bytes);
Bytes EncodeSuccessEnvelope(const Value& result);
Bytes EncodeErrorEnvelope(const MethodError& error);
Decoded<MethodReply> DecodeEnvelope(std::span<const uint8_t> bytes);

// Strings the writer found not to be UTF-8 since the process started. Each was sent with its
// bad bytes replaced by U+FFFD (the first is logged): whatever handed it over should have
// checked, and a test can ask whether anything did.
size_t RepairedStrings();

// Deepest nesting of lists and maps accepted when decoding; deeper input is rejected rather
// than allowed to exhaust the stack.
inline constexpr int kMaxNestingDepth = 128;
// Elements of all lists and maps in one message. A one-byte element decodes into a value of
// some 40 bytes, so without a budget a 32 MiB frame of nulls would cost over a gigabyte.
inline constexpr size_t kMaxDecodedElements = size_t{1} << 20;

}  // namespace corvane::channel
