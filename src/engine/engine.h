// The engine connection: the Flutter side of the channels. Transports (socket, loopback,
// flutter_linux) derive from Engine, which owns the channel handler table and the rule that
// replies and messages to the engine leave from the main thread only.
#pragma once

#include <functional>
#include <mutex>
#include <string>
#include <unordered_map>
#include <vector>

#include "channel/binary_messenger.h"

namespace corvane::engine {

using channel::BinaryMessenger;
using channel::BinaryReply;
using channel::Bytes;

class Engine : public BinaryMessenger {
 public:
  ~Engine() override = default;

  void Send(const std::string& channel, Bytes message, ReplyHandler on_reply = {}) override;
  void SetMessageHandler(const std::string& channel, MessageHandler handler) override;
  bool IsMainThread() const override;
  void PostToMainThread(std::function<void()> task) override;

  // Channels with a handler, sorted; for diagnostics and the robustness harness.
  std::vector<std::string> HandledChannels() const;

 protected:
  // A message from the engine, on the main thread. `deliver` sends the reply bytes back to the
  // engine; it is always invoked on the main thread, exactly once.
  void Dispatch(const std::string& channel, Bytes message, std::function<void(Bytes)> deliver);

  // Sends a host-initiated message to the engine. Called on the main thread.
  virtual void Transmit(const std::string& channel, Bytes message, ReplyHandler on_reply) = 0;

  // A handler was set on (`installed`) or removed from `channel`; for transports that route
  // per channel on their side too. Runs on the thread that set the handler.
  virtual void HandlerChanged(const std::string& /*channel*/, bool /*installed*/) {}

 private:
  mutable std::mutex mutex_;
  std::unordered_map<std::string, std::shared_ptr<MessageHandler>> handlers_;
};

}  // namespace corvane::engine
