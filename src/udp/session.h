// One open session id: a connected flow or a listener, the flows it heard from, the cached
// one-off flows it sends through, and its guarded sends. Lives on the bridge's queue only.
#pragma once

#include <deque>
#include <functional>
#include <list>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <unordered_map>

#include "channel/value.h"
#include "dispatch/clock.h"
#include "udp/guarded_send.h"
#include "udp/udp_network.h"

namespace corvane::udp {

// Limits that keep a flood from growing memory. Guarded-send tables hold at most 256 entries
// each; the others drop their oldest entry first.
inline constexpr size_t kMaxGuardedWrites = 256;
inline constexpr size_t kMaxTombstones = 256;
inline constexpr double kTombstoneSeconds = 31.0;
inline constexpr size_t kMaxPeerFlows = 64;
inline constexpr size_t kMaxOutboundFlows = 32;
// Datagrams that wait for a flow to become ready (a host name still resolving); past it the
// newest are dropped with a log line.
inline constexpr size_t kMaxWaitingDatagrams = 64;

struct CachedFlow;

// "255.255.255.255" or anything ending in ".255". Deliberately textual: no netmask is read.
bool IsBroadcastHost(const std::string& host);

class Session : public std::enable_shared_from_this<Session> {
 public:
  // Forwards one event map to the bridge's event stream. It outlives the session, so the
  // "cancelled" events of a closed session still arrive.
  using SendEvent = std::function<void(channel::ValueMap event)>;

  struct Environment {
    UdpNetwork& network;
    dispatch::Queue& queue;
    dispatch::Clock& clock;
  };

  Session(std::string id, Environment environment, SendEvent send_event)
      : id_(std::move(id)), env_(environment), send_event_(std::move(send_event)) {}
  ~Session();

  void OpenConnection(const std::string& host, uint16_t port);
  void OpenListener(uint16_t port);
  void Send(Bytes data, std::optional<std::string> host, std::optional<uint16_t> port);
  void SendGuarded(GuardedRequest request, std::shared_ptr<GuardedReply> reply);
  void CancelGuarded(const std::string& request_id);
  void Close();

  const std::string& id() const { return id_; }
  bool closed() const { return closed_; }

 private:
  channel::ValueMap Event(const char* type) const;
  // The state handler of the session connection and the listener's flows.
  UdpFlow::StateHandler FlowStates(std::weak_ptr<UdpFlow> flow, bool report_ready);
  UdpFlow::ReceiveHandler Receiver() const;
  void OnConnectionState(FlowState state, const std::string& error);
  void AdoptPeer(std::shared_ptr<UdpFlow> flow);
  void SendCached(const std::string& host, uint16_t port, Bytes data);
  // Queues a datagram for a flow that is not ready yet, within kMaxWaitingDatagrams.
  void Wait(std::vector<Bytes>& waiting, Bytes data);
  void PurgeTombstones(double now);

  std::string id_;
  Environment env_;
  SendEvent send_event_;

  std::shared_ptr<UdpFlow> connection_;
  // Set once the connection's "ready" has been handled: until then sends wait in
  // `waiting_sends_`, so none overtakes another or is lost to a flow still resolving.
  bool connection_ready_ = false;
  std::vector<Bytes> waiting_sends_;
  std::optional<std::string> connection_host_;
  uint16_t connection_port_ = 0;
  std::shared_ptr<UdpListener> listener_;
  std::deque<std::shared_ptr<UdpFlow>> peers_;
  // Insertion order is eviction order: the oldest cached flow goes first.
  std::list<std::pair<std::string, std::shared_ptr<CachedFlow>>> outbound_cache_;
  std::unordered_map<std::string, std::shared_ptr<GuardedDatagram>> guarded_writes_;
  std::unordered_map<std::string, double> cancelled_writes_;  // request id -> expiry (s)
  bool closed_ = false;
};

}  // namespace corvane::udp
