// The UDP socket layer the sessions stand on: connected flows, listeners that hand over one
// flow per remote endpoint, a one-shot broadcast, and the interface list. The session logic
// sees only these interfaces; gio_udp_network.cc is the real implementation.
//
// Threading: every object is created, called and destroyed on its queue, and every handler is
// called there too, always from a task of its own (never from inside the call that caused it),
// so a handler may freely call back into the flow or drop it.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "channel/value.h"

namespace corvane::dispatch {
class SerialQueue;
}

namespace corvane::udp {

using Bytes = channel::Bytes;

struct Endpoint {
  std::string host;  // numeric IPv4 text
  uint16_t port = 0;
};

// kFailed and kCancelled are final; a failed flow can still be cancelled.
enum class FlowState { kSetup, kPreparing, kReady, kFailed, kCancelled };

// One UDP flow to one remote endpoint.
class UdpFlow {
 public:
  using StateHandler = std::function<void(FlowState state, const std::string& error)>;
  using ReceiveHandler = std::function<void(Bytes data, const Endpoint& from)>;
  // `error` is empty when the datagram was handed to the network without error.
  using SendCompletion = std::function<void(const std::optional<std::string>& error)>;

  virtual ~UdpFlow() = default;
  virtual void SetStateHandler(StateHandler handler) = 0;
  virtual void Start() = 0;
  virtual FlowState state() const = 0;
  // Delivers every datagram with content to `handler` until the flow fails or is cancelled.
  virtual void Receive(ReceiveHandler handler) = 0;
  // Sends one datagram; `completion` (may be empty) runs later, on the queue.
  virtual void Send(Bytes data, SendCompletion completion) = 0;
  virtual void Cancel() = 0;
};

// A bound local port. Each remote endpoint it hears from becomes a flow of its own, handed over
// once, before the first datagram from that endpoint is delivered to it.
class UdpListener {
 public:
  using StateHandler = UdpFlow::StateHandler;
  using FlowHandler = std::function<void(std::shared_ptr<UdpFlow> flow)>;

  virtual ~UdpListener() = default;
  virtual void SetStateHandler(StateHandler handler) = 0;
  virtual void SetNewFlowHandler(FlowHandler handler) = 0;
  virtual void Start() = 0;
  virtual void Cancel() = 0;
  virtual uint16_t port() const = 0;  // the bound port; 0 when unknown
};

class UdpNetwork {
 public:
  virtual ~UdpNetwork() = default;
  // A flow to host:port, not yet started. Null when no endpoint can be formed from them.
  virtual std::shared_ptr<UdpFlow> Connect(const std::string& host, uint16_t port) = 0;
  // A listener on `port` (0: any), not yet started; null with `error` set when the port
  // cannot be bound.
  virtual std::shared_ptr<UdpListener> Listen(uint16_t port, std::string* error) = 0;
  // Sends one datagram to a broadcast address through a socket of its own; failures are
  // dropped silently.
  virtual void SendBroadcast(const std::string& host, uint16_t port, const Bytes& data) = 0;
};

// The real network: sockets whose sources are attached to `queue`'s context.
std::shared_ptr<UdpNetwork> MakeSystemUdpNetwork(dispatch::SerialQueue& queue);

struct NetworkInterface {
  std::string name;
  std::vector<std::string> addresses;
};

// IPv4 addresses of the interfaces that are up and not loopback; empty when the walk fails.
std::vector<NetworkInterface> ListInterfaces();

}  // namespace corvane::udp
