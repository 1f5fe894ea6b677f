// Reads: fresh frames only, sequence numbers, time-outs, frame limits and the JPEG itself.
#include <gtest/gtest.h>

#include <atomic>
#include <thread>

#include "camera_fixture.h"
#include "jpeg_test_util.h"

namespace corvane::camera::testing {
namespace {

class FramesTest : public CameraTest {
 protected:
  void SetUp() override {
    CameraTest::SetUp();
    ASSERT_TRUE(Open(kToken1, "cam-a", 100).ok());
  }
  // Starts a read and lets the hub arm it before frames arrive.
  Pending Arm() {
    Pending read = ReadLater(kToken1);
    Flush();
    return read;
  }
};

TEST_F(FramesTest, EachReadTakesOneStrictlyNewerFrameNumberedInOrder) {
  ASSERT_TRUE(backend_->Deliver("cam-a", SmallFrame(100)));  // nobody asked: not counted
  Pending read = Arm();
  EXPECT_EQ(Read(kToken1).code(), "deviceBusy") << "a second read while one waits";
  Frame no_time = SmallFrame(0);
  no_time.time_ns.reset();
  for (const Frame& stale : {SmallFrame(100), SmallFrame(99), no_time}) {
    ASSERT_TRUE(backend_->Deliver("cam-a", stale));
    Flush();
    EXPECT_TRUE(read->empty());
  }
  ASSERT_TRUE(backend_->Deliver("cam-a", SmallFrame(101)));
  EXPECT_EQ(Sequence(Await(read)), 1) << "the waiting read still gets its frame";
  // An answered read's time-out never fires.
  clock_.Advance(1000ms);
  for (int64_t n = 2; n <= 3; ++n) {
    read = Arm();
    ASSERT_TRUE(backend_->Deliver("cam-a", SmallFrame(100 + n)));
    EXPECT_EQ(Sequence(Await(read)), n);
  }
}

TEST_F(FramesTest, TimeOutEndsTheSessionAndAFrameQueuedBehindItIsDropped) {
  Pending read = Arm();
  clock_.Advance(99ms);
  Flush();
  EXPECT_TRUE(read->empty());
  // The frame is taken on the capture side, but the time-out reaches the hub first.
  std::atomic<bool> release{false};
  hub_->queue().Async([&] {
    while (!release) std::this_thread::yield();
  });
  clock_.Advance(1ms);  // the time-out is queued behind the blocker
  ASSERT_TRUE(backend_->Deliver("cam-a", SmallFrame(7)));  // its frame is queued after it
  release = true;
  EXPECT_EQ(Await(read).code(), "timeout");
  Flush();
  EXPECT_EQ(read->size(), 1u);
  EXPECT_EQ(Read(kToken1).code(), "timeout") << "at once, with no time passing";
  EXPECT_FALSE(backend_->streaming("cam-a"));
  EXPECT_EQ(clock_.pending_timers(), 0u);
}

TEST_F(FramesTest, FramesOutsideTheLimitsEndTheSession) {
  auto truncated = [] {
    Frame f = SmallFrame(50);
    auto rgb = std::make_shared<std::vector<uint8_t>>(*f.rgb);
    rgb->resize(rgb->size() - 1);
    f.rgb = rgb;
    return f;
  };
  Frame empty = SmallFrame(50);
  empty.rgb = std::make_shared<std::vector<uint8_t>>();
  Frame none = SmallFrame(50);
  none.rgb.reset();
  struct Case {
    const char* name;
    Frame frame;
    const char* code;  // empty: delivered
  } cases[] = {
      {"1280 x 720", SmallFrame(50, 1280, 720), ""},
      {"1280 x 721", SmallFrame(50, 1280, 721), "tooLarge"},
      {"1281 x 1", SmallFrame(50, 1281, 1), "tooLarge"},
      {"1 x 1281", SmallFrame(50, 1, 1281), "tooLarge"},
      {"zero width", Frame{50, 0, 10, SmallFrame(50).rgb}, "tooLarge"},
      {"negative height", Frame{50, 10, -1, SmallFrame(50).rgb}, "tooLarge"},
      {"no picture", none, "unavailable"},
      {"zero bytes", empty, "unavailable"},
      {"truncated", truncated(), "tooLarge"},  // a picture that will not convert
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    Pending read = Arm();
    ASSERT_TRUE(backend_->Deliver("cam-a", c.frame));
    Answer answer = Await(read);
    EXPECT_EQ(answer.code(), c.code);
    if (*c.code) {
      EXPECT_EQ(Read(kToken1).code(), c.code) << "and every later read";
      EXPECT_FALSE(backend_->streaming("cam-a"));
    } else {
      EXPECT_EQ(Sequence(answer), 1);
    }
    Close(kToken1);
    ASSERT_TRUE(Open(kToken1, "cam-a", 100).ok());
  }
}

TEST_F(FramesTest, FailuresReportedByTheStreamEndAWaitingRead) {
  for (const char* code : {kStreamDisconnected, kStreamFailed, kStreamInterrupted}) {
    SCOPED_TRACE(code);
    Pending read = Arm();
    ASSERT_TRUE(backend_->Fail("cam-a", code));
    EXPECT_EQ(Await(read).code(), code);
    EXPECT_EQ(Read(kToken1).code(), code);
    // A second failure of an ended session changes nothing: the first reason stays.
    EXPECT_FALSE(backend_->Fail("cam-a", kStreamFailed));
    Close(kToken1);
    ASSERT_TRUE(Open(kToken1, "cam-a", 100).ok());
  }
}

TEST_F(FramesTest, FramesRacingReadsServeEachReadOnce) {
  // A camera thread delivers as fast as it can while the main thread reads: every read gets
  // exactly one frame, numbered in order.
  Close(kToken1);
  ASSERT_TRUE(Open(kToken1, "cam-a", 60000).ok());
  std::atomic<bool> stop{false};
  std::thread camera([&] {
    int64_t t = 0;
    while (!stop) backend_->Deliver("cam-a", SmallFrame(++t, 16, 16));
  });
  for (int64_t n = 1; n <= 40; ++n) {
    Answer answer = Read(kToken1);
    ASSERT_EQ(Sequence(answer), n) << answer.code();
  }
  stop = true;
  camera.join();
}

}  // namespace
}  // namespace corvane::camera::testing
