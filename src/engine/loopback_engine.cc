#include "engine/loopback_engine.h"

#include "dispatch/queue.h"

namespace corvane::engine {

void LoopbackEngine::SendFromEngine(const std::string& channel, Bytes message,
                                    std::function<void(Bytes)> on_reply) {
  Dispatch(channel, std::move(message), [this, on_reply = std::move(on_reply)](Bytes reply) {
    if (!dispatch::IsMainThread()) ++off_main_;
    if (on_reply) on_reply(std::move(reply));
  });
}

void LoopbackEngine::Transmit(const std::string& channel, Bytes message, ReplyHandler on_reply) {
  if (!dispatch::IsMainThread()) ++off_main_;
  received_.push_back(Message{channel, std::move(message)});
  if (!on_reply) return;
  Bytes reply = responder_ ? responder_(received_.back()) : Bytes();
  // Replies from the engine arrive later, never inside the send.
  dispatch::MainQueue().Async([on_reply = std::move(on_reply), reply = std::move(reply)]() mutable {
    on_reply(std::move(reply));
  });
}

}  // namespace corvane::engine
