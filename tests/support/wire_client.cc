#include "support/wire_client.h"

#include <errno.h>
#include <glib.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <chrono>
#include <cstring>

namespace corvane::testing {

WireClient::~WireClient() { Close(); }

bool WireClient::Connect(const std::string& path) {
  Close();
  fd_ = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_un addr{.sun_family = AF_UNIX, .sun_path = {}};
  std::strncpy(addr.sun_path, path.c_str(), sizeof addr.sun_path - 1);
  closed_ = false;
  reader_ = engine::FrameReader();
  if (connect(fd_, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0) Close();
  return fd_ >= 0;
}

void WireClient::Close() {
  if (fd_ >= 0) close(fd_);
  fd_ = -1;
}

bool WireClient::SendRaw(const engine::Bytes& bytes) {
  size_t done = 0;
  while (done < bytes.size()) {
    const ssize_t n = send(fd_, bytes.data() + done, bytes.size() - done, MSG_NOSIGNAL);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    done += static_cast<size_t>(n);
  }
  return true;
}

namespace {
using Clock = std::chrono::steady_clock;
int Left(Clock::time_point deadline) {
  const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now()).count();
  return left > 0 ? static_cast<int>(left) : 0;
}
}  // namespace

std::optional<engine::Frame> WireClient::Receive(int timeout_ms, bool pump_main) {
  const auto deadline = Clock::now() + std::chrono::milliseconds(timeout_ms);
  for (;;) {
    if (auto frame = reader_.Next()) return frame;
    if (closed_ || reader_.failed() || Left(deadline) == 0) return std::nullopt;
    while (pump_main && g_main_context_iteration(nullptr, FALSE)) {
    }
    pollfd p{fd_, POLLIN, 0};
    if (poll(&p, 1, pump_main ? 1 : Left(deadline)) <= 0) continue;
    uint8_t buffer[65536];
    const ssize_t n = recv(fd_, buffer, sizeof buffer, 0);
    if (n < 0 && errno == EINTR) continue;
    closed_ = n <= 0;
    if (n > 0) reader_.Append(std::span<const uint8_t>(buffer, static_cast<size_t>(n)));
  }
}

std::optional<engine::Bytes> WireClient::WaitReply(uint32_t id, int timeout_ms, bool pump_main) {
  const auto deadline = Clock::now() + std::chrono::milliseconds(timeout_ms);
  while (auto frame = Receive(Left(deadline), pump_main)) {
    if (frame->kind == engine::FrameKind::kReply && frame->id == id) return frame->payload;
  }
  return std::nullopt;
}

}  // namespace corvane::testing
