// The test plays the Flutter side of a UdpBridge through the loopback engine; peers are plain
// UDP sockets on 127.0.0.1.
#pragma once

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "channel/standard_codec.h"
#include "engine/loopback_engine.h"
#include "udp/udp_bridge.h"

namespace corvane::udp::testing {

using namespace std::chrono_literals;
using channel::MethodReply;
using channel::Value;
using channel::ValueMap;

// A plain UDP socket on 127.0.0.1 standing in for a command station.
class Peer {
 public:
  explicit Peer(bool reuse = false, uint16_t port = 0)
      : fd_(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
    const int one = 1;
    if (reuse) setsockopt(fd_, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
    sockaddr_in a = Loopback(port);
    bind(fd_, reinterpret_cast<sockaddr*>(&a), sizeof a);
    socklen_t n = sizeof a;
    getsockname(fd_, reinterpret_cast<sockaddr*>(&a), &n);
    port_ = ntohs(a.sin_port);
  }
  ~Peer() { close(fd_); }

  uint16_t port() const { return port_; }
  void SendTo(uint16_t port, const channel::Bytes& data) const {
    sockaddr_in a = Loopback(port);
    sendto(fd_, data.data(), data.size(), 0, reinterpret_cast<sockaddr*>(&a), sizeof a);
  }
  struct Datagram {
    channel::Bytes data;
    uint16_t from_port;
  };
  // The next datagram, or nothing within `timeout`. The bridge sends from its own thread, so
  // the main context need not run meanwhile.
  std::optional<Datagram> Receive(std::chrono::milliseconds timeout = 5s) const {
    pollfd p{fd_, POLLIN, 0};
    uint8_t buffer[65536];
    sockaddr_in from{};
    socklen_t n = sizeof from;
    if (poll(&p, 1, static_cast<int>(timeout.count())) <= 0) return std::nullopt;
    const ssize_t r =
        recvfrom(fd_, buffer, sizeof buffer, 0, reinterpret_cast<sockaddr*>(&from), &n);
    if (r < 0) return std::nullopt;
    return Datagram{channel::Bytes(buffer, buffer + r), ntohs(from.sin_port)};
  }

 private:
  static sockaddr_in Loopback(uint16_t port) {
    return sockaddr_in{AF_INET, htons(port), {htonl(INADDR_LOOPBACK)}, {}};
  }
  int fd_;
  uint16_t port_ = 0;
};

// Wraps the real network so a test can hold back two things the loopback never lets it catch
// in the middle: a new flow's "ready", and a send's completion. Bytes still cross real sockets.
class HoldingNetwork : public UdpNetwork {
 public:
  explicit HoldingNetwork(dispatch::SerialQueue& queue)
      : queue_(queue), inner_(MakeSystemUdpNetwork(queue)) {}

  std::atomic<bool> hold_ready{false};
  std::atomic<bool> hold_completions{false};
  // Holds back a flow's start, so that it stays in setup as one whose host name still
  // resolves would.
  std::atomic<bool> hold_start{false};
  // Never starts a flow's receive loop, so a socket error waits for the next send.
  std::atomic<bool> hold_receive{false};

  std::shared_ptr<UdpFlow> Connect(const std::string& host, uint16_t port) override {
    auto inner = inner_->Connect(host, port);
    return inner ? std::make_shared<Flow>(std::move(inner), *this) : nullptr;
  }
  std::shared_ptr<UdpListener> Listen(uint16_t port, std::string* error) override {
    return inner_->Listen(port, error);
  }
  void SendBroadcast(const std::string& host, uint16_t port, const Bytes& data) override {
    inner_->SendBroadcast(host, port, data);
  }

  size_t held() {
    std::lock_guard lock(mutex_);
    return held_.size();
  }
  // Lets everything held go, on the bridge's queue.
  void Release() {
    queue_.Async([this] {
      std::unique_lock lock(mutex_);
      auto run = std::exchange(held_, {});
      lock.unlock();
      for (auto& fn : run) fn();
    });
  }

 private:
  // A flow whose "ready" is held reports itself ready already, as a real one does between
  // becoming ready and its handler running.
  class Flow final : public UdpFlow {
   public:
    Flow(std::shared_ptr<UdpFlow> inner, HoldingNetwork& network)
        : inner_(std::move(inner)), network_(network) {}
    void SetStateHandler(StateHandler handler) override {
      if (!handler) return inner_->SetStateHandler(nullptr);
      inner_->SetStateHandler([handler, &network = network_](FlowState s, const std::string& e) {
        if (s != FlowState::kReady || !network.hold_ready) return handler(s, e);
        network.Hold([handler] { handler(FlowState::kReady, ""); });
      });
    }
    void Start() override {
      if (!network_.hold_start) return inner_->Start();
      network_.Hold([inner = inner_] { inner->Start(); });
    }
    FlowState state() const override { return inner_->state(); }
    void Receive(ReceiveHandler handler) override {
      if (!network_.hold_receive) inner_->Receive(std::move(handler));
    }
    void Send(Bytes data, SendCompletion completion) override {
      if (!network_.hold_completions || !completion) {
        return inner_->Send(std::move(data), std::move(completion));
      }
      inner_->Send(std::move(data), [&network = network_, completion](const auto& error) {
        network.Hold([completion, error] { completion(error); });
      });
    }
    void Cancel() override { inner_->Cancel(); }

   private:
    std::shared_ptr<UdpFlow> inner_;
    HoldingNetwork& network_;
  };

  void Hold(std::function<void()> fn) {
    std::lock_guard lock(mutex_);
    held_.push_back(std::move(fn));
  }

