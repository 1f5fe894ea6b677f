// Writes the checked-in seed corpora from real encodings, so the fuzzers start from inputs
// shaped like what the host actually sees. Usage: make_fuzz_corpus <fuzz/corpus>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <string>

#include "channel/standard_codec.h"
#include "engine/wire.h"

namespace {

using namespace corvane::channel;
using corvane::engine::EncodeMessageFrame;
using corvane::engine::EncodeReplyFrame;

void Write(const std::filesystem::path& dir, const std::string& name, const Bytes& bytes) {
  std::filesystem::create_directories(dir);
  std::ofstream out(dir / name, std::ios::binary);
  out.write(reinterpret_cast<const char*>(bytes.data()),
            static_cast<std::streamsize>(bytes.size()));
}

// The wire target reads two bytes of piece-size choice before the stream.
Bytes WithSplit(uint8_t max_piece_log2, uint8_t seed, const Bytes& stream) {
  Bytes out{max_piece_log2, seed};
  out.insert(out.end(), stream.begin(), stream.end());
  return out;
}

Bytes Payload(size_t n) {
  Bytes b(n);
  for (size_t i = 0; i < n; ++i) b[i] = static_cast<uint8_t>(i * 37 + 11);
  return b;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) {
    std::fprintf(stderr, "usage: %s CORPUS_DIR\n", argv[0]);
    return 2;
  }
  const std::filesystem::path root = argv[1];
  const auto codec = root / "fuzz_codec";
  const auto wire = root / "fuzz_wire";

  const MethodCall send{"send", Value(ValueMap{
                                    {Value("sessionId"), Value("station-1")},
                                    {Value("payload"), Value(Payload(64))},
                                    {Value("host"), Value("192.168.0.111")},
                                    {Value("port"), Value::Integer(21105)},
                                })};
  const Bytes send_call = EncodeMethodCall(send);
  Write(codec, "send_call", send_call);

  MethodError error;
  error.code = "send_failed";
  error.message = "No route to host";
  error.details =
      Value(ValueMap{{Value("errno"), Value::Integer(113)}, {Value("retry"), Value(false)}});
  error.stacktrace = "#0 UdpBridge::Send\n#1 Session::Write";
  const Bytes error_envelope = EncodeErrorEnvelope(error);
  Write(codec, "error_envelope", error_envelope);

  // Typed lists at odd offsets, so every one of them carries alignment padding; one is empty.
  const Bytes typed_lists = EncodeSuccessEnvelope(Value(ValueList{
      Value("x"),
      Value(Int32List{1, -2, 3}),
      Value(Float64List{1.5, -0.0}),
      Value(Int64List{}),
      Value(Float32List{0.25f}),
      Value(Int64List{int64_t{1} << 40}),
      Value(Bytes{1, 2, 3}),
  }));
  Write(codec, "typed_lists", typed_lists);

  const Bytes mixed = EncodeMessage(Value(ValueMap{
      {Value("name"), Value("Xbox Wireless Controller")},
      {Value("battery"), Value(0.75)},
      {Value("big"), Value::Integer(int64_t{1} << 40)},
      {Value("attached"), Value(true)},
      {Value("serial"), Value()},
      {Value::Integer(7), Value(ValueList{Value("a"), Value(ValueList{})})},
  }));
  Write(codec, "mixed_map", mixed);

  const Bytes call_frame = EncodeMessageFrame(7, "corvane/udp", send_call);
  Write(wire, "message_frame", WithSplit(12, 0, call_frame));
  Write(wire, "reply_frame", WithSplit(3, 5, EncodeReplyFrame(7, error_envelope)));
  Bytes pair = EncodeMessageFrame(0, "corvane/udp/events", mixed);
  const Bytes empty_reply = EncodeReplyFrame(9, Bytes());
  pair.insert(pair.end(), empty_reply.begin(), empty_reply.end());
  Write(wire, "event_then_empty_reply", WithSplit(0, 1, pair));
  Write(wire, "typed_lists_reply", WithSplit(5, 200, EncodeReplyFrame(1, typed_lists)));
  return 0;
}
