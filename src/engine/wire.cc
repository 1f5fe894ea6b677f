#include "engine/wire.h"

#include <cstring>

namespace corvane::engine {

namespace {

void PutU32(Bytes& out, uint32_t v) {
  for (int i = 0; i < 4; ++i) out.push_back(static_cast<uint8_t>(v >> (8 * i)));
}

uint32_t GetU32(const uint8_t* p) {
  return uint32_t(p[0]) | uint32_t(p[1]) << 8 | uint32_t(p[2]) << 16 | uint32_t(p[3]) << 24;
}

}  // namespace

Bytes EncodeMessageFrame(uint32_t id, const std::string& channel,
                         std::span<const uint8_t> payload) {
  const size_t body = 1 + 4 + 2 + channel.size() + payload.size();
  Bytes out;
  out.reserve(kFrameHeaderSize + body);
  PutU32(out, static_cast<uint32_t>(body));
  out.push_back(static_cast<uint8_t>(FrameKind::kMessage));
  PutU32(out, id);
  out.push_back(static_cast<uint8_t>(channel.size()));
  out.push_back(static_cast<uint8_t>(channel.size() >> 8));
  out.insert(out.end(), channel.begin(), channel.end());
  out.insert(out.end(), payload.begin(), payload.end());
  return out;
}

Bytes EncodeReplyFrame(uint32_t id, std::span<const uint8_t> payload) {
  const size_t body = 1 + 4 + payload.size();
  Bytes out;
  out.reserve(kFrameHeaderSize + body);
  PutU32(out, static_cast<uint32_t>(body));
  out.push_back(static_cast<uint8_t>(FrameKind::kReply));
  PutU32(out, id);
  out.insert(out.end(), payload.begin(), payload.end());
  return out;
}

ParsedFrame ParseFrameBody(std::span<const uint8_t> body) {
  ParsedFrame parsed;
  if (body.size() < 5) {
    parsed.error = "frame shorter than its header";
    return parsed;
  }
  Frame frame;
  const uint8_t kind = body[0];
  frame.id = GetU32(body.data() + 1);
  size_t at = 5;
  if (kind == static_cast<uint8_t>(FrameKind::kMessage)) {
    frame.kind = FrameKind::kMessage;
    if (body.size() < at + 2) {
      parsed.error = "message frame without channel name";
      return parsed;
    }
    const size_t name_length = size_t(body[at]) | size_t(body[at + 1]) << 8;
    at += 2;
    if (name_length == 0 || name_length > kMaxChannelName) {
      parsed.error = "channel name empty or too long";
      return parsed;
    }
    if (body.size() - at < name_length) {
      parsed.error = "channel name longer than the frame";
      return parsed;
    }
    frame.channel.assign(reinterpret_cast<const char*>(body.data() + at), name_length);
    at += name_length;
  } else if (kind == static_cast<uint8_t>(FrameKind::kReply)) {
    frame.kind = FrameKind::kReply;
  } else {
    parsed.error = "unknown frame kind " + std::to_string(kind);
    return parsed;
  }
  frame.payload.assign(body.begin() + static_cast<std::ptrdiff_t>(at), body.end());
  parsed.frame = std::move(frame);
  return parsed;
}

void FrameReader::Append(std::span<const uint8_t> data) {
  // Drop what has been consumed before growing, so a long-lived connection's buffer stays at
  // the size of its largest frame.
  if (consumed_ > 0 && consumed_ >= buffer_.size() / 2) {
    buffer_.erase(buffer_.begin(), buffer_.begin() + static_cast<std::ptrdiff_t>(consumed_));
    consumed_ = 0;
  }
  buffer_.insert(buffer_.end(), data.begin(), data.end());
}

std::optional<Frame> FrameReader::Next() {
  if (failed()) return std::nullopt;
  const size_t available = buffer_.size() - consumed_;
  if (available < kFrameHeaderSize) return std::nullopt;
  const uint32_t body_length = GetU32(buffer_.data() + consumed_);
  if (body_length > kMaxFrameBody) {
    error_ = "frame of " + std::to_string(body_length) + " bytes exceeds the limit of " +
             std::to_string(kMaxFrameBody);
    return std::nullopt;
  }
  if (available - kFrameHeaderSize < body_length) return std::nullopt;
  ParsedFrame parsed = ParseFrameBody(
      std::span<const uint8_t>(buffer_.data() + consumed_ + kFrameHeaderSize, body_length));
  if (!parsed.frame) {
    error_ = parsed.error;
    return std::nullopt;
  }
  consumed_ += kFrameHeaderSize + body_length;
  if (consumed_ == buffer_.size()) {
    buffer_.clear();
    consumed_ = 0;
  }
  return parsed.frame;
}

}  // namespace corvane::engine
