// The default engine connection: a Unix-domain socket that a bounded number of clients
// (corvanectl, tests, a Flutter shell) connect to. Messages from a client are answered to that
// client; events go to the clients listening on their channel; other host-initiated messages
// go to every client. Runs on the main context.
#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <string>

#include "engine/engine.h"

namespace corvane::engine {

struct SocketEngineOptions {
  std::string path;  // empty: DefaultSocketPath()
  size_t max_clients = 32;
  // Back-pressure: once what waits for a client takes half of this, its requests wait
  // unhandled until it has taken its replies; up to this much more of its input is still read
  // meanwhile (a client may write all its calls before it reads), then its own writes wait.
  // Replies are always queued (they answer calls already taken), so past this bound a client
  // holds at most the replies of calls still in flight. Host-initiated messages and events that
  // would take a client past it close that client: it is not keeping up. One frame of any size
  // is always taken into an empty queue.
  size_t max_pending_output = 16u << 20;
  // What all clients' waiting output may take together; past it, a client holding more than
  // its share is closed.
  size_t max_total_output = 128u << 20;
  // A client that starts a frame and does not finish it within this time is closed, so a
  // trickle cannot hold a buffer and a client slot for ever.
  std::chrono::milliseconds frame_timeout{10000};
  // A client whose requests are held back and that for this long neither takes any of its
  // waiting output nor sends anything is closed.
  std::chrono::milliseconds stall_timeout{10000};
};

class SocketEngine : public Engine {
 public:
  explicit SocketEngine(SocketEngineOptions options = {});
  ~SocketEngine() override;

  // $XDG_RUNTIME_DIR/corvane/engine.sock, or /tmp/corvane-<uid>/engine.sock without one.
  static std::string DefaultSocketPath();

  // Creates the folder (0700 when it is new), binds the socket (0600) and starts accepting.
  // The folder must be a real folder of this user: private (0700) for the default path, not
  // writable by others for a path given in the options. Fails if another host answers on the
  // path or something other than a socket is there; only a stale socket is replaced.
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
