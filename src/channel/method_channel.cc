#include "channel/method_channel.h"

#include "channel/log.h"

namespace corvane::channel {

namespace {
constexpr std::string_view kLogDomain = "corvane-channel";
}

MethodResult::MethodResult(BinaryMessenger& messenger, BinaryReply reply, std::string channel,
                           std::string method)
    : messenger_(messenger),
      reply_(std::move(reply)),
      channel_(std::move(channel)),
      method_(std::move(method)) {}

MethodResult::~MethodResult() {
  if (!answered_.load()) {
    Log(LogLevel::kWarning, kLogDomain,
        "call \"" + method_ + "\" on " + channel_ + " was dropped without an answer");
    Answer(EncodeErrorEnvelope(MethodError{kUnansweredCode,
                                           "The native side dropped this call without answering.",
                                           Value(), std::nullopt}),
           "error");
  }
}

void MethodResult::Success(Value result) { Answer(EncodeSuccessEnvelope(result), "success"); }

void MethodResult::Error(std::string code, std::optional<std::string> message, Value details) {
  Answer(EncodeErrorEnvelope(
             MethodError{std::move(code), std::move(message), std::move(details), std::nullopt}),
         "error");
}

void MethodResult::NotImplemented() { Answer(Bytes(), "not-implemented"); }

void MethodResult::Answer(Bytes envelope, const char* kind) {
  if (answered_.exchange(true)) {
    Log(LogLevel::kWarning, kLogDomain,
        std::string("second answer (") + kind + ") to \"" + method_ + "\" on " + channel_ +
            " dropped");
    return;
  }
  if (messenger_.IsMainThread()) {
    reply_.Send(std::move(envelope));
    return;
  }
  // The reply handle moves with the task, so it is sent (or, if the main loop is gone,
  // answered empty by its destructor) on the main thread only.
  auto reply = std::make_shared<BinaryReply>(std::move(reply_));
  messenger_.PostToMainThread([reply, envelope = std::move(envelope)]() mutable {
    reply->Send(std::move(envelope));
  });
}

MethodChannel::MethodChannel(BinaryMessenger& messenger, std::string name)
    : messenger_(messenger), name_(std::move(name)) {}

MethodChannel::~MethodChannel() { messenger_.SetMessageHandler(name_, nullptr); }

void MethodChannel::SetMethodCallHandler(Handler handler) {
  if (!handler) {
    messenger_.SetMessageHandler(name_, nullptr);
    return;
  }
  messenger_.SetMessageHandler(
      name_, [this, handler = std::move(handler)](Bytes message, BinaryReply reply) {
        Decoded<MethodCall> call = DecodeMethodCall(message);
        if (!call) {
          // As Flutter does: a message that is not a method call gets the empty reply.
          Log(LogLevel::kWarning, kLogDomain,
              "malformed method call on " + name_ + ": " + call.error + " at byte " +
                  std::to_string(call.error_offset));
          reply.Send(Bytes());
          return;
        }
        auto result =
            std::make_unique<MethodResult>(messenger_, std::move(reply), name_, call.value->method);
        handler(*call.value, std::move(result));
      });
}

void MethodChannel::InvokeMethod(std::string method, Value arguments, ReplyCallback on_reply) {
  Bytes message = EncodeMethodCall(MethodCall{std::move(method), std::move(arguments)});
  if (!on_reply) {
    messenger_.Send(name_, std::move(message));
    return;
  }
  messenger_.Send(name_, std::move(message), [on_reply = std::move(on_reply)](Bytes bytes) {
    Decoded<MethodReply> reply = DecodeEnvelope(bytes);
    if (reply) {
      on_reply(*reply.value);
      return;
    }
    MethodReply malformed;
    malformed.kind = MethodReply::Kind::kError;
    malformed.error.code = kMalformedReplyCode;
    malformed.error.message = reply.error;
    on_reply(malformed);
  });
}

}  // namespace corvane::channel
