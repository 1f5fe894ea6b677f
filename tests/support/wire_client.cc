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
  sockaddr_un addr{};
  addr.sun_family = AF_UNIX;
  std::strncpy(addr.sun_path, path.c_str(), sizeof addr.sun_path - 1);
  if (connect(fd_, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0) {
    Close();
    return false;
  }
  closed_ = false;
  reader_ = engine::FrameReader();
  return true;
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

bool WireClient::SendMessage(uint32_t id, const std::string& channel,
                             const engine::Bytes& payload) {
  return SendRaw(engine::EncodeMessageFrame(id, channel, payload));
}

bool WireClient::SendCall(uint32_t id, const std::string& channel, const std::string& method,
                          channel::Value args) {
  return SendMessage(id, channel, channel::EncodeMethodCall({method, std::move(args)}));
}

std::optional<engine::Frame> WireClient::Receive(int timeout_ms, bool pump_main) {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeout_ms);
  for (;;) {
    if (auto frame = reader_.Next()) return frame;
    if (closed_ || reader_.failed()) return std::nullopt;
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
                          deadline - std::chrono::steady_clock::now())
                          .count();
    if (left <= 0) return std::nullopt;
    if (pump_main) {
      while (g_main_context_iteration(nullptr, FALSE)) {
      }
    }
    pollfd p{fd_, POLLIN, 0};
    const int ready = poll(&p, 1, pump_main ? 1 : static_cast<int>(left));
    if (ready <= 0) continue;
    uint8_t buffer[65536];
    const ssize_t n = recv(fd_, buffer, sizeof buffer, 0);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) {
      closed_ = true;
      continue;
    }
    reader_.Append(std::span<const uint8_t>(buffer, static_cast<size_t>(n)));
  }
}

std::optional<engine::Bytes> WireClient::WaitReply(uint32_t id, int timeout_ms, bool pump_main) {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeout_ms);
  for (;;) {
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
                          deadline - std::chrono::steady_clock::now())
                          .count();
    if (left <= 0) return std::nullopt;
    auto frame = Receive(static_cast<int>(left), pump_main);
    if (!frame) return std::nullopt;
    if (frame->kind == engine::FrameKind::kReply && frame->id == id) return frame->payload;
  }
}

}  // namespace corvane::testing
