// Framing of platform messages on the engine socket. Plain C++: the host and corvanectl share it.
//
//   frame   = u32 body_length (little-endian), body
//   body    = u8 kind, u32 id, rest
//   message = kind 1: rest = u16 channel_length, channel (UTF-8), codec bytes
//   reply   = kind 2: rest = codec bytes of the reply to message `id` (empty: no handler)
//
// Either side may send messages. Id 0 marks a message that wants no reply (events).
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

namespace corvane::engine {

using Bytes = std::vector<uint8_t>;

// Big enough for a 16 MiB camera frame inside its reply envelope, with room to spare; a
// larger frame closes the connection that sent it.
inline constexpr size_t kMaxFrameBody = 32u << 20;
inline constexpr size_t kFrameHeaderSize = 4;
inline constexpr size_t kMaxChannelName = 1024;

enum class FrameKind : uint8_t { kMessage = 1, kReply = 2 };

struct Frame {
  FrameKind kind = FrameKind::kMessage;
  uint32_t id = 0;
  std::string channel;  // messages only
  Bytes payload;
};

Bytes EncodeMessageFrame(uint32_t id, const std::string& channel, std::span<const uint8_t> payload);
Bytes EncodeReplyFrame(uint32_t id, std::span<const uint8_t> payload);

// Parses one frame body (without its length prefix).
struct ParsedFrame {
  std::optional<Frame> frame;
  std::string error;
};
ParsedFrame ParseFrameBody(std::span<const uint8_t> body);

// Splits a byte stream into frames. Feed it what the socket gave; take frames until none is
// complete. After an error the stream cannot be resynchronised and must be closed.
class FrameReader {
 public:
  void Append(std::span<const uint8_t> data);
  // A complete frame, nothing (need more bytes), or an error (see error()).
  std::optional<Frame> Next();
  const std::string& error() const { return error_; }
  bool failed() const { return !error_.empty(); }
  size_t buffered() const { return buffer_.size() - consumed_; }

 private:
  Bytes buffer_;
  size_t consumed_ = 0;
  std::string error_;
};

}  // namespace corvane::engine
