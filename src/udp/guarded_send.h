// The guarded send: one datagram whose fate the caller must learn exactly once. Everything here
// runs on the bridge's queue, except GuardedReply, which may be answered or dropped anywhere.
#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "channel/method_channel.h"
#include "dispatch/clock.h"
#include "udp/udp_network.h"

namespace corvane::udp {

namespace status {
inline constexpr const char* kSent = "sent";
inline constexpr const char* kUncertain = "uncertain";
inline constexpr const char* kTimedOut = "timedOut";
inline constexpr const char* kRejected = "rejected";
inline constexpr const char* kCancelled = "cancelled";
inline constexpr const char* kDisconnected = "disconnected";
}  // namespace status

// Answers one "sendGuarded" call with its status map, exactly once. Dropped unanswered (the
// bridge went away with the call still queued), it answers "disconnected": a guarded send is
// never answered with a channel error and never left waiting.
class GuardedReply {
 public:
  GuardedReply(std::unique_ptr<channel::MethodResult> result, std::string request_id)
      : result_(std::move(result)), request_id_(std::move(request_id)) {}
  GuardedReply(const GuardedReply&) = delete;
  GuardedReply& operator=(const GuardedReply&) = delete;
  ~GuardedReply() { Answer(status::kDisconnected, false); }

  void Answer(const char* status, bool write_attempted);
  static channel::Value StatusMap(const std::string& request_id, const char* status,
                                  bool write_attempted);

 private:
  std::unique_ptr<channel::MethodResult> result_;
  std::string request_id_;
};

// A validated "sendGuarded" call on its way to the queue.
struct GuardedRequest {
  std::string session_id;
  std::string request_id;
  Bytes data;
  int64_t timeout_ms = 0;
  double expires_at_ms = 0;
  std::optional<std::string> host;
  std::optional<uint16_t> port;
};

class GuardedDatagram : public std::enable_shared_from_this<GuardedDatagram> {
 public:
  // Removes the record from its session and answers the call.
  using Completion = std::function<void(const char* status, bool write_attempted)>;

  GuardedDatagram(Bytes data, double expires_at_ms, double end_uptime, dispatch::Clock& clock,
                  Completion completion)
      : data_(std::move(data)),
        expires_at_ms_(expires_at_ms),
        end_uptime_(end_uptime),
        clock_(clock),
        completion_(std::move(completion)) {}
  ~GuardedDatagram() { timer_.Cancel(); }

  void StartTimer(dispatch::Queue& queue, std::chrono::milliseconds timeout);
  // Writes on `flow` now (a ready session connection) ...
  void WriteOn(std::shared_ptr<UdpFlow> flow);
  // ... or on a flow of its own, once that becomes ready.
  void WriteOnOwn(std::shared_ptr<UdpFlow> flow);

  // Finishes with "uncertain" when the write was handed over, else with `status`: once the
  // datagram may have left the machine, nothing but "sent" or "uncertain" is ever reported.
  void FinishUnlessAttempted(const char* status);

  bool attempted() const { return attempted_; }
  bool finished() const { return finished_; }

 private:
  void AttemptWrite();
  void Finish(const char* status);

  Bytes data_;
  double expires_at_ms_;
  double end_uptime_;
  dispatch::Clock& clock_;
  Completion completion_;
  std::shared_ptr<UdpFlow> connection_;
  bool owns_connection_ = false;
  bool attempted_ = false;
  bool finished_ = false;
  dispatch::Timer timer_;
};

}  // namespace corvane::udp
