// What the discovery service needs from a DNS-SD implementation: keep browsing a service type,
// say which instances appear (already resolved to an address and port) and which disappear.
// Plain C++, so the service logic can be driven by a test backend.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>

typedef struct _GMainContext GMainContext;

namespace corvane::dispatch {
class Queue;
}

namespace corvane::discovery {

// One sighting of a service instance: the same instance is seen once per interface and address
// family it is announced on, and each sighting resolves on its own.
struct Sighting {
  std::string type;  // the browse type it was found under, as passed to Browse()
  std::string name;
  std::string domain;
  int32_t interface = -1;  // interface index, -1 when unknown
  int32_t protocol = -1;   // 0 IPv4, 1 IPv6, -1 unknown (the mDNS transport, not the address)
};

struct Endpoint {
  std::string address;  // numeric; IPv6 link-local carries its scope ("fe80::1%eth0")
  uint16_t port = 0;
  std::string host_name;  // e.g. "z21.local"; used when no address is known
};

class DnsSdBackend {
 public:
  // Called on the queue the backend was made for.
  class Listener {
   public:
    virtual ~Listener() = default;
    // A sighting resolved, or its resolution changed (new address or port).
    virtual void OnResolved(const Sighting& sighting, const Endpoint& endpoint) = 0;
    // A sighting that was resolved is gone (it left, or the daemon went away).
    virtual void OnRemoved(const Sighting& sighting) = 0;
  };

  virtual ~DnsSdBackend() = default;

  // Keeps browsing `type` (e.g. "_z21._udp") in the local domain until StopBrowse, across daemon
  // restarts. False when the type can never be browsed (not a service type).
  virtual bool Browse(const std::string& type) = 0;
  // No callbacks about `type` follow, not even removals.
  virtual void StopBrowse(const std::string& type) = 0;
};

// Makes a backend. Called on `queue`, whose main context is `context`; the backend and its
// listener are used only there and destroyed there.
using BackendFactory = std::function<std::unique_ptr<DnsSdBackend>(
    GMainContext* context, dispatch::Queue& queue, DnsSdBackend::Listener& listener)>;

// The Avahi client backend: needs avahi-daemon on the system bus, and waits for it when absent.
std::unique_ptr<DnsSdBackend> MakeAvahiBackend(GMainContext* context, dispatch::Queue& queue,
                                               DnsSdBackend::Listener& listener);

}  // namespace corvane::discovery
