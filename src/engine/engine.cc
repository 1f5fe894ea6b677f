#include "engine/engine.h"

#include <algorithm>

#include "channel/standard_codec.h"
#include "dispatch/queue.h"

namespace corvane::engine {

namespace {

enum class StreamCall { kNone, kListen, kCancel };

StreamCall ClassifyStreamCall(const Bytes& message) {
  auto call = channel::DecodeMethodCall(message);
  if (!call) return StreamCall::kNone;
  if (call.value->method == "listen") return StreamCall::kListen;
  if (call.value->method == "cancel") return StreamCall::kCancel;
  return StreamCall::kNone;
}

}  // namespace

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
  const StreamCall kind = ClassifyStreamCall(message);
  if (kind == StreamCall::kListen) {
    auto& sides = stream_sides_[channel];
    const bool alone = sides.empty() || (sides.size() == 1 && sides.count(side) != 0);
    sides.insert(side);
    if (!alone) {
      // The service already streams to another side; this side now hears the same events.
      deliver(channel::EncodeSuccessEnvelope(channel::Value()));
      return;
    }
    // A refused listen leaves this side out.
    deliver = [this, side, channel, deliver = std::move(deliver)](Bytes reply) mutable {
      auto decoded = channel::DecodeEnvelope(reply);
      if (!decoded || decoded.value->kind != channel::MethodReply::Kind::kSuccess) {
        auto it = stream_sides_.find(channel);
        if (it != stream_sides_.end()) it->second.erase(side);
      }
      deliver(std::move(reply));
    };
  } else if (kind == StreamCall::kCancel) {
    auto it = stream_sides_.find(channel);
    if (it != stream_sides_.end() && !it->second.empty()) {
      if (it->second.erase(side) == 0) {
        deliver(channel::EncodeErrorEnvelope({"error", "No active stream to cancel", {}, {}}));
        return;
      }
      if (!it->second.empty()) {
        deliver(channel::EncodeSuccessEnvelope(channel::Value()));
        return;
      }
    }
  }
  DispatchToHandler(channel, std::move(message), std::move(deliver));
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
