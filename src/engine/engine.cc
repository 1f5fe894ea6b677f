#include "engine/engine.h"

#include <algorithm>

#include "channel/event_channel.h"
#include "channel/standard_codec.h"
#include "dispatch/queue.h"

namespace corvane::engine {

void Engine::Send(const std::string& channel, Bytes message, ReplyHandler on_reply) {
  auto transmit = [this, channel](Bytes message, ReplyHandler on_reply) {
    // The mirrors' clients hear it too; the reply that counts is this engine's.
    for (const auto& mirror : mirrors_) mirror->Transmit(channel, message, {});
    Transmit(channel, std::move(message), std::move(on_reply));
  };
  if (dispatch::IsMainThread()) {
    transmit(std::move(message), std::move(on_reply));
    return;
  }
  dispatch::MainQueue().Async(
      [transmit, message = std::move(message), on_reply = std::move(on_reply)]() mutable {
        transmit(std::move(message), std::move(on_reply));
      });
}

void Engine::AddMirror(std::unique_ptr<Engine> mirror) {
  mirror->primary_ = this;
  mirrors_.push_back(std::move(mirror));
}

void Engine::SetMessageHandler(const std::string& channel, MessageHandler handler) {
  const bool installed = static_cast<bool>(handler);
  {
    std::lock_guard lock(mutex_);
    if (installed) {
      handlers_[channel] = std::make_shared<MessageHandler>(std::move(handler));
    } else {
      handlers_.erase(channel);
    }
  }
  HandlerChanged(channel, installed);
}

bool Engine::IsMainThread() const { return dispatch::IsMainThread(); }

void Engine::PostToMainThread(std::function<void()> task) {
  dispatch::MainQueue().Async(std::move(task));
}

std::vector<std::string> Engine::HandledChannels() const {
  std::vector<std::string> names;
  {
    std::lock_guard lock(mutex_);
    for (const auto& [name, handler] : handlers_) names.push_back(name);
  }
  std::sort(names.begin(), names.end());
  return names;
}

void Engine::Dispatch(const std::string& channel, Bytes message,
                      std::function<void(Bytes)> deliver) {
  if (primary_) {
    primary_->DispatchFrom(this, channel, std::move(message), std::move(deliver));
  } else {
    DispatchFrom(this, channel, std::move(message), std::move(deliver));
  }
}

void Engine::DispatchFrom(const Engine* side, const std::string& channel, Bytes message,
                          std::function<void(Bytes)> deliver) {
  if (mirrors_.empty() || !dispatch::IsMainThread()) {
    DispatchToHandler(channel, std::move(message), std::move(deliver));
    return;
  }
  // Each side (this engine, each mirror) counts as one listener of an event channel.
  const auto id = reinterpret_cast<ListenerTable::ClientId>(side);
  ListenerTable::Action action = ListenerTable::Action::kForward;
  const ListenerTable::StreamCall kind = ListenerTable::Classify(message);
  if (kind == ListenerTable::StreamCall::kListen) {
    action = stream_sides_.OnListen(channel, id);
    if (action == ListenerTable::Action::kForward) {
      deliver = [this, id, channel, deliver = std::move(deliver)](Bytes reply) mutable {
        auto decoded = channel::DecodeEnvelope(reply);
        stream_sides_.ListenAnswered(
            channel, id, decoded && decoded.value->kind == channel::MethodReply::Kind::kSuccess);
        deliver(std::move(reply));
      };
    }
  } else if (kind == ListenerTable::StreamCall::kCancel) {
    action = stream_sides_.OnCancel(channel, id);
  }
  switch (action) {
    case ListenerTable::Action::kForward:
      DispatchToHandler(channel, std::move(message), std::move(deliver));
      return;
    case ListenerTable::Action::kAnswerSuccess:
      deliver(channel::EncodeSuccessEnvelope(channel::Value()));
      return;
    case ListenerTable::Action::kAnswerNoStream:
      deliver(channel::EncodeErrorEnvelope(
          {channel::kNoStreamErrorCode, channel::kNoStreamErrorMessage, {}, {}}));
      return;
  }
}

void Engine::DispatchToHandler(const std::string& channel, Bytes message,
                               std::function<void(Bytes)> deliver) {
  BinaryReply reply([deliver = std::move(deliver)](Bytes bytes) mutable {
    if (dispatch::IsMainThread()) {
      deliver(std::move(bytes));
    } else {
      dispatch::MainQueue().Async(
          [deliver = std::move(deliver), bytes = std::move(bytes)]() mutable {
            deliver(std::move(bytes));
          });
    }
  });
  std::shared_ptr<MessageHandler> handler;
  {
    std::lock_guard lock(mutex_);
    auto it = handlers_.find(channel);
    if (it != handlers_.end()) handler = it->second;
  }
  // No handler: the empty reply, as Flutter gives for a channel nobody registered.
  if (!handler) {
    reply.Send(Bytes());
    return;
  }
  (*handler)(std::move(message), std::move(reply));
}

}  // namespace corvane::engine
