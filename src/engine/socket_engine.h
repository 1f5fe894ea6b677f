// The default engine connection: a Unix-domain socket that any number of clients (corvanectl,
// tests, a Flutter shell) connect to. Messages from a client are answered to that client;
// host-initiated messages go to every client. Runs on the main context.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "engine/engine.h"

namespace corvane::engine {

struct SocketEngineOptions {
  std::string path;  // empty: DefaultSocketPath()
  size_t max_clients = 32;
  // A client that stops reading is closed once this much output waits for it, so events
  // cannot pile up without bound.
  size_t max_pending_output = 96u << 20;
};

class SocketEngine : public Engine {
 public:
  explicit SocketEngine(SocketEngineOptions options = {});
  ~SocketEngine() override;

  // $XDG_RUNTIME_DIR/corvane/engine.sock, or /tmp/corvane-<uid>/engine.sock without one.
  static std::string DefaultSocketPath();

  // Creates the folder (0700 when it is new), binds the socket (0600) and starts accepting.
  // Fails if another host already answers on the path; a stale socket file is replaced.
  bool Start(std::string* error);

  const std::string& path() const;
  size_t client_count() const;

 protected:
  void Transmit(const std::string& channel, Bytes message, ReplyHandler on_reply) override;

 private:
  struct State;
  std::shared_ptr<State> state_;
};

}  // namespace corvane::engine
