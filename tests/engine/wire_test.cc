#include "engine/wire.h"

#include <gtest/gtest.h>

#include <tuple>

namespace corvane::engine {
namespace {

TEST(Wire, FramesSplitAtAnyByteBoundary) {
  Bytes stream;
  const Bytes a = EncodeMessageFrame(7, "corvane/udp", Bytes{1, 2, 3});
  const Bytes b = EncodeReplyFrame(9, Bytes{});
  stream.insert(stream.end(), a.begin(), a.end());
  stream.insert(stream.end(), b.begin(), b.end());
  // Layout: length, kind, id, channel length, channel, payload.
  EXPECT_EQ(Bytes(a.begin(), a.begin() + 10), (Bytes{21, 0, 0, 0, 1, 7, 0, 0, 0, 11}));

  for (size_t step = 1; step <= stream.size(); ++step) {
    FrameReader reader;
    std::vector<Frame> frames;
    for (size_t at = 0; at < stream.size(); at += step) {
      reader.Append(
          std::span<const uint8_t>(stream.data() + at, std::min(step, stream.size() - at)));
      while (auto f = reader.Next()) frames.push_back(*f);
    }
    ASSERT_FALSE(reader.failed());
    std::vector<std::tuple<FrameKind, uint32_t, std::string, Bytes>> got;
    for (const Frame& f : frames) got.emplace_back(f.kind, f.id, f.channel, f.payload);
    EXPECT_EQ(got, (decltype(got){{FrameKind::kMessage, 7, "corvane/udp", {1, 2, 3}},
                                  {FrameKind::kReply, 9, "", {}}}))
        << "step " << step;
    EXPECT_EQ(reader.buffered(), 0u);
  }
}

TEST(Wire, BadFramesFailTheStream) {
  const std::vector<std::pair<const char*, Bytes>> cases = {
      {"over the size limit", {0x01, 0x00, 0x00, 0x02}},
      {"shorter than its header", {0x02, 0, 0, 0, 1, 0}},
      {"unknown kind", {0x05, 0, 0, 0, 9, 0, 0, 0, 0}},
      {"empty channel name", {0x07, 0, 0, 0, 1, 1, 0, 0, 0, 0, 0}},
      {"channel name past the frame", {0x08, 0, 0, 0, 1, 1, 0, 0, 0, 5, 0, 'a'}},
  };
  for (const auto& [name, bytes] : cases) {
    SCOPED_TRACE(name);
    FrameReader reader;
    reader.Append(bytes);
    EXPECT_FALSE(reader.Next());
    EXPECT_TRUE(reader.failed());
    EXPECT_FALSE(reader.Next()) << "a failed stream stays failed";
  }
}

}  // namespace
}  // namespace corvane::engine
