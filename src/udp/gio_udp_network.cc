// UDP on Linux: GSocket sources on the owning queue's context, GResolver for names, IPv4 only.
//
// What the flow states mean here:
// - "ready" for a connected flow: the host resolved to an IPv4 address and a UDP socket was
//   connect()ed to it. Nothing has crossed the network yet; UDP has no handshake.
// - a per-datagram send error: the result of that datagram's send(). Besides local trouble
//   (no route, buffer full), a connected socket reports ECONNREFUSED there when an earlier
//   datagram drew an ICMP port-unreachable (EHOSTUNREACH when the host did not answer at
//   all), and the receive side sees the same ICMP error. Either way the flow stays ready: a
//   station that is switched off and on again refuses datagrams for a while, and its answers
//   must arrive again by themselves once it is back. Only local trouble fails the flow.
// - "ready" for a listener: the port is bound. A listener's flows are the distinct remote
//   endpoints it hears from; they share its socket and reply from its port.
#include <arpa/inet.h>
#include <errno.h>
#include <gio/gio.h>
#include <ifaddrs.h>
#include <net/if.h>
#include <netdb.h>
#include <netinet/in.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <deque>
#include <map>
#include <unordered_map>

#include "dispatch/glib_source.h"
#include "dispatch/queue.h"
#include "udp/udp_network.h"

namespace corvane::udp {

namespace {

constexpr const char* kLogDomain = "corvane-udp";
// Datagrams read per wake-up, so one busy socket cannot starve the rest of the queue.
constexpr int kReadBudget = 64;
// Datagrams a listener flow holds before its receive loop starts; only the first arrives then.
constexpr size_t kMaxBufferedPerFlow = 16;
// Past this many remembered endpoints a listener forgets the ones whose flows are gone.
constexpr size_t kDemuxPruneAt = 512;

std::string Describe(int error) { return g_strerror(error); }

// What an ICMP error from the far end leaves on a connected socket: the peer is not there right
// now, which says nothing about the flow itself.
bool IsPeerAbsent(int error) {
  return error == ECONNREFUSED || error == EHOSTUNREACH || error == EHOSTDOWN;
}

std::string HostText(const sockaddr_in& address) {
  char text[INET_ADDRSTRLEN] = {};
  inet_ntop(AF_INET, &address.sin_addr, text, sizeof text);
  return text;
}

// How many sockets the service may hold at once: well below the process's descriptor limit,
// so that the engine socket and the other services always find descriptors. Past it, a new
// flow or listener fails with a reason the caller sees in its "failed" event.
class SocketBudget {
 public:
  SocketBudget() {
    rlimit limit{};
    rlim_t soft = getrlimit(RLIMIT_NOFILE, &limit) == 0 ? limit.rlim_cur : 1024;
    if (soft == RLIM_INFINITY || soft > kMostSockets * 2) soft = kMostSockets * 2;
    // A quarter of the descriptors, and at least 32, stay with the rest of the process.
    const rlim_t reserve = std::max<rlim_t>(32, soft / 4);
    limit_ = soft > reserve ? static_cast<size_t>(soft - reserve) : 0;
    limit_ = std::min(limit_, kMostSockets);
  }

  bool Take(std::string* error) {
    size_t open = open_.load();
    do {
      if (open >= limit_) {
        *error = "too many open sockets (the limit is " + std::to_string(limit_) + ")";
        return false;
      }
    } while (!open_.compare_exchange_weak(open, open + 1));
    return true;
  }
  void Give() { open_.fetch_sub(1); }

