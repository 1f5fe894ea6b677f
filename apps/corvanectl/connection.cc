#include "connection.h"

#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>

namespace corvane::ctl {

namespace {

constexpr size_t kReadChunk = 256 * 1024;

volatile sig_atomic_t g_stop_requested = 0;

void OnStopSignal(int) { g_stop_requested = 1; }

std::string Errno(const std::string& what) { return what + ": " + std::strerror(errno); }

// Milliseconds left until `deadline` as a timespec for ppoll; null waits without limit.
const timespec* Remaining(Deadline deadline, timespec& ts) {
  if (deadline == kNoDeadline) return nullptr;
  const auto left = std::max(Clock::duration::zero(), deadline - Clock::now());
  const auto ns = std::chrono::duration_cast<std::chrono::nanoseconds>(left).count();
  ts.tv_sec = static_cast<time_t>(ns / 1000000000);
  ts.tv_nsec = static_cast<long>(ns % 1000000000);
  return &ts;
}

}  // namespace

std::string DefaultSocketPath() {
  // Mirrors SocketEngine::DefaultSocketPath without pulling GLib into a thin client.
  const char* runtime = getenv("XDG_RUNTIME_DIR");
  if (runtime && *runtime) return std::string(runtime) + "/corvane/engine.sock";
  return "/tmp/corvane-" + std::to_string(geteuid()) + "/engine.sock";
}

StopSignals::StopSignals() {
  g_stop_requested = 0;
  sigset_t stop;
  sigemptyset(&stop);
  sigaddset(&stop, SIGINT);
  sigaddset(&stop, SIGTERM);
  sigprocmask(SIG_BLOCK, &stop, &old_mask_);
  wait_mask_ = old_mask_;
  sigdelset(&wait_mask_, SIGINT);
  sigdelset(&wait_mask_, SIGTERM);
  struct sigaction sa {};
  sa.sa_handler = OnStopSignal;
  sigemptyset(&sa.sa_mask);
  sigaction(SIGINT, &sa, &old_int_);
  sigaction(SIGTERM, &sa, &old_term_);
}

StopSignals::~StopSignals() {
  sigaction(SIGINT, &old_int_, nullptr);
  sigaction(SIGTERM, &old_term_, nullptr);
  sigprocmask(SIG_SETMASK, &old_mask_, nullptr);
}

bool StopSignals::requested() const { return g_stop_requested != 0; }

Connection::~Connection() {
  if (fd_ >= 0) close(fd_);
}

bool Connection::Connect(const std::string& path, std::string* error) {
  sockaddr_un addr{};
  addr.sun_family = AF_UNIX;
  if (path.size() >= sizeof addr.sun_path) {
    *error = "socket path too long: " + path;
    return false;
  }
  std::memcpy(addr.sun_path, path.c_str(), path.size() + 1);
  fd_ = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd_ < 0) {
    *error = Errno("socket");
    return false;
  }
  int rc;
  do {
    rc = connect(fd_, reinterpret_cast<const sockaddr*>(&addr), sizeof addr);
  } while (rc != 0 && errno == EINTR);
  if (rc != 0) {
    *error = Errno("cannot connect to " + path) + " (is corvane-host running?)";
    return false;
  }
  // Whoever could put a socket at the path could be serving it: only a host of this user (or
  // root) is trusted with what we send and believed in what it answers.
  struct ucred cred {};
  socklen_t length = sizeof cred;
  if (getsockopt(fd_, SOL_SOCKET, SO_PEERCRED, &cred, &length) != 0) {
    *error = Errno("cannot tell who serves " + path);
    return false;
  }
  if (cred.uid != geteuid() && cred.uid != 0) {
    *error = "refusing the host at " + path + ": it runs as uid " + std::to_string(cred.uid) +
             ", not as this user (uid " + std::to_string(geteuid()) + ")";
    return false;
  }
  // Non-blocking from here, so every wait goes through poll and honours its deadline.
  const int flags = fcntl(fd_, F_GETFL);
  fcntl(fd_, F_SETFL, flags | O_NONBLOCK);
  return true;
}

Connection::Status Connection::Write(std::span<const uint8_t> frame, Deadline deadline,
                                     std::string* error) {
  size_t done = 0;
  while (done < frame.size()) {
    const ssize_t n = send(fd_, frame.data() + done, frame.size() - done, MSG_NOSIGNAL);
    if (n > 0) {
      done += static_cast<size_t>(n);
      continue;
    }
    if (n < 0 && errno == EINTR) continue;
    if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) {
      pollfd p{fd_, POLLOUT, 0};
      timespec ts;
      const int rc = ppoll(&p, 1, Remaining(deadline, ts), nullptr);
      if (rc == 0) {
        *error = "the host did not take the message in time";
        return Status::kTimeout;
      }
      if (rc < 0 && errno != EINTR) {
        *error = Errno("poll");
        return Status::kFailed;
      }
      continue;
    }
    if (errno == EPIPE || errno == ECONNRESET) {
      *error = "the host closed the connection";
      return Status::kClosed;
    }
    *error = Errno("send");
    return Status::kFailed;
  }
  return Status::kOk;
}

Connection::Status Connection::Next(engine::Frame& frame, Deadline deadline,
                                    const StopSignals* stop, std::string* error) {
  uint8_t buffer[kReadChunk];
  for (;;) {
    if (auto next = reader_.Next()) {
      frame = std::move(*next);
      return Status::kOk;
    }
    if (reader_.failed()) {
      *error = "bad frame from the host: " + reader_.error();
      return Status::kFailed;
    }
    if (stop && stop->requested()) return Status::kStopped;
    pollfd p{fd_, POLLIN, 0};
    timespec ts;
    const int rc = ppoll(&p, 1, Remaining(deadline, ts), stop ? stop->wait_mask() : nullptr);
    if (rc < 0) {
      if (errno == EINTR) continue;
      *error = Errno("poll");
      return Status::kFailed;
    }
    if (rc == 0) return Status::kTimeout;
    const ssize_t n = recv(fd_, buffer, sizeof buffer, 0);
    if (n > 0) {
      reader_.Append(std::span<const uint8_t>(buffer, static_cast<size_t>(n)));
      continue;
    }
    if (n < 0 && (errno == EINTR || errno == EAGAIN || errno == EWOULDBLOCK)) continue;
    if (n == 0 || errno == ECONNRESET) {
      *error = reader_.buffered() ? "the host closed the connection in the middle of a frame"
                                  : "the host closed the connection";
      return Status::kClosed;
    }
    *error = Errno("recv");
    return Status::kFailed;
  }
}

}  // namespace corvane::ctl
