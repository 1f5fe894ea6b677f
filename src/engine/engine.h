// The engine connection: the Flutter side of the channels. Transports (socket, loopback,
// flutter_linux) derive from Engine, which owns the channel handler table and the rule that
// replies and messages to the engine leave from the main thread only.
#pragma once

#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <unordered_map>
#include <vector>

#include "channel/binary_messenger.h"
#include "engine/listener_table.h"

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

  // Serves this engine's channels through `mirror` as well (the socket engine beside
  // flutter_linux's): the mirror's messages reach this engine's handlers, and every host message
  // goes out through the mirror too. A side's listen or cancel never disturbs another side's
  // event stream: a service hears the first listen of any side and the last cancel of all.
  // Main thread, before messages flow.
  void AddMirror(std::unique_ptr<Engine> mirror);

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
  // Dispatch of a message that came in through `side` (this engine or one of its mirrors).
  void DispatchFrom(const Engine* side, const std::string& channel, Bytes message,
                    std::function<void(Bytes)> deliver);
  void DispatchToHandler(const std::string& channel, Bytes message,
                         std::function<void(Bytes)> deliver);

  mutable std::mutex mutex_;
  std::unordered_map<std::string, std::shared_ptr<MessageHandler>> handlers_;
  Engine* primary_ = nullptr;  // set on a mirror
  std::vector<std::unique_ptr<Engine>> mirrors_;
  // Which sides listen on which event channel; main thread only, used once mirrored.
  ListenerTable stream_sides_;
};

}  // namespace corvane::engine
