// A blocking client of the engine socket for tests. When the engine runs in the same process,
// pass pump_main = true so the main context turns while the client waits.
#pragma once

#include <optional>
#include <string>

#include "channel/standard_codec.h"
#include "engine/wire.h"

namespace corvane::testing {

class WireClient {
 public:
  WireClient() = default;
  WireClient(const WireClient&) = delete;
  WireClient& operator=(const WireClient&) = delete;
  ~WireClient();

  bool Connect(const std::string& path);
  void Close();
  bool connected() const { return fd_ >= 0; }
  int fd() const { return fd_; }

  bool SendRaw(const engine::Bytes& bytes);
  bool SendMessage(uint32_t id, const std::string& channel, const engine::Bytes& payload);
  bool SendCall(uint32_t id, const std::string& channel, const std::string& method,
                channel::Value args = channel::Value());

  // The next frame, or nothing on time-out or when the host closed the connection (closed()).
  std::optional<engine::Frame> Receive(int timeout_ms, bool pump_main = false);
  // The reply to `id`, skipping other frames (events); nothing on time-out or close.
  std::optional<engine::Bytes> WaitReply(uint32_t id, int timeout_ms, bool pump_main = false);
  bool closed() const { return closed_; }

 private:
  int fd_ = -1;
  bool closed_ = false;
  engine::FrameReader reader_;
};

}  // namespace corvane::testing
