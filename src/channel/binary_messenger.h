// The boundary to the engine: named channels carrying codec bytes, one handler per channel.
// Shaped like flutter_linux's FlBinaryMessenger so an adapter to it stays a thin file.
#pragma once

#include <functional>
#include <memory>
#include <string>

#include "channel/value.h"

namespace corvane::channel {

// The duty to answer one incoming message. Move-only; answering twice is impossible through
// it, and a reply destroyed unanswered sends the empty reply so the sender never waits forever.
class BinaryReply {
 public:
  using Sender = std::function<void(Bytes reply)>;

  BinaryReply() = default;
  explicit BinaryReply(Sender sender) : sender_(std::move(sender)) {}
  BinaryReply(BinaryReply&& other) noexcept : sender_(std::move(other.sender_)) {
    other.sender_ = nullptr;
  }
  BinaryReply& operator=(BinaryReply&& other) noexcept;
  BinaryReply(const BinaryReply&) = delete;
  BinaryReply& operator=(const BinaryReply&) = delete;
  ~BinaryReply();

  // Sends the reply; empty bytes are the not-implemented reply. Later calls do nothing.
  void Send(Bytes reply);
  bool pending() const { return static_cast<bool>(sender_); }

 private:
  Sender sender_;
};

class BinaryMessenger {
 public:
  using MessageHandler = std::function<void(Bytes message, BinaryReply reply)>;
  // Called once with the reply; empty bytes when nobody handled the message.
  using ReplyHandler = std::function<void(Bytes reply)>;

  virtual ~BinaryMessenger() = default;

  // Host to engine. Safe from any thread: delivery happens on the main thread.
  virtual void Send(const std::string& channel, Bytes message, ReplyHandler on_reply = {}) = 0;

  // Engine to host: `handler` runs on the main thread. An empty handler removes the channel;
  // messages on a channel without handler get the empty reply.
  virtual void SetMessageHandler(const std::string& channel, MessageHandler handler) = 0;

  // The main thread is where replies and events must leave from; the channel layer uses these
  // to hop there when a service answers from a queue of its own.
  virtual bool IsMainThread() const = 0;
  virtual void PostToMainThread(std::function<void()> task) = 0;
};

}  // namespace corvane::channel