  dispatch::SerialQueue& queue_;
  std::shared_ptr<UdpNetwork> inner_;
  std::mutex mutex_;
  std::vector<std::function<void()>> held_;
};

// Installs the bridge on a loopback engine, listens to its events, and reads them back.
class BridgeTest : public ::testing::Test {
 protected:
  using Replies = std::shared_ptr<std::vector<MethodReply>>;

  // Every test runs on the holding network; with nothing held it is the real one.
  void SetUp() override {
    UdpBridge::Options options;
    options.clock = &clock_;
    options.permission_browser = [this] {
      ++browsers_started_;
      return std::make_unique<PermissionBrowser>();
    };
    options.network = [this](dispatch::SerialQueue& queue) {
      auto network = std::make_shared<HoldingNetwork>(queue);
      holding_ = network.get();
      return network;
    };
    bridge_ = UdpBridge::Create(engine_, std::move(options));
    engine_.SendFromEngine(kEventChannel, channel::EncodeMethodCall({"listen", Value()}));
  }

  // Starts a call; the returned list fills with its replies as they come.
  Replies CallLater(const std::string& method, Value args) {
    auto replies = std::make_shared<std::vector<MethodReply>>();
    engine_.SendFromEngine(kMethodChannel, channel::EncodeMethodCall({method, std::move(args)}),
                           [replies](channel::Bytes b) {
                             auto decoded = channel::DecodeEnvelope(b);
                             replies->push_back(decoded.value.value_or(MethodReply()));
                           });
    return replies;
  }

  MethodReply Call(const std::string& method, Value args = Value()) {
    Replies replies = CallLater(method, std::move(args));
    dispatch::RunMainUntil([&] { return !replies->empty(); }, 5s);
    EXPECT_FALSE(replies->empty()) << "no reply to " << method;
    return replies->empty() ? MethodReply() : replies->front();
  }

  // Opens a connected session and waits until it is ready.
  void Open(const std::string& id, const std::string& host, uint16_t port) {
    size_t from = Events().size();
    Call("open",
         Map({{"sessionId", Value(id)}, {"host", Value(host)}, {"port", Value::Integer(port)}}));
    ASSERT_TRUE(WaitEvent(id, "ready", &from)) << "session " << id << " never became ready";
  }
  // Opens a listener and answers the port its "ready" reports (0 when none came).
  uint16_t Listen(const std::string& id, uint16_t port = 0) {
    size_t from = Events().size();
    Call("openListener", Map({{"sessionId", Value(id)}, {"port", Value::Integer(port)}}));
    auto ready = WaitEvent(id, "ready", &from);
    const Value* bound = ready ? ready->Find("port") : nullptr;
    return bound && bound->integer() ? static_cast<uint16_t>(*bound->integer()) : 0;
  }
  void Send(const std::string& id, channel::Bytes data, const char* host = nullptr, int port = -1) {
    ValueMap m = Fields({{"sessionId", Value(id)}, {"data", Value(std::move(data))}});
    if (host) m.Append(Value("host"), Value(host));
    if (port >= 0) m.Append(Value("port"), Value::Integer(port));
    Call("send", Value(std::move(m)));
  }
  void Close(const std::string& id) { Call("close", Map({{"sessionId", Value(id)}})); }

  // Every event so far, decoded, in order.
  std::vector<ValueMap> Events() {
    std::vector<ValueMap> events;
    for (const auto& m : engine_.received()) {
      if (m.channel != kEventChannel) continue;
      auto e = channel::DecodeEnvelope(m.payload);
      if (e && e.value->kind == MethodReply::Kind::kSuccess && e.value->value.map_if()) {
        events.push_back(*e.value->value.map_if());
      }
    }
    return events;
  }

  static std::string Text(const ValueMap& m, const char* key) {
    const Value* v = m.Find(key);
    return v && v->string_if() ? *v->string_if() : std::string();
  }

  // Waits for the first event of `type` for `session` (carrying `data`, when given) at or after
  // index `*from`, and moves `*from` past it.
  std::optional<ValueMap> WaitEvent(const std::string& session, const std::string& type,
                                    size_t* from = nullptr,
                                    const std::optional<channel::Bytes>& data = std::nullopt) {
    std::optional<ValueMap> found;
    dispatch::RunMainUntil(
        [&] {
          auto events = Events();
          for (size_t i = from ? *from : 0; i < events.size(); ++i) {
            const Value* d = events[i].Find("data");
            if (Text(events[i], "sessionId") != session || Text(events[i], "type") != type ||
                (data && !(d && d->bytes_if() && *d->bytes_if() == *data))) {
              continue;
            }
            found = events[i];
            if (from) *from = i + 1;
            return true;
          }
          return false;
        },
        5s);
    return found;
  }
  std::optional<ValueMap> WaitData(const std::string& session, const channel::Bytes& data) {
    return WaitEvent(session, "data", nullptr, data);
  }

  void Settle(std::chrono::milliseconds t = 100ms) {
    dispatch::RunMainUntil([] { return false; }, t);
  }

  static ValueMap Fields(std::initializer_list<std::pair<const char*, Value>> entries) {
    ValueMap m;
    for (const auto& [k, v] : entries) m.Append(Value(k), v);
    return m;
  }
  static Value Map(std::initializer_list<std::pair<const char*, Value>> entries) {
    return Value(Fields(entries));
  }
  static Value Bytes(std::initializer_list<uint8_t> b) { return Value(channel::Bytes(b)); }

  dispatch::ManualClock clock_;
  std::atomic<int> browsers_started_{0};
  engine::LoopbackEngine engine_;
  std::shared_ptr<UdpBridge> bridge_;  // destroyed before what it uses
  HoldingNetwork* holding_ = nullptr;
};

}  // namespace corvane::udp::testing
