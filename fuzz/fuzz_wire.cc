// Wire framing: a FrameReader fed arbitrary bytes in arbitrary pieces returns exactly the frames
// the stream holds, each of which re-encodes to the very bytes it was read from (the format has
// no slack), and fails only on a frame that really is malformed.
//
// Input: byte 0 picks the largest piece size, byte 1 seeds the piece sizes, the rest is the
// stream. Taking the split from the input lets libFuzzer explore it like any other byte.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>

#include "engine/wire.h"
#include "fuzz_check.h"

namespace {

using namespace corvane::engine;

uint32_t GetU32(const uint8_t* p) {
  return uint32_t(p[0]) | uint32_t(p[1]) << 8 | uint32_t(p[2]) << 16 | uint32_t(p[3]) << 24;
}

bool SameFrame(const Frame& a, const Frame& b) {
  return a.kind == b.kind && a.id == b.id && a.channel == b.channel && a.payload == b.payload;
}

Bytes Encode(const Frame& frame) {
  if (frame.kind == FrameKind::kMessage) {
    FUZZ_CHECK(!frame.channel.empty() && frame.channel.size() <= kMaxChannelName);
    return EncodeMessageFrame(frame.id, frame.channel, frame.payload);
  }
  FUZZ_CHECK(frame.channel.empty());
  return EncodeReplyFrame(frame.id, frame.payload);
}

// A re-encoded frame parses back to itself, through the reader and directly.
void CheckReencoding(const Frame& frame, const Bytes& encoded) {
  FUZZ_CHECK(encoded.size() >= kFrameHeaderSize);
  FUZZ_CHECK(GetU32(encoded.data()) == encoded.size() - kFrameHeaderSize);
  FrameReader reader;
  reader.Append(encoded);
  std::optional<Frame> again = reader.Next();
  FUZZ_CHECK(again && SameFrame(*again, frame));
  FUZZ_CHECK(!reader.failed() && reader.buffered() == 0 && !reader.Next());
  ParsedFrame direct = ParseFrameBody(std::span(encoded).subspan(kFrameHeaderSize));
  FUZZ_CHECK(direct.frame && SameFrame(*direct.frame, frame));
}

void ParseDirectly(std::span<const uint8_t> body) {
  ParsedFrame parsed = ParseFrameBody(body);
  if (!parsed.frame) {
    FUZZ_CHECK(!parsed.error.empty());
    return;
  }
  const Bytes encoded = Encode(*parsed.frame);
  FUZZ_CHECK(encoded.size() - kFrameHeaderSize == body.size());
  FUZZ_CHECK(std::equal(body.begin(), body.end(), encoded.begin() + kFrameHeaderSize));
  CheckReencoding(*parsed.frame, encoded);
}

void ReadInPieces(std::span<const uint8_t> stream, size_t max_piece, uint32_t seed) {
  FrameReader reader;
  size_t appended = 0;
  size_t consumed = 0;
  uint32_t state = seed | 1;
  while (appended < stream.size() && !reader.failed()) {
    state ^= state << 13;
    state ^= state >> 17;
    state ^= state << 5;
    const size_t piece = std::min<size_t>(1 + state % max_piece, stream.size() - appended);
    reader.Append(stream.subspan(appended, piece));
    appended += piece;
    while (std::optional<Frame> frame = reader.Next()) {
      const Bytes encoded = Encode(*frame);
      FUZZ_CHECK(encoded.size() <= appended - consumed);
      FUZZ_CHECK(std::equal(encoded.begin(), encoded.end(), stream.begin() + consumed));
      CheckReencoding(*frame, encoded);
      consumed += encoded.size();
    }
    if (!reader.failed()) FUZZ_CHECK(consumed + reader.buffered() == appended);
  }
  const std::span<const uint8_t> rest = stream.subspan(consumed);
  if (rest.size() < kFrameHeaderSize) {
    FUZZ_CHECK(!reader.failed());
    return;
  }
  const uint32_t length = GetU32(rest.data());
  if (reader.failed()) {
    // Only a frame that is too long or does not parse may stop the reader.
    FUZZ_CHECK(!reader.error().empty());
    FUZZ_CHECK(length > kMaxFrameBody ||
               (rest.size() - kFrameHeaderSize >= length &&
                !ParseFrameBody(rest.subspan(kFrameHeaderSize, length)).frame));
  } else {
    // What is left is an incomplete frame, not one the reader overlooked.
    FUZZ_CHECK(rest.size() - kFrameHeaderSize < length);
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 2) return 0;
  const size_t max_piece = size_t{1} << (data[0] % 13);
  const std::span<const uint8_t> stream(data + 2, size - 2);
  ParseDirectly(stream);
  ReadInPieces(stream, max_piece, data[1] * 0x9e3779b9u);
  return 0;
}
