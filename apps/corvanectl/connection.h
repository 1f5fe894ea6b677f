// A client connection to the host's engine socket: whole frames out, whole frames in, each
// step bounded by a deadline. Blocking, single-threaded: corvanectl has one thing to do.
#pragma once

#include <signal.h>

#include <chrono>
#include <span>
#include <string>

#include "engine/wire.h"

namespace corvane::ctl {

using Clock = std::chrono::steady_clock;
using Deadline = Clock::time_point;

inline Deadline After(std::chrono::milliseconds ms) { return Clock::now() + ms; }
inline constexpr Deadline kNoDeadline = Deadline::max();

// Where the host listens unless told otherwise; the same rule as the host's own.
std::string DefaultSocketPath();

// SIGINT and SIGTERM as a request to stop. While installed, the two are blocked except
// while waiting for input, so a signal can only end a wait, never cut a write in half.
class StopSignals {
 public:
  StopSignals();
  ~StopSignals();
  StopSignals(const StopSignals&) = delete;
  StopSignals& operator=(const StopSignals&) = delete;

  bool requested() const;
  const sigset_t* wait_mask() const { return &wait_mask_; }

 private:
  sigset_t old_mask_;
  sigset_t wait_mask_;
  struct sigaction old_int_ {};
  struct sigaction old_term_ {};
};

class Connection {
 public:
  enum class Status { kOk, kTimeout, kClosed, kStopped, kFailed };

  Connection() = default;
  ~Connection();
  Connection(const Connection&) = delete;
  Connection& operator=(const Connection&) = delete;

  bool Connect(const std::string& path, std::string* error);

  // Writes all of `frame`, however the socket splits it.
  Status Write(std::span<const uint8_t> frame, Deadline deadline, std::string* error);

  // Waits for the next frame from the host. With `stop`, a stop signal ends the wait with
  // kStopped.
  Status Next(engine::Frame& frame, Deadline deadline, const StopSignals* stop, std::string* error);

 private:
  int fd_ = -1;
  engine::FrameReader reader_;
};

}  // namespace corvane::ctl