 private:
  static constexpr size_t kMostSockets = 4096;
  std::atomic<size_t> open_{0};
  size_t limit_ = 0;
};

// Every endpoint the service makes allows local-endpoint reuse (SO_REUSEADDR, not
// SO_REUSEPORT): another socket can then share a port only if it allowed reuse as well. The
// socket counts against `budget` until it is finalized.
GSocket* NewUdpSocket(const std::shared_ptr<SocketBudget>& budget, std::string* error) {
  if (!budget->Take(error)) return nullptr;
  GError* gerror = nullptr;
  GSocket* socket =
      g_socket_new(G_SOCKET_FAMILY_IPV4, G_SOCKET_TYPE_DATAGRAM, G_SOCKET_PROTOCOL_UDP, &gerror);
  if (!socket) {
    budget->Give();
    *error = gerror->message;
    g_error_free(gerror);
    return nullptr;
  }
  g_object_set_data_full(G_OBJECT(socket), "corvane-budget",
                         new std::shared_ptr<SocketBudget>(budget), [](gpointer data) {
                           auto* held = static_cast<std::shared_ptr<SocketBudget>*>(data);
                           (*held)->Give();
                           delete held;
                         });
  g_socket_set_blocking(socket, FALSE);
  const int one = 1;
  setsockopt(g_socket_get_fd(socket), SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
  return socket;
}

// One receive buffer per thread: every socket of a queue reads on that queue's thread.
uint8_t* ReceiveBuffer() {
  static thread_local uint8_t buffer[65536];
  return buffer;
}

class System;

// Posts to the queue, keeping `self` alive until the task ran so that final notifications
// ("cancelled") still arrive after the owner dropped the flow.
template <typename T, typename F>
void PostWith(dispatch::SerialQueue& queue, std::shared_ptr<T> self, F fn) {
  queue.Async([self = std::move(self), fn = std::move(fn)]() mutable { fn(*self); });
}

// Shared by a connected flow, a listener and a listener's flows.
class FlowBase : public UdpFlow {
 public:
  explicit FlowBase(dispatch::SerialQueue& queue) : queue_(queue) {}
  void SetStateHandler(StateHandler handler) override { state_handler_ = std::move(handler); }
  FlowState state() const override { return state_; }

 protected:
  template <typename Self>
  void Notify(std::shared_ptr<Self> self, FlowState state, std::string error) {
    PostWith(queue_, std::move(self), [state, error = std::move(error)](Self& flow) {
      if (flow.state_handler_) flow.state_handler_(state, error);
    });
  }
  template <typename Self>
  void Complete(std::shared_ptr<Self> self, SendCompletion completion,
                std::optional<std::string> error) {
    if (!completion) return;
    PostWith(queue_, std::move(self),
             [completion = std::move(completion), error = std::move(error)](Self&) {
               completion(error);
             });
  }

  dispatch::SerialQueue& queue_;
  StateHandler state_handler_;
  FlowState state_ = FlowState::kSetup;
};

// A flow to one host and port over a socket of its own.
class ConnectedFlow final : public FlowBase, public std::enable_shared_from_this<ConnectedFlow> {
 public:
  ConnectedFlow(dispatch::SerialQueue& queue, std::shared_ptr<SocketBudget> budget,
                std::string host, uint16_t port)
      : FlowBase(queue), budget_(std::move(budget)), host_(std::move(host)), port_(port) {}
  ~ConnectedFlow() override { Teardown(); }

  void Start() override {
    if (state_ != FlowState::kSetup) return;
    state_ = FlowState::kPreparing;
    if (GInetAddress* literal = g_inet_address_new_from_string(host_.c_str())) {
      ConnectTo(literal);
      g_object_unref(literal);
      return;
    }
    // Names resolve off the queue; the answer comes back on this queue's context, which is the
    // thread-default context of the thread calling Start().
    resolving_ = g_cancellable_new();
    auto* holder = new std::weak_ptr<ConnectedFlow>(weak_from_this());
    // The holder dies with the cancellable, which the lookup keeps until its callback ran or
    // was abandoned with the context: no leak either way.
    g_object_set_data_full(G_OBJECT(resolving_), "corvane-flow", holder, [](gpointer data) {
      delete static_cast<std::weak_ptr<ConnectedFlow>*>(data);
    });
    GResolver* resolver = g_resolver_get_default();
    g_resolver_lookup_by_name_with_flags_async(resolver, host_.c_str(),
                                               G_RESOLVER_NAME_LOOKUP_FLAGS_IPV4_ONLY, resolving_,
                                               &ConnectedFlow::OnResolved, resolving_);
    g_object_unref(resolver);
  }

  void Receive(ReceiveHandler handler) override {
    receive_handler_ = std::move(handler);
    if (state_ == FlowState::kReady) WatchSocket();
  }

  void Send(Bytes data, SendCompletion completion) override {
    if (state_ != FlowState::kReady) {
      Complete(shared_from_this(), std::move(completion), Describe(ENOTCONN));
      return;
    }
    const ssize_t sent =
        send(g_socket_get_fd(socket_), data.data(), data.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
    std::optional<std::string> error;
    if (sent < 0) {
      const int code = errno;
      error = Describe(code);
      if (IsPeerAbsent(code)) LogPeerAbsent(*error);
    } else if (static_cast<size_t>(sent) != data.size()) {
      error = "datagram truncated";
    }
    Complete(shared_from_this(), std::move(completion), std::move(error));
  }

  void Cancel() override {
    if (state_ == FlowState::kCancelled) return;
    Teardown();
    state_ = FlowState::kCancelled;
    Notify(shared_from_this(), FlowState::kCancelled, "");
  }

 private:
  static void OnResolved(GObject* source, GAsyncResult* result, gpointer data) {
    GError* error = nullptr;
    GList* addresses =
        g_resolver_lookup_by_name_with_flags_finish(G_RESOLVER(source), result, &error);
    auto* holder = static_cast<std::weak_ptr<ConnectedFlow>*>(
        g_object_get_data(G_OBJECT(data), "corvane-flow"));
    std::shared_ptr<ConnectedFlow> self = holder ? holder->lock() : nullptr;
    const bool cancelled = error && g_error_matches(error, G_IO_ERROR, G_IO_ERROR_CANCELLED);
    if (self && !cancelled && self->resolving_ == data) {
      g_clear_object(&self->resolving_);
      if (error) {
        self->Fail(error->message);
      } else if (!addresses) {
        self->Fail("no IPv4 address for " + self->host_);
      } else {
        self->ConnectTo(G_INET_ADDRESS(addresses->data));
      }
    }
    if (error) g_error_free(error);
    g_resolver_free_addresses(addresses);
  }

  void ConnectTo(GInetAddress* address) {
    if (g_inet_address_get_family(address) != G_SOCKET_FAMILY_IPV4) {
      Fail("IPv6 is not used: " + host_ + " is not an IPv4 address");
      return;
    }
    std::string error;
    socket_ = NewUdpSocket(budget_, &error);
    if (!socket_) {
      Fail(error);
      return;
    }
    sockaddr_in peer{};
    peer.sin_family = AF_INET;
    peer.sin_port = htons(port_);
    std::memcpy(&peer.sin_addr, g_inet_address_to_bytes(address), sizeof peer.sin_addr);
    if (connect(g_socket_get_fd(socket_), reinterpret_cast<sockaddr*>(&peer), sizeof peer) != 0) {
      Fail(Describe(errno));
      return;
    }
    remote_ = Endpoint{HostText(peer), port_};
    state_ = FlowState::kReady;
    Notify(shared_from_this(), FlowState::kReady, "");
    if (receive_handler_) WatchSocket();
  }

  void WatchSocket() {
    if (source_ || !socket_) return;
    source_ = g_socket_create_source(socket_, GIOCondition(G_IO_IN | G_IO_ERR), nullptr);
    g_source_set_callback(source_, G_SOURCE_FUNC(&ConnectedFlow::OnReadable), this, nullptr);
    g_source_attach(source_, g_main_context_get_thread_default());
  }

  // The source is destroyed before the flow, on this same thread, so `data` is alive here.
  static gboolean OnReadable(GSocket*, GIOCondition, gpointer data) {
    auto self = static_cast<ConnectedFlow*>(data)->shared_from_this();
    const int fd = g_socket_get_fd(self->socket_);
    uint8_t* buffer = ReceiveBuffer();
    for (int i = 0; i < kReadBudget; ++i) {
      const ssize_t n = recv(fd, buffer, 65536, MSG_DONTWAIT);
      if (n < 0) {
        if (errno == EINTR) continue;
        if (errno == EAGAIN || errno == EWOULDBLOCK) break;
        if (IsPeerAbsent(errno)) {
          self->LogPeerAbsent(Describe(errno));
          continue;  // reading the error cleared it; datagrams may still wait behind it
        }
        self->Fail(Describe(errno));
        return G_SOURCE_CONTINUE;  // Fail() destroyed the source already
      }
      if (n == 0) continue;  // an empty datagram carries nothing to report
      if (self->receive_handler_) self->receive_handler_(Bytes(buffer, buffer + n), self->remote_);
      if (self->state_ != FlowState::kReady) break;
    }
    return G_SOURCE_CONTINUE;
  }

  void LogPeerAbsent(const std::string& error) const {
    g_log(kLogDomain, G_LOG_LEVEL_DEBUG, "flow to %s:%u: datagram refused: %s", host_.c_str(),
          port_, error.c_str());
  }

  void Fail(std::string error) {
    if (state_ == FlowState::kFailed || state_ == FlowState::kCancelled) return;
    g_log(kLogDomain, G_LOG_LEVEL_DEBUG, "flow to %s:%u failed: %s", host_.c_str(), port_,
          error.c_str());
    dispatch::DestroySource(source_);
    state_ = FlowState::kFailed;
    Notify(shared_from_this(), FlowState::kFailed, std::move(error));
  }

  void Teardown() {
    dispatch::DestroySource(source_);
    if (resolving_) {
      g_cancellable_cancel(resolving_);
      g_clear_object(&resolving_);
    }
    if (socket_) {
      g_socket_close(socket_, nullptr);
      g_clear_object(&socket_);
    }
  }

  std::shared_ptr<SocketBudget> budget_;
  std::string host_;
  uint16_t port_;
  Endpoint remote_;
  GCancellable* resolving_ = nullptr;
  GSocket* socket_ = nullptr;
  GSource* source_ = nullptr;
  ReceiveHandler receive_handler_;
};

class Listener;

// One remote endpoint heard by a listener. It shares the listener's socket: replies leave
// from the listener's port, as the peer expects.
class InboundFlow final : public FlowBase, public std::enable_shared_from_this<InboundFlow> {
 public:
  InboundFlow(dispatch::SerialQueue& queue, GSocket* socket, const sockaddr_in& remote,
              std::weak_ptr<Listener> listener)
      : FlowBase(queue),
        socket_(G_SOCKET(g_object_ref(socket))),
        remote_address_(remote),
        remote_{HostText(remote), ntohs(remote.sin_port)},
        listener_(std::move(listener)) {}
  ~InboundFlow() override { g_clear_object(&socket_); }

  void Start() override {
    if (state_ != FlowState::kSetup) return;
    state_ = FlowState::kReady;
    Notify(shared_from_this(), FlowState::kReady, "");
  }

  void Receive(ReceiveHandler handler) override {
    receive_handler_ = std::move(handler);
    while (!buffered_.empty() && receive_handler_ && state_ == FlowState::kReady) {
      Bytes data = std::move(buffered_.front());
      buffered_.pop_front();
      receive_handler_(std::move(data), remote_);
    }
  }

  void Deliver(const uint8_t* data, size_t size) {
    if (state_ == FlowState::kCancelled || state_ == FlowState::kFailed) return;
    if (receive_handler_ && state_ == FlowState::kReady) {
      receive_handler_(Bytes(data, data + size), remote_);
    } else if (buffered_.size() < kMaxBufferedPerFlow) {
      buffered_.emplace_back(data, data + size);
    }
  }

  void Send(Bytes data, SendCompletion completion) override {
    std::optional<std::string> error;
    if (state_ != FlowState::kReady || !socket_) {
      error = Describe(ENOTCONN);
    } else {
      const ssize_t sent =
          sendto(g_socket_get_fd(socket_), data.data(), data.size(), MSG_DONTWAIT | MSG_NOSIGNAL,
                 reinterpret_cast<const sockaddr*>(&remote_address_), sizeof remote_address_);
      if (sent < 0) error = Describe(errno);
    }
    Complete(shared_from_this(), std::move(completion), std::move(error));
  }

  void Cancel() override;

  uint64_t key() const { return Key(remote_address_); }
  static uint64_t Key(const sockaddr_in& a) {
    return uint64_t(ntohl(a.sin_addr.s_addr)) << 16 | ntohs(a.sin_port);
  }

 private:
  GSocket* socket_;
  sockaddr_in remote_address_;
  Endpoint remote_;
  std::weak_ptr<Listener> listener_;
  ReceiveHandler receive_handler_;
  std::deque<Bytes> buffered_;
};

class Listener final : public UdpListener, public std::enable_shared_from_this<Listener> {
 public:
  Listener(dispatch::SerialQueue& queue, GSocket* socket) : queue_(queue), socket_(socket) {}
  ~Listener() override { Teardown(); }

  void SetStateHandler(StateHandler handler) override { state_handler_ = std::move(handler); }
  void SetNewFlowHandler(FlowHandler handler) override { flow_handler_ = std::move(handler); }

  void Start() override {
    if (state_ != FlowState::kSetup) return;
    state_ = FlowState::kReady;
    Notify(FlowState::kReady, "");
    source_ = g_socket_create_source(socket_, GIOCondition(G_IO_IN | G_IO_ERR), nullptr);
    g_source_set_callback(source_, G_SOURCE_FUNC(&Listener::OnReadable), this, nullptr);
    g_source_attach(source_, g_main_context_get_thread_default());
  }

  void Cancel() override {
    if (state_ == FlowState::kCancelled) return;
    Teardown();
    state_ = FlowState::kCancelled;
    Notify(FlowState::kCancelled, "");
  }

  uint16_t port() const override {
    sockaddr_in local{};
    socklen_t length = sizeof local;
    if (!socket_ ||
        getsockname(g_socket_get_fd(socket_), reinterpret_cast<sockaddr*>(&local), &length) != 0) {
      return 0;
    }
    return ntohs(local.sin_port);
  }

  void Forget(const InboundFlow& flow) {
    auto it = flows_.find(flow.key());
    if (it == flows_.end()) return;
    auto current = it->second.lock();
    if (!current || current.get() == &flow) flows_.erase(it);
  }

 private:
  void Notify(FlowState state, std::string error) {
    PostWith(queue_, shared_from_this(), [state, error = std::move(error)](Listener& listener) {
      if (listener.state_handler_) listener.state_handler_(state, error);
    });
  }

  static gboolean OnReadable(GSocket*, GIOCondition, gpointer data) {
    auto self = static_cast<Listener*>(data)->shared_from_this();
    const int fd = g_socket_get_fd(self->socket_);
    uint8_t* buffer = ReceiveBuffer();
    for (int i = 0; i < kReadBudget && self->state_ == FlowState::kReady; ++i) {
      sockaddr_in from{};
      socklen_t length = sizeof from;
      const ssize_t n =
          recvfrom(fd, buffer, 65536, MSG_DONTWAIT, reinterpret_cast<sockaddr*>(&from), &length);
      if (n < 0) {
        if (errno == EINTR) continue;
        // An unconnected socket hears no ICMP errors; anything else here is local trouble
        // that a retry will not cure.
        if (errno != EAGAIN && errno != EWOULDBLOCK) self->Fail(Describe(errno));
        break;
      }
      if (n == 0 || from.sin_family != AF_INET) continue;
      if (auto flow = self->FlowFor(from)) flow->Deliver(buffer, static_cast<size_t>(n));
    }
    return G_SOURCE_CONTINUE;
  }

  std::shared_ptr<InboundFlow> FlowFor(const sockaddr_in& from) {
    const uint64_t key = InboundFlow::Key(from);
    auto it = flows_.find(key);
    if (it != flows_.end()) {
      if (auto flow = it->second.lock()) return flow;
      flows_.erase(it);
    }
    if (!flow_handler_) return nullptr;
    if (flows_.size() >= kDemuxPruneAt) {
      std::erase_if(flows_, [](const auto& entry) { return entry.second.expired(); });
    }
    auto flow = std::make_shared<InboundFlow>(queue_, socket_, from, weak_from_this());
    flows_[key] = flow;
    flow_handler_(flow);  // the owner starts it and starts its receive loop
    return flow;
  }

  void Fail(std::string error) {
    if (state_ != FlowState::kReady) return;
    dispatch::DestroySource(source_);
    state_ = FlowState::kFailed;
    Notify(FlowState::kFailed, std::move(error));
  }

  // The socket itself stays open while flows hold it, so they can still reply.
  void Teardown() {
    dispatch::DestroySource(source_);
    g_clear_object(&socket_);
  }

  dispatch::SerialQueue& queue_;
  GSocket* socket_;
  GSource* source_ = nullptr;
  FlowState state_ = FlowState::kSetup;
  StateHandler state_handler_;
  FlowHandler flow_handler_;
  std::unordered_map<uint64_t, std::weak_ptr<InboundFlow>> flows_;
};

void InboundFlow::Cancel() {
  if (state_ == FlowState::kCancelled) return;
  state_ = FlowState::kCancelled;
  buffered_.clear();
  if (auto listener = listener_.lock()) listener->Forget(*this);
  g_clear_object(&socket_);
  Notify(shared_from_this(), FlowState::kCancelled, "");
}

class System final : public UdpNetwork {
 public:
  explicit System(dispatch::SerialQueue& queue)
      : queue_(queue), budget_(std::make_shared<SocketBudget>()) {}

  std::shared_ptr<UdpFlow> Connect(const std::string& host, uint16_t port) override {
    if (host.empty()) return nullptr;
    return std::make_shared<ConnectedFlow>(queue_, budget_, host, port);
  }

  std::shared_ptr<UdpListener> Listen(uint16_t port, std::string* error) override {
    GSocket* socket = NewUdpSocket(budget_, error);
    if (!socket) return nullptr;
    sockaddr_in local{};
    local.sin_family = AF_INET;
    local.sin_addr.s_addr = htonl(INADDR_ANY);
    local.sin_port = htons(port);
    if (bind(g_socket_get_fd(socket), reinterpret_cast<sockaddr*>(&local), sizeof local) != 0) {
      *error = Describe(errno);
      g_object_unref(socket);
      return nullptr;
    }
    return std::make_shared<Listener>(queue_, socket);
  }

  void SendBroadcast(const std::string& host, uint16_t port, const Bytes& data) override {
    sockaddr_in target{};
    target.sin_family = AF_INET;
    target.sin_port = htons(port);
    if (inet_pton(AF_INET, host.c_str(), &target.sin_addr) != 1) return;
    std::string error;
    if (!budget_->Take(&error)) return;
    const int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, IPPROTO_UDP);
    if (fd < 0) {
      budget_->Give();
      return;
    }
    const int one = 1;
    setsockopt(fd, SOL_SOCKET, SO_BROADCAST, &one, sizeof one);
    setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
    // Fire and forget: a broadcast has no one to report a failure to.
    (void)sendto(fd, data.data(), data.size(), MSG_DONTWAIT | MSG_NOSIGNAL,
                 reinterpret_cast<const sockaddr*>(&target), sizeof target);
    close(fd);
    budget_->Give();
  }

 private:
  dispatch::SerialQueue& queue_;
  std::shared_ptr<SocketBudget> budget_;
};

}  // namespace

std::shared_ptr<UdpNetwork> MakeSystemUdpNetwork(dispatch::SerialQueue& queue) {
  return std::make_shared<System>(queue);
}

std::vector<NetworkInterface> ListInterfaces() {
  std::vector<NetworkInterface> result;
  ifaddrs* list = nullptr;
  if (getifaddrs(&list) != 0) return result;
  std::map<std::string, size_t> index;
  for (ifaddrs* entry = list; entry; entry = entry->ifa_next) {
    if (!entry->ifa_addr || entry->ifa_addr->sa_family != AF_INET) continue;
    if (!(entry->ifa_flags & IFF_UP) || (entry->ifa_flags & IFF_LOOPBACK)) continue;
    char host[1025] = {};
    if (getnameinfo(entry->ifa_addr, sizeof(sockaddr_in), host, sizeof host, nullptr, 0,
                    NI_NUMERICHOST) != 0) {
      continue;
    }
    auto [it, added] = index.emplace(entry->ifa_name, result.size());
    if (added) result.push_back(NetworkInterface{entry->ifa_name, {}});
    result[it->second].addresses.emplace_back(host);
  }
  freeifaddrs(list);
  return result;
}

}  // namespace corvane::udp
