// An in-process engine connection for tests: the test plays the Flutter side.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include "engine/engine.h"

namespace corvane::engine {

class LoopbackEngine : public Engine {
 public:
  struct Message {
    std::string channel;
    Bytes payload;
  };

  // Sends a message as the engine would (call on the main thread). `on_reply` receives the
  // reply bytes on the main thread; empty bytes when no handler answered.
  void SendFromEngine(const std::string& channel, Bytes message,
                      std::function<void(Bytes)> on_reply = {});

  // Host-initiated messages (events, calls to the Flutter side), in arrival order.
  const std::vector<Message>& received() const { return received_; }
  void ClearReceived() { received_.clear(); }
  // How host-initiated calls that want a reply are answered; by default with empty bytes.
  void SetEngineResponder(std::function<Bytes(const Message&)> responder) {
    responder_ = std::move(responder);
  }

  // Counts of deliveries made off the main thread: must stay zero.
  int off_main_thread_deliveries() const { return off_main_; }

 protected:
  void Transmit(const std::string& channel, Bytes message, ReplyHandler on_reply) override;

 private:
  std::vector<Message> received_;
  std::function<Bytes(const Message&)> responder_;
  int off_main_ = 0;
};

}  // namespace corvane::engine
