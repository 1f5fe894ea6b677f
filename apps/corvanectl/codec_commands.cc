// encode and decode: JSON to codec bytes and back, for messages, method calls and envelopes.
#include <set>

#include "commands.h"
#include "json/hex.h"
#include "json/json_mapping.h"

namespace corvane::ctl {

namespace {

using channel::Bytes;
using channel::Value;
using channel::ValueMap;

// The string-keyed entries of a JSON object given on the command line, checked against the
// keys allowed there. Reports on standard error and returns null when the shape is wrong.
const ValueMap* ObjectWithKeys(const Value& value, const std::set<std::string>& allowed,
                               const char* what) {
  const ValueMap* map = value.map_if();
  if (!map) {
    Complain(std::string(what) + " must be a JSON object");
    return nullptr;
  }
  std::set<std::string> seen;
  for (const auto& e : *map) {
    const std::string* key = e.key.string_if();
    if (!key || !allowed.count(*key) || !seen.insert(*key).second) {
      Complain(std::string(what) + ": unexpected or repeated key " + json::ToJson(e.key));
      return nullptr;
    }
  }
  return map;
}

std::optional<Bytes> EncodeMethodCallJson(const Value& value) {
  const ValueMap* map = ObjectWithKeys(value, {"method", "args"}, "a method call");
  if (!map) return std::nullopt;
  const Value* method = map->Find("method");
  if (!method || !method->string_if()) {
    Complain("a method call needs a string \"method\"");
    return std::nullopt;
  }
  const Value* args = map->Find("args");
  return channel::EncodeMethodCall({*method->string_if(), args ? *args : Value()});
}

std::optional<Bytes> EncodeEnvelopeJson(const Value& value) {
  const ValueMap* map = ObjectWithKeys(value, {"success", "error"}, "an envelope");
  if (!map) return std::nullopt;
  if (map->size() != 1) {
    Complain("an envelope has exactly one of \"success\" and \"error\"");
    return std::nullopt;
  }
  if (const Value* success = map->Find("success")) return channel::EncodeSuccessEnvelope(*success);

  const ValueMap* error =
      ObjectWithKeys(*map->Find("error"), {"code", "message", "details", "stacktrace"}, "error");
  if (!error) return std::nullopt;
  const Value* code = error->Find("code");
  const Value* message = error->Find("message");
  const Value* details = error->Find("details");
  const Value* stacktrace = error->Find("stacktrace");
  if (!code || !code->string_if()) {
    Complain("an error needs a string \"code\"");
    return std::nullopt;
  }
  if ((message && !message->is_null() && !message->string_if()) ||
      (stacktrace && !stacktrace->is_null() && !stacktrace->string_if())) {
    Complain("an error's \"message\" and \"stacktrace\" must be strings or null");
    return std::nullopt;
  }
  channel::MethodError e{*code->string_if(), std::nullopt, details ? *details : Value(),
                         std::nullopt};
  if (message && message->string_if()) e.message = *message->string_if();
  if (stacktrace && stacktrace->string_if()) e.stacktrace = *stacktrace->string_if();
  Bytes bytes = channel::EncodeErrorEnvelope(e);
  // A null stack trace still takes the fourth place when it is given; the envelope encoder
  // only writes one that is a string.
  if (stacktrace && stacktrace->is_null()) channel::EncodeValue(Value(), bytes);
  return bytes;
}

int PrintJson(const Value& value) {
  if (!PrintLine(json::ToJson(value))) {
    Complain("cannot write to standard output");
    return kExitFailure;
  }
  return kExitOk;
}

Value Entry(const char* key, Value value) {
  ValueMap map;
  map.Append(Value(key), std::move(value));
  return Value(std::move(map));
}

}  // namespace

int RunEncode(const Options& options) {
  std::optional<Value> value = ParseJsonArgument(options.args[0], "the value");
  if (!value) return kExitFailure;
  std::optional<Bytes> bytes;
  switch (options.form) {
    case CodecForm::kMessage:
      bytes = channel::EncodeMessage(*value);
      break;
    case CodecForm::kMethodCall:
      bytes = EncodeMethodCallJson(*value);
      break;
    case CodecForm::kEnvelope:
      bytes = EncodeEnvelopeJson(*value);
      break;
  }
  if (!bytes) return kExitFailure;
  if (!PrintLine(json::HexEncode(*bytes))) {
    Complain("cannot write to standard output");
    return kExitFailure;
  }
  return kExitOk;
}

int RunDecode(const Options& options) {
  std::string error;
  std::optional<std::string> text = ReadArgument(options.args[0], &error);
  std::optional<Bytes> bytes;
  if (text) bytes = json::HexDecode(*text, true, &error);
  if (!bytes) {
    Complain("invalid hex: " + error);
    return kExitFailure;
  }
  auto malformed = [](const std::string& what, size_t offset) {
    Complain("malformed " + what + " at byte " + std::to_string(offset));
    return kExitFailure;
  };
  switch (options.form) {
    case CodecForm::kMessage: {
      channel::Decoded<Value> decoded = channel::DecodeMessage(*bytes);
      if (!decoded) return malformed("message: " + decoded.error, decoded.error_offset);
      return PrintJson(*decoded.value);
    }
    case CodecForm::kMethodCall: {
      channel::Decoded<channel::MethodCall> decoded = channel::DecodeMethodCall(*bytes);
      if (!decoded) return malformed("method call: " + decoded.error, decoded.error_offset);
      ValueMap map;
      map.Append(Value("method"), Value(decoded.value->method));
      map.Append(Value("args"), std::move(decoded.value->arguments));
      return PrintJson(Value(std::move(map)));
    }
    case CodecForm::kEnvelope: {
      channel::Decoded<channel::MethodReply> decoded = channel::DecodeEnvelope(*bytes);
      if (!decoded) return malformed("envelope: " + decoded.error, decoded.error_offset);
      switch (decoded.value->kind) {
        case channel::MethodReply::Kind::kNotImplemented:
          return kExitEmptyReply;
        case channel::MethodReply::Kind::kSuccess:
          return PrintJson(Entry("success", std::move(decoded.value->value)));
        case channel::MethodReply::Kind::kError:
          return PrintJson(Entry("error", ErrorObject(decoded.value->error)));
      }
    }
  }
  return kExitFailure;
}

}  // namespace corvane::ctl
