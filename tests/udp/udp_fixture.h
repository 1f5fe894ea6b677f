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
#include "dispatch/clock.h"
#include "dispatch/queue.h"
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
  explicit Peer(uint16_t port = 0, bool reuse = false) {
    fd_ = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    const int one = 1;
    if (reuse) setsockopt(fd_, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    a.sin_port = htons(port);
    bound_ = bind(fd_, reinterpret_cast<sockaddr*>(&a), sizeof a) == 0;
  }
  ~Peer() { close(fd_); }
  Peer(const Peer&) = delete;
  Peer& operator=(const Peer&) = delete;

  bool bound() const { return bound_; }
  uint16_t port() const {
    sockaddr_in a{};
    socklen_t n = sizeof a;
    getsockname(fd_, reinterpret_cast<sockaddr*>(&a), &n);
    return ntohs(a.sin_port);
  }
  void SendTo(uint16_t port, const channel::Bytes& data) const {
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    a.sin_port = htons(port);
    sendto(fd_, data.data(), data.size(), 0, reinterpret_cast<sockaddr*>(&a), sizeof a);
  }
  struct Datagram {
    channel::Bytes data;
    uint16_t from_port;
  };
  // The next datagram, or nothing within `timeout` (runs the main context meanwhile).
  std::optional<Datagram> Receive(std::chrono::milliseconds timeout = 5s) const {
    std::optional<Datagram> got;
    dispatch::RunMainUntil(
        [&] {
          if (got) return true;  // the predicate is asked again after it said yes
          pollfd p{fd_, POLLIN, 0};
          if (poll(&p, 1, 0) <= 0) return false;
          uint8_t buffer[65536];
          sockaddr_in from{};
          socklen_t n = sizeof from;
          const ssize_t r =
              recvfrom(fd_, buffer, sizeof buffer, 0, reinterpret_cast<sockaddr*>(&from), &n);
          if (r < 0) return false;
          got = Datagram{channel::Bytes(buffer, buffer + r), ntohs(from.sin_port)};
          return true;
        },
        timeout);
    return got;
  }
  // Answers the last sender.
  void Reply(uint16_t to_port, const channel::Bytes& data) const { SendTo(to_port, data); }

 private:
  int fd_ = -1;
  bool bound_ = false;
};

// Wraps the real network so a test can hold back two things the loopback never lets it catch
// in the middle: a new flow's "ready", and a send's completion. Bytes still cross real sockets.
class HoldingNetwork : public UdpNetwork {
 public:
  explicit HoldingNetwork(dispatch::SerialQueue& queue)
      : queue_(queue), inner_(MakeSystemUdpNetwork(queue)) {}

  std::atomic<bool> hold_ready{false};
  std::atomic<bool> hold_completions{false};

  std::shared_ptr<UdpFlow> Connect(const std::string& host, uint16_t port) override;
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
      std::vector<std::function<void()>> run;
      {
        std::lock_guard lock(mutex_);
        run.swap(held_);
      }
      for (auto& fn : run) fn();
    });
  }
  void Hold(std::function<void()> fn) {
    std::lock_guard lock(mutex_);
    held_.push_back(std::move(fn));
  }

 private:
  dispatch::SerialQueue& queue_;
  std::shared_ptr<UdpNetwork> inner_;
  std::mutex mutex_;
  std::vector<std::function<void()>> held_;
};

// Installs the bridge on a loopback engine, listens to its events, and reads them back.
class BridgeTest : public ::testing::Test {
 protected:
  void StartBridge(bool holding = false) {
    UdpBridge::Options options;
    options.clock = &clock_;
    options.permission_browser = [this] {
      ++browsers_started_;
      return std::make_unique<PermissionBrowser>();
    };
    if (holding) {
      options.network = [this](dispatch::SerialQueue& queue) {
        auto network = std::make_shared<HoldingNetwork>(queue);
        holding_ = network.get();
        return network;
      };
    }
    bridge_ = UdpBridge::Create(engine_, std::move(options));
    engine_.SendFromEngine(kEventChannel, channel::EncodeMethodCall({"listen", Value()}));
  }

  void TearDown() override { bridge_.reset(); }

  MethodReply Call(const std::string& method, Value args = Value()) {
    std::optional<channel::Bytes> reply;
    int replies = 0;
    engine_.SendFromEngine(kMethodChannel, channel::EncodeMethodCall({method, std::move(args)}),
                           [&](channel::Bytes b) {
                             ++replies;
                             reply = std::move(b);
                           });
    dispatch::RunMainUntil([&] { return reply.has_value(); }, 5s);
    EXPECT_TRUE(reply.has_value()) << "no reply to " << method;
    auto decoded = channel::DecodeEnvelope(reply.value_or(channel::Bytes()));
    return decoded.value.value_or(MethodReply());
  }

  // Starts a call whose reply comes later; the returned slot fills when it does.
  std::shared_ptr<std::vector<MethodReply>> CallLater(const std::string& method, Value args) {
    auto replies = std::make_shared<std::vector<MethodReply>>();
    engine_.SendFromEngine(kMethodChannel, channel::EncodeMethodCall({method, std::move(args)}),
                           [replies](channel::Bytes b) {
                             auto decoded = channel::DecodeEnvelope(b);
                             replies->push_back(decoded.value.value_or(MethodReply()));
                           });
    return replies;
  }

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

  // Waits for the first event of `type` for `session` after the first `skip` events.
  std::optional<ValueMap> WaitEvent(const std::string& session, const std::string& type,
                                    size_t* index = nullptr, std::chrono::milliseconds t = 5s) {
    std::optional<ValueMap> found;
    const size_t from = index ? *index : 0;
    dispatch::RunMainUntil(
        [&] {
          auto events = Events();
          for (size_t i = from; i < events.size(); ++i) {
            if (Text(events[i], "sessionId") == session && Text(events[i], "type") == type) {
              found = events[i];
              if (index) *index = i + 1;
              return true;
            }
          }
          return false;
        },
        t);
    return found;
  }

  void Settle(std::chrono::milliseconds t = 100ms) {
    dispatch::RunMainUntil([] { return false; }, t);
  }

  static Value Map(std::initializer_list<std::pair<const char*, Value>> entries) {
    ValueMap m;
    for (const auto& [k, v] : entries) m.Append(Value(k), v);
    return Value(std::move(m));
  }
  static Value Bytes(std::initializer_list<uint8_t> b) { return Value(channel::Bytes(b)); }

  dispatch::ManualClock clock_;
  engine::LoopbackEngine engine_;
  std::shared_ptr<UdpBridge> bridge_;
  HoldingNetwork* holding_ = nullptr;
  std::atomic<int> browsers_started_{0};
};

}  // namespace corvane::udp::testing
