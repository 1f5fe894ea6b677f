// A blocking client of the engine socket; pump_main turns the main context while it waits.
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
  bool SendMessage(uint32_t id, const std::string& channel, const engine::Bytes& payload) {
    return SendRaw(engine::EncodeMessageFrame(id, channel, payload));
  }
  bool SendCall(uint32_t id, const std::string& channel, const std::string& method,
                channel::Value args = channel::Value()) {
    return SendMessage(id, channel, channel::EncodeMethodCall({method, std::move(args)}));
  }

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
