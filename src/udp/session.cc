#include "udp/session.h"

#include <glib.h>

#include <vector>

namespace corvane::udp {

namespace {

constexpr const char* kLogDomain = "corvane-udp";

using channel::Value;
using channel::ValueMap;

ValueMap MakeEvent(const std::string& session_id, const char* type) {
  ValueMap event;
  event.Append(Value("sessionId"), Value(session_id));
  event.Append(Value("type"), Value(type));
  return event;
}

}  // namespace

// A one-off flow of the outbound cache, with the datagrams that wait for it to become ready.
// `flushed` is set when its "ready" was handled and the waiting datagrams left: a flow reports
// itself ready before that handler runs, and a send in between must queue behind them.
struct CachedFlow {
  std::shared_ptr<UdpFlow> flow;
  std::vector<Bytes> waiting;
  bool flushed = false;
};

bool IsBroadcastHost(const std::string& host) {
  return host == "255.255.255.255" || host.ends_with(".255");
}

Session::~Session() { Close(); }

ValueMap Session::Event(const char* type) const { return MakeEvent(id_, type); }

// The session connection reports all three states; a listener's flows report "failed" and
// "cancelled" only, since their "ready" would read as the listener's own.
UdpFlow::StateHandler Session::FlowStates(std::weak_ptr<UdpFlow> flow, bool report_ready) {
  return [send = send_event_, id = id_, flow = std::move(flow), report_ready,
          receiver = Receiver()](FlowState state, const std::string& error) {
    switch (state) {
      case FlowState::kReady:
        if (!report_ready) break;
        send(MakeEvent(id, "ready"));
        if (auto f = flow.lock()) f->Receive(receiver);
        break;
      case FlowState::kFailed: {
        ValueMap event = MakeEvent(id, "failed");
        event.Append(Value("error"), Value(error));
        send(std::move(event));
        break;
      }
      case FlowState::kCancelled:
        send(MakeEvent(id, "cancelled"));
        break;
      default:
        break;
    }
  };
}

UdpFlow::ReceiveHandler Session::Receiver() const {
  return [send = send_event_, id = id_](Bytes data, const Endpoint& from) {
    ValueMap event = MakeEvent(id, "data");
    event.Append(Value("data"), Value(std::move(data)));
    event.Append(Value("fromHost"), Value(from.host));
    event.Append(Value("fromPort"), Value::Integer(from.port));
    send(std::move(event));
  };
}

void Session::OpenConnection(const std::string& host, uint16_t port) {
  connection_host_ = host;
  connection_port_ = port;
  auto flow = env_.network.Connect(host, port);
  if (!flow) {
    ValueMap event = Event("failed");
    event.Append(Value("error"), Value("no endpoint for host \"" + host + "\""));
    send_event_(std::move(event));
    return;
  }
  flow->SetStateHandler([weak = weak_from_this(), report = FlowStates(flow, /*report_ready=*/true)](
                            FlowState state, const std::string& error) {
    if (auto self = weak.lock()) self->OnConnectionState(state, error);
    report(state, error);
  });
  connection_ = flow;
  flow->Start();
}

void Session::OnConnectionState(FlowState state, const std::string& error) {
  if (state == FlowState::kReady && connection_ && !closed_) {
    connection_ready_ = true;
    for (auto& datagram : waiting_sends_) connection_->Send(std::move(datagram), nullptr);
    waiting_sends_.clear();
  } else if ((state == FlowState::kFailed || state == FlowState::kCancelled) &&
             !waiting_sends_.empty()) {
    g_log(kLogDomain, G_LOG_LEVEL_INFO, "session %s: dropped %zu datagrams that waited for %s: %s",
          id_.c_str(), waiting_sends_.size(), connection_host_.value_or("").c_str(),
          state == FlowState::kFailed ? error.c_str() : "cancelled");
    waiting_sends_.clear();
  }
}

void Session::OpenListener(uint16_t port) {
  std::string error;
  auto listener = env_.network.Listen(port, &error);
  if (!listener) {
    ValueMap event = Event("failed");
    event.Append(Value("error"), Value("Listener bind failed: " + error));
    send_event_(std::move(event));
    return;
  }
  listener->SetStateHandler([send = send_event_, id = id_, weak = std::weak_ptr(listener)](
                                FlowState state, const std::string& error) {
    if (state == FlowState::kReady) {
      auto current = weak.lock();
      ValueMap event = MakeEvent(id, "ready");
      event.Append(Value("port"), Value::Integer(current ? current->port() : 0));
      send(std::move(event));
    } else if (state == FlowState::kFailed) {
      ValueMap event = MakeEvent(id, "failed");
      event.Append(Value("error"), Value(error));
      send(std::move(event));
    } else if (state == FlowState::kCancelled) {
      send(MakeEvent(id, "cancelled"));
    }
  });
  listener->SetNewFlowHandler([weak = weak_from_this()](std::shared_ptr<UdpFlow> flow) {
    if (auto self = weak.lock()) self->AdoptPeer(std::move(flow));
  });
  listener_ = listener;
  listener->Start();
}

void Session::AdoptPeer(std::shared_ptr<UdpFlow> flow) {
  if (closed_) return;
  if (peers_.size() >= kMaxPeerFlows) {
    // A flood of sources must not grow the list: the oldest flow goes, quietly, and comes
    // back as a new one if its endpoint speaks again.
    auto oldest = std::move(peers_.front());
    peers_.pop_front();
    oldest->SetStateHandler(nullptr);
    oldest->Cancel();
    g_log(kLogDomain, G_LOG_LEVEL_DEBUG, "session %s: dropped its oldest peer flow", id_.c_str());
  }
  flow->SetStateHandler(FlowStates(flow, /*report_ready=*/false));
  flow->Start();
  flow->Receive(Receiver());
  peers_.push_back(std::move(flow));
}

void Session::Send(Bytes data, std::optional<std::string> host, std::optional<uint16_t> port) {
  if (closed_) return;
  if (connection_) {
    const uint16_t to_port = port.value_or(connection_port_);
    if (!host) {
      if (connection_ready_) {
        connection_->Send(std::move(data), nullptr);
      } else if (connection_->state() == FlowState::kSetup ||
                 connection_->state() == FlowState::kPreparing ||
                 connection_->state() == FlowState::kReady) {
        Wait(waiting_sends_, std::move(data));
      }
    } else if (IsBroadcastHost(*host)) {
      env_.network.SendBroadcast(*host, to_port, data);
    } else {
      SendCached(*host, to_port, std::move(data));
    }
    return;
  }
  if (!host || !port) return;  // no destination: dropped
  if (IsBroadcastHost(*host)) {
    env_.network.SendBroadcast(*host, *port, data);
  } else {
    SendCached(*host, *port, std::move(data));
  }
}

// One flow per destination, reused while it is ready. Replies arriving on it are the
// session's "data". A send to a destination whose flow is still being set up (a name still
// resolving) waits for that flow instead of starting a second one, so it is neither lost nor
// sent from another port.
void Session::SendCached(const std::string& host, uint16_t port, Bytes data) {
  const std::string key = host + ":" + std::to_string(port);
  for (auto it = outbound_cache_.begin(); it != outbound_cache_.end(); ++it) {
    if (it->first != key) continue;
    auto& cached = it->second;
    const FlowState state = cached->flow->state();
    if (state == FlowState::kReady && cached->flushed) {
      cached->flow->Send(std::move(data), nullptr);
      return;
    }
    if (state == FlowState::kSetup || state == FlowState::kPreparing ||
        state == FlowState::kReady) {
      Wait(cached->waiting, std::move(data));
      return;
    }
    cached->flow->SetStateHandler(nullptr);
    cached->flow->Cancel();
    outbound_cache_.erase(it);
    break;
  }
  auto flow = env_.network.Connect(host, port);
  if (!flow) return;
  if (outbound_cache_.size() >= kMaxOutboundFlows) {
    auto oldest = std::move(outbound_cache_.front().second);
    outbound_cache_.pop_front();
    oldest->flow->SetStateHandler(nullptr);
    oldest->flow->Cancel();
  }
  auto cached = std::make_shared<CachedFlow>(CachedFlow{flow, {}});
  cached->waiting.push_back(std::move(data));
  // Only its cancellation is reported: a one-off flow that fails is simply replaced by the
  // next send, and must not read as the failure of the session.
  flow->SetStateHandler([weak = std::weak_ptr(cached), send = send_event_, id = id_,
                         receiver = Receiver()](FlowState state, const std::string& error) {
    auto cached = weak.lock();
    if (state == FlowState::kCancelled) send(MakeEvent(id, "cancelled"));
    if (!cached) return;
    if (state == FlowState::kReady) {
      for (auto& datagram : cached->waiting) cached->flow->Send(std::move(datagram), nullptr);
      cached->waiting.clear();
      cached->flushed = true;
      cached->flow->Receive(receiver);
    } else if (state == FlowState::kFailed && !cached->waiting.empty()) {
      g_log(kLogDomain, G_LOG_LEVEL_INFO, "session %s: dropped %zu datagrams: %s", id.c_str(),
            cached->waiting.size(), error.c_str());
      cached->waiting.clear();
    }
  });
  outbound_cache_.emplace_back(key, cached);
  flow->Start();
}

void Session::Wait(std::vector<Bytes>& waiting, Bytes data) {
  if (waiting.size() < kMaxWaitingDatagrams) {
    waiting.push_back(std::move(data));
    return;
  }
  g_log(kLogDomain, G_LOG_LEVEL_INFO, "session %s: %zu datagrams already wait; dropped one",
        id_.c_str(), waiting.size());
}

void Session::PurgeTombstones(double now) {
  std::erase_if(cancelled_writes_, [now](const auto& entry) { return !(now < entry.second); });
}

void Session::SendGuarded(GuardedRequest request, std::shared_ptr<GuardedReply> reply) {
  auto reject = [&reply](const char* status) { reply->Answer(status, false); };
  if (closed_) return reject(status::kDisconnected);
  const double now = env_.clock.NowWallMs() / 1000.0;
  PurgeTombstones(now);
  // A cancel that arrived before its send wins.
  if (cancelled_writes_.contains(request.request_id)) return reject(status::kCancelled);
  if (guarded_writes_.contains(request.request_id)) return reject(status::kRejected);
  if (guarded_writes_.size() >= kMaxGuardedWrites) return reject(status::kRejected);
  if (!(now * 1000.0 < request.expires_at_ms)) return reject(status::kTimedOut);
  const std::optional<std::string>& host = request.host ? request.host : connection_host_;
  if (!host || host->empty()) return reject(status::kRejected);
  const uint16_t port = request.port.value_or(connection_port_);
  if (port == 0) return reject(status::kRejected);
  // Guarded sends are never broadcast: a broadcast has no single fate to report.
  if (IsBroadcastHost(*host)) return reject(status::kRejected);

  const double end_uptime =
      env_.clock.NowMonotonic() + static_cast<double>(request.timeout_ms) / 1000.0;
  auto completion = [weak = weak_from_this(), id = request.request_id, reply](const char* status,
                                                                              bool attempted) {
    if (auto self = weak.lock()) self->guarded_writes_.erase(id);
    reply->Answer(status, attempted);
  };
  auto datagram = std::make_shared<GuardedDatagram>(std::move(request.data), request.expires_at_ms,
                                                    end_uptime, env_.clock, std::move(completion));
  datagram->StartTimer(env_.queue, std::chrono::milliseconds(request.timeout_ms));
  guarded_writes_[request.request_id] = datagram;

  if (!request.host && connection_ && connection_ready_ &&
      connection_->state() == FlowState::kReady) {
    datagram->WriteOn(connection_);
    return;
  }
  auto own = env_.network.Connect(*host, port);
  if (!own) return datagram->FinishUnlessAttempted(status::kRejected);
  datagram->WriteOnOwn(std::move(own));
}

void Session::CancelGuarded(const std::string& request_id) {
  if (auto it = guarded_writes_.find(request_id); it != guarded_writes_.end()) {
    auto datagram = it->second;
    datagram->FinishUnlessAttempted(status::kCancelled);
    return;
  }
  // The send may still be on its way to the queue: leave a tombstone it will find. The table
  // never grows past its bound; a cancel that finds it full of live tombstones is not kept.
  const double now = env_.clock.NowWallMs() / 1000.0;
  if (cancelled_writes_.size() >= kMaxTombstones) PurgeTombstones(now);
  if (cancelled_writes_.size() > kMaxTombstones - 1) return;
  cancelled_writes_[request_id] = now + kTombstoneSeconds;
}

void Session::Close() {
  if (closed_) return;
  closed_ = true;
  std::vector<std::shared_ptr<GuardedDatagram>> pending;
  for (auto& [id, datagram] : guarded_writes_) pending.push_back(datagram);
  guarded_writes_.clear();
  for (auto& datagram : pending) datagram->FinishUnlessAttempted(status::kDisconnected);

  if (connection_) connection_->Cancel();
  connection_.reset();
  if (!waiting_sends_.empty()) {
    g_log(kLogDomain, G_LOG_LEVEL_INFO, "session %s: closed with %zu datagrams unsent", id_.c_str(),
          waiting_sends_.size());
  }
  waiting_sends_.clear();
  if (listener_) listener_->Cancel();
  listener_.reset();
  for (auto& peer : peers_) peer->Cancel();
  peers_.clear();
  for (auto& [key, cached] : outbound_cache_) cached->flow->Cancel();
  outbound_cache_.clear();
}

}  // namespace corvane::udp
