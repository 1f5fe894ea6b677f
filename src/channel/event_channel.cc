#include "channel/event_channel.h"

#include "channel/log.h"

namespace corvane::channel {

namespace {
constexpr std::string_view kLogDomain = "corvane-channel";
}

// What the sinks of one channel share with it: the channel's name and messenger, and which
// listen is current (0: none). Read on any thread, written on the main thread.
struct EventSink::Shared {
  BinaryMessenger* messenger;
  std::string channel;
  std::atomic<uint64_t> current{0};
  uint64_t last_generation = 0;  // main thread only
};

bool EventSink::active() const { return shared_->current.load() == generation_; }

void EventSink::Success(Value event) { Emit(EncodeSuccessEnvelope(event)); }

void EventSink::Error(std::string code, std::optional<std::string> message, Value details) {
  Emit(EncodeErrorEnvelope(
      MethodError{std::move(code), std::move(message), std::move(details), std::nullopt}));
}

void EventSink::EndOfStream() { Emit(Bytes()); }

void EventSink::Emit(Bytes envelope) {
  // The check that matters is the one on the main thread, at the moment of sending: a cancel
  // and a new listen may arrive between a queue posting the event and its delivery.
  auto send = [shared = shared_, generation = generation_,
               envelope = std::move(envelope)]() mutable {
    if (shared->current.load() != generation) return;
    shared->messenger->Send(shared->channel, std::move(envelope));  // runs once
  };
  if (shared_->messenger->IsMainThread()) {
    send();
  } else {
    shared_->messenger->PostToMainThread(std::move(send));
  }
}

EventChannel::EventChannel(BinaryMessenger& messenger, std::string name)
    : messenger_(messenger), name_(std::move(name)), shared_(std::make_shared<EventSink::Shared>()) {
  shared_->messenger = &messenger_;
  shared_->channel = name_;
}

EventChannel::~EventChannel() {
  shared_->current.store(0);
  messenger_.SetMessageHandler(name_, nullptr);
}

bool EventChannel::listening() const { return shared_->current.load() != 0; }

void EventChannel::SetStreamHandler(std::unique_ptr<StreamHandler> handler) {
  handler_ = std::move(handler);
  if (!handler_) {
    shared_->current.store(0);
    messenger_.SetMessageHandler(name_, nullptr);
    return;
  }
  messenger_.SetMessageHandler(
      name_, [this](Bytes message, BinaryReply reply) { HandleMessage(std::move(message), std::move(reply)); });
}

void EventChannel::HandleMessage(Bytes message, BinaryReply reply) {
  Decoded<MethodCall> call = DecodeMethodCall(message);
  if (!call) {
    Log(LogLevel::kWarning, kLogDomain,
        "malformed message on event channel " + name_ + ": " + call.error);
    reply.Send(Bytes());
    return;
  }
  const std::string& method = call.value->method;
  if (method == "listen") {
    // A second listen replaces the first, as Flutter's own event channels do: the old stream
    // is cancelled before the new one starts.
    if (shared_->current.load() != 0) {
      shared_->current.store(0);
      handler_->OnCancel(Value());
    }
    const uint64_t generation = ++shared_->last_generation;
    shared_->current.store(generation);
    auto sink = std::unique_ptr<EventSink>(new EventSink(shared_, generation));
    std::optional<MethodError> error = handler_->OnListen(call.value->arguments, std::move(sink));
    if (error) {
      shared_->current.store(0);
      reply.Send(EncodeErrorEnvelope(*error));
    } else {
      reply.Send(EncodeSuccessEnvelope(Value()));
    }
    return;
  }
  if (method == "cancel") {
    if (shared_->current.load() == 0) {
      reply.Send(EncodeErrorEnvelope(
          MethodError{kNoStreamErrorCode, kNoStreamErrorMessage, Value(), std::nullopt}));
      return;
    }
    shared_->current.store(0);
    std::optional<MethodError> error = handler_->OnCancel(call.value->arguments);
    reply.Send(error ? EncodeErrorEnvelope(*error) : EncodeSuccessEnvelope(Value()));
    return;
  }
  reply.Send(Bytes());
}

}  // namespace corvane::channel
