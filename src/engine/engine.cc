#include "engine/engine.h"

#include <algorithm>

#include "dispatch/queue.h"

namespace corvane::engine {

void Engine::Send(const std::string& channel, Bytes message, ReplyHandler on_reply) {
  if (dispatch::IsMainThread()) {
    Transmit(channel, std::move(message), std::move(on_reply));
    return;
  }
  dispatch::MainQueue().Async(
      [this, channel, message = std::move(message), on_reply = std::move(on_reply)]() mutable {
        Transmit(channel, std::move(message), std::move(on_reply));
      });
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
