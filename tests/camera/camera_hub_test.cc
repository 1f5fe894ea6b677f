// The Flutter side of two AppleUsbCamera registrations (two windows) sharing one hub on the test
// backend, with time on a manual clock: argument checks, limits, owner isolation, session endings
// and frames (what the vivid driver under tests/device cannot be made to do on demand).
#include <gtest/gtest.h>

#include <atomic>
#include <thread>

#include "camera/apple_usb_camera.h"
#include "camera/test_capture_backend.h"
#include "channel/standard_codec.h"
#include "engine/loopback_engine.h"

namespace corvane::camera {
namespace {

using namespace std::chrono_literals;
using channel::MethodReply;
using channel::Value;
using channel::ValueMap;
using Frame = TestCaptureBackend::Frame;
using Pending = std::shared_ptr<std::vector<MethodReply>>;

std::string Token(int n) { return "6F9619FF-8B86-D011-B42D-00CF4FC964F" + std::to_string(n); }
const std::string kT1 = Token(1), kT2 = Token(2), kT3 = Token(3), kT4 = Token(4), kT5 = Token(5);

// What a call got back: `arrived` false when nothing came in time.
struct Answer {
  bool arrived = false;
  MethodReply reply;
  bool ok() const { return arrived && reply.kind == MethodReply::Kind::kSuccess; }
  std::string code() const {
    return arrived && reply.kind == MethodReply::Kind::kError ? reply.error.code : "";
  }
};

Value With(Value args, const char* key, Value value) {
  args.mutable_map_if()->Set(key, std::move(value));
  return args;
}
Value OpenArgs(const std::string& token, const std::string& device, int64_t timeout_ms = 1000,
               int64_t max_bytes = 16 << 20) {
  Value args{ValueMap{}};
  args = With(With(args, "token", Value(token)), "deviceId", Value(device));
  return With(With(args, "timeoutMs", Value::Integer(timeout_ms)), "maxFrameBytes",
              Value::Integer(max_bytes));
}
Value TokenArgs(const std::string& token) { return With(Value{ValueMap{}}, "token", Value(token)); }

// A small frame at `time_ns`; its pixels differ with the time.
Frame SmallFrame(int64_t time_ns, int width = 64, int height = 48) {
  return TestCaptureBackend::MakeFrame(time_ns, width, height, [time_ns](int x, int y) {
    return static_cast<uint32_t>(((x * 4) << 16) | ((y * 5) << 8) | (time_ns & 0xFF));
  });
}

// The frame's sequence number, or -1 when the answer is not a frame.
int64_t Sequence(const Answer& answer) {
  const ValueMap* map = answer.ok() ? answer.reply.value.map_if() : nullptr;
  const Value* sequence = map ? map->Find("sequence") : nullptr;
  return sequence && sequence->integer() ? *sequence->integer() : -1;
}

class CameraTest : public ::testing::Test {
 protected:
  void SetUp() override {
    // A camera leaving its channel would unregister a successor's handler: old ones go first.
    window1_.reset();
    window2_.reset();
    backend_ = std::make_shared<TestCaptureBackend>();
    backend_->SetDevices({{"cam-a", "A"}, {"cam-b", "B"}, {"cam-c", "C"}, {"cam-d", "D"}});
    AppleUsbHub::Options options;
    options.backend = [backend = backend_](dispatch::SerialQueue&) { return backend; };
    options.clock = &clock_;
    hub_ = AppleUsbHub::Create(std::move(options));
    window1_ = MakeCamera(engine1_);
    window2_ = MakeCamera(engine2_);
  }
  void TearDown() override {
    window1_.reset();
    window2_.reset();
    hub_.reset();
    EXPECT_EQ(engine1_.off_main_thread_deliveries() + engine2_.off_main_thread_deliveries(), 0);
  }

  std::unique_ptr<AppleUsbCamera> MakeCamera(engine::LoopbackEngine& engine) {
    AppleUsbCamera::Options options;
    options.hub = hub_;
    options.application_visible = [this] { return visible_; };
    return std::make_unique<AppleUsbCamera>(engine, std::move(options));
  }

  Pending Later(const std::string& method, Value args, engine::LoopbackEngine* engine = nullptr) {
    auto replies = std::make_shared<std::vector<MethodReply>>();
    (engine ? *engine : engine1_)
        .SendFromEngine(
            kMethodChannel, channel::EncodeMethodCall({method, std::move(args)}),
            [replies](channel::Bytes b) {
              replies->push_back(channel::DecodeEnvelope(b).value.value_or(MethodReply()));
            });
    return replies;
  }
  static Answer Await(const Pending& pending, std::chrono::milliseconds wait = 5s) {
    dispatch::RunMainUntil([&] { return !pending->empty(); }, wait);
    if (pending->empty()) return {};
    EXPECT_EQ(pending->size(), 1u) << "answered more than once";
    return {true, pending->front()};
  }
  Answer Call(const std::string& method, Value args = Value(),
              engine::LoopbackEngine* engine = nullptr) {
    return Await(Later(method, std::move(args), engine));
  }
  Answer Open(const std::string& token, const std::string& device, int64_t timeout_ms = 1000) {
    return Call("open", OpenArgs(token, device, timeout_ms));
  }
  Answer Read(const std::string& token) { return Call("read", TokenArgs(token)); }
  Answer Close(const std::string& token) { return Call("close", TokenArgs(token)); }
  // Starts a read and lets the hub arm it before frames arrive.
  Pending Arm(const std::string& token = kT1) {
    Pending read = Later("read", TokenArgs(token));
    Flush();
    return read;
  }
  // Everything queued on the hub so far has run, and its replies reached the main thread.
  void Flush() {
    bool done = false;
    hub_->queue().Async([&done] { dispatch::MainQueue().Async([&done] { done = true; }); });
    dispatch::RunMainUntil([&] { return done; }, 5s);
  }

  dispatch::ManualClock clock_;
  std::shared_ptr<TestCaptureBackend> backend_;
  engine::LoopbackEngine engine1_, engine2_;
  std::shared_ptr<AppleUsbHub> hub_;
  bool visible_ = true;
  std::unique_ptr<AppleUsbCamera> window1_, window2_;
};

TEST_F(CameraTest, SupportedEvenWhileHiddenAndOtherNamesAreNotImplemented) {
  visible_ = false;
  EXPECT_EQ(Call("supported").reply.value, Value(true));
  for (const char* method : {"Supported", "LIST", "Open", "frame", ""}) {
    EXPECT_EQ(Call(method, TokenArgs(kT1)).reply.kind, MethodReply::Kind::kNotImplemented)
        << method;
  }
}

TEST_F(CameraTest, ListFollowsAccessNeverPromptsAndKeepsTheFirstSixtyFour) {
  struct Case {
    Authorization access;
    size_t devices;
    const char* code;  // empty: lists
  } cases[] = {{Authorization::kNotDetermined, 70, ""},
               {Authorization::kAuthorized, 0, ""},
               {Authorization::kDenied, 1, "permission"},
               {Authorization::kRestricted, 1, "permission"}};
  visible_ = false;  // only "open" looks at visibility
  for (const Case& c : cases) {
    std::vector<CameraDevice> devices;
    channel::ValueList expected;
    for (size_t i = 0; i < c.devices; ++i) {
      devices.push_back({"id" + std::to_string(i), "n"});
      if (i >= 64) continue;
      ValueMap entry;
      entry.Append(Value("id"), Value(devices.back().id));
      entry.Append(Value("name"), Value("n"));
      expected.push_back(Value(std::move(entry)));
    }
    backend_->SetDevices(devices);
    backend_->SetAuthorization(c.access);
    Answer answer = Call("list");
    EXPECT_EQ(answer.code(), c.code);
    if (!*c.code) EXPECT_EQ(answer.reply.value, Value(expected));
  }
  EXPECT_EQ(backend_->access_requests(), 0);
}

TEST_F(CameraTest, OpenChecksArgumentsInOrder) {
  const Value good = OpenArgs(kT1, "cam-a");
  auto without = [&](const char* key) {
    Value args{ValueMap{}};
    for (const auto& e : *good.map_if()) {
      if (!(e.key == Value(key))) args.mutable_map_if()->Append(e.key, e.value);
    }
    return args;
  };
  std::string emoji_1024;  // 512 characters outside the basic plane: 1024 UTF-16 units
  for (int i = 0; i < 512; ++i) emoji_1024 += "\xF0\x9F\x9A\x82";
  struct Case {
    Value args;
    bool hidden;
    const char* code;
  } cases[] = {
      {Value("text"), false, "configuration"},
      {without("token"), false, "configuration"},
      {With(good, "token", Value::Integer(5)), false, "configuration"},
      {With(good, "token", Value("not-a-uuid")), true, "configuration"},
      {With(good, "deviceId", Value("")), true, "suspended"},  // hidden beats a bad device
      {without("deviceId"), false, "configuration"},
      {With(good, "deviceId", Value::Integer(1)), false, "configuration"},
      {With(good, "deviceId", Value("")), false, "configuration"},
      {With(good, "deviceId", Value(std::string(1025, 'x'))), false, "configuration"},
      {With(good, "deviceId", Value(emoji_1024 + "x")), false, "configuration"},
      {With(good, "deviceId", Value("cam\ta")), false, "configuration"},
      {With(good, "deviceId", Value("cam\x7F")), false, "configuration"},
      {With(With(good, "deviceId", Value("")), "timeoutMs", Value::Integer(5)), false,
       "configuration"},
      {With(good, "timeoutMs", Value::Integer(99)), false, "configuration"},
      {With(good, "timeoutMs", Value::Integer(60001)), false, "configuration"},
      {With(good, "timeoutMs", Value(500.0)), false, "configuration"},
      {without("timeoutMs"), false, "configuration"},
      {With(good, "maxFrameBytes", Value::Integer(63)), false, "configuration"},
      {With(good, "maxFrameBytes", Value::Integer(16777217)), false, "configuration"},
      {without("maxFrameBytes"), false, "configuration"},
      // Valid, but not connected: the arguments passed every check.
      {With(good, "deviceId", Value(emoji_1024)), false, "deviceMissing"},
      {OpenArgs(kT1, "cam-b", 100, 64), false, ""},
      {OpenArgs(kT1, "cam-c", 60000, 16 << 20), false, ""},
  };
  for (size_t i = 0; i < std::size(cases); ++i) {
    visible_ = !cases[i].hidden;
    Answer answer = Call("open", cases[i].args);
    EXPECT_EQ(answer.code(), cases[i].code) << i;
    EXPECT_TRUE(!answer.reply.error.message && answer.reply.error.details.is_null()) << i;
    Close(kT1);
  }
}

TEST_F(CameraTest, TokensDevicesAndTheFourSessionLimitAreBusyUntilClosed) {
  ASSERT_TRUE(Open(kT1, "cam-a").ok());
  EXPECT_EQ(Open(kT1, "cam-b").code(), "deviceBusy");  // token taken
  EXPECT_EQ(Open(kT2, "cam-a").code(), "deviceBusy");  // device taken
  // Another spelling of the same UUID is another token; the device is still taken.
  std::string lower = kT1;
  for (char& c : lower) c = static_cast<char>(std::tolower(c));
  EXPECT_EQ(Open(lower, "cam-a").code(), "deviceBusy");
  EXPECT_TRUE(Open(lower, "cam-b").ok());
  EXPECT_EQ(Open(kT3, "nowhere").code(), "deviceMissing");  // ended, still registered
  EXPECT_EQ(Open(kT3, "cam-c").code(), "deviceBusy");       // even an ended token
  ASSERT_TRUE(Open(kT4, "cam-c").ok());
  EXPECT_EQ(Open(kT5, "cam-d").code(), "deviceBusy");  // four registered, one ended
  EXPECT_TRUE(Close(kT3).ok());
  EXPECT_TRUE(Open(kT5, "cam-d").ok());
  EXPECT_TRUE(Close(kT1).ok());
  EXPECT_TRUE(backend_->WaitStreaming("cam-a", false));
  EXPECT_TRUE(Open(kT1, "cam-a").ok());
}

TEST_F(CameraTest, OpenEndsWithTheCodeOfTheStepThatFailed) {
  const std::pair<std::function<void()>, const char*> cases[] = {
      {[&] { backend_->SetAuthorization(Authorization::kDenied); }, "permission"},
      {[&] { backend_->SetAuthorization(Authorization::kRestricted); }, "permission"},
      {[&] {
         backend_->SetAuthorization(Authorization::kNotDetermined);
         backend_->SetAccessAnswer(false);
       },
       "permission"},
      {[&] { backend_->FailOpen("cam-a", "permission"); }, "permission"},
      {[&] { backend_->FailOpen("cam-a", "deviceBusy"); }, "deviceBusy"},
      {[&] { backend_->FailConfigure("cam-a", "unsupported"); }, "unsupported"},
      {[&] { backend_->FailConfigure("cam-a", "unavailable"); }, "unavailable"},
  };
  for (size_t i = 0; i < std::size(cases); ++i) {
    SetUp();  // a fresh backend and hub for each case
    cases[i].first();
    EXPECT_EQ(Open(kT1, "cam-a").code(), cases[i].second) << i;
    EXPECT_EQ(Read(kT1).code(), cases[i].second) << i << ": the session keeps its code";
    EXPECT_FALSE(backend_->streaming("cam-a")) << i;
    TearDown();
  }
  SetUp();
}

TEST_F(CameraTest, AccessIsAskedOnceAndOpenWaitsForTheAnswer) {
  backend_->SetAuthorization(Authorization::kNotDetermined);
  backend_->HoldAccessAnswers();
  Pending open = Later("open", OpenArgs(kT1, "cam-a"));
  dispatch::RunMainUntil([&] { return backend_->access_requests() == 1; }, 5s);
  EXPECT_FALSE(Await(open, 50ms).arrived);
  EXPECT_EQ(Read(kT1).code(), "deviceBusy") << "refused, and the open goes on";
  backend_->AnswerAccess(true);
  EXPECT_TRUE(Await(open).ok());
  EXPECT_TRUE(Open(kT2, "cam-b").ok());
  EXPECT_EQ(backend_->access_requests(), 1);
}

TEST_F(CameraTest, CloseBeforeTheOpenFinishedAnswersTheOpenWithEnded) {
  backend_->SetAuthorization(Authorization::kNotDetermined);
  backend_->HoldAccessAnswers();
  Pending open = Later("open", OpenArgs(kT1, "cam-a"));
  dispatch::RunMainUntil([&] { return backend_->access_requests() == 1; }, 5s);
  EXPECT_TRUE(Close(kT1).ok());
  EXPECT_EQ(Await(open).code(), "ended");
  backend_->AnswerAccess(true);  // too late: nothing starts
  Flush();
  EXPECT_FALSE(backend_->streaming("cam-a"));
}

TEST_F(CameraTest, WindowsOwnTheirSessionsAndUnknownTokensEndOrAreIgnored) {
  EXPECT_EQ(Close(kT1).reply.value, Value());
  EXPECT_EQ(Read(kT1).code(), "ended");
  EXPECT_EQ(Call("close", TokenArgs("nope")).code(), "configuration");
  EXPECT_EQ(Call("read", Value()).code(), "configuration");
  ASSERT_TRUE(Open(kT1, "cam-a").ok());
  EXPECT_EQ(Call("read", TokenArgs(kT1), &engine2_).code(), "ended");
  EXPECT_TRUE(Call("close", TokenArgs(kT1), &engine2_).ok());  // silently ignored
  EXPECT_EQ(Call("open", OpenArgs(kT1, "cam-b"), &engine2_).code(), "deviceBusy");
  EXPECT_EQ(Call("open", OpenArgs(kT2, "cam-a"), &engine2_).code(), "deviceBusy");
  Pending read = Arm();
  ASSERT_TRUE(backend_->Deliver("cam-a", SmallFrame(1)));
  EXPECT_EQ(Sequence(Await(read)), 1);
  window2_->Notify(AppleUsbCamera::Happening::kWindowClosed);
  Flush();
  EXPECT_TRUE(backend_->streaming("cam-a")) << "window 2 closing leaves window 1's session";
  window1_.reset();
  EXPECT_TRUE(backend_->WaitStreaming("cam-a", false));
  EXPECT_TRUE(Call("open", OpenArgs(kT1, "cam-a"), &engine2_).ok()) << "token and device free";
}

TEST_F(CameraTest, WindowAndApplicationHappeningsEndOrSuspendTheWindowsSessions) {
  using H = AppleUsbCamera::Happening;
  for (H happening : {H::kWindowMinimised, H::kApplicationHidden, H::kSystemWillSleep,
                      H::kApplicationWillTerminate, H::kWindowClosed}) {
    const char* code = happening == H::kWindowClosed ? "ended" : "suspended";
    ASSERT_TRUE(Open(kT1, "cam-a").ok());
    ASSERT_TRUE(Call("open", OpenArgs(kT2, "cam-b"), &engine2_).ok());
    Pending waiting = Arm();
    window1_->Notify(happening);
    EXPECT_EQ(Await(waiting).code(), code);
    EXPECT_EQ(Read(kT1).code(), code);
    EXPECT_FALSE(backend_->streaming("cam-a"));
    EXPECT_TRUE(backend_->streaming("cam-b")) << "the other window's session goes on";
    // A suspended token stays registered (busy) until closed; an ended one is gone.
    EXPECT_EQ(Open(kT1, "cam-c").code(), happening == H::kWindowClosed ? "" : "deviceBusy");
    Close(kT1);
    Call("close", TokenArgs(kT2), &engine2_);
  }
}

class FramesTest : public CameraTest {
 protected:
  void SetUp() override {
    CameraTest::SetUp();
    ASSERT_TRUE(Open(kT1, "cam-a", 100).ok());
  }
};

TEST_F(FramesTest, EachReadTakesOneStrictlyNewerFrame) {
  ASSERT_TRUE(backend_->Deliver("cam-a", SmallFrame(100)));  // nobody asked: not counted
  Pending read = Arm();
  Frame no_time = SmallFrame(0);
  no_time.time_ns.reset();
  for (const Frame& stale : {SmallFrame(100), SmallFrame(99), no_time}) {
    ASSERT_TRUE(backend_->Deliver("cam-a", stale));
    Flush();
    EXPECT_TRUE(read->empty());
  }
  ASSERT_TRUE(backend_->Deliver("cam-a", SmallFrame(101)));
  EXPECT_EQ(Sequence(Await(read)), 1);
  clock_.Advance(1000ms);  // an answered read's time-out never fires
  read = Arm();
  ASSERT_TRUE(backend_->Deliver("cam-a", SmallFrame(102)));
  EXPECT_EQ(Sequence(Await(read)), 2);
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
  clock_.Advance(1ms);                                     // the time-out queues behind it
  ASSERT_TRUE(backend_->Deliver("cam-a", SmallFrame(7)));  // and its frame after that
  release = true;
  EXPECT_EQ(Await(read).code(), "timeout");
  Flush();
  EXPECT_EQ(read->size(), 1u);
  EXPECT_EQ(Read(kT1).code(), "timeout") << "at once, with no time passing";
  EXPECT_FALSE(backend_->streaming("cam-a"));
  EXPECT_EQ(clock_.pending_timers(), 0u);
}

TEST_F(FramesTest, FramesOutsideTheLimitsAndStreamFailuresEndTheSession) {
  Frame truncated = SmallFrame(50), empty = SmallFrame(50), none = SmallFrame(50);
  truncated.rgb =
      std::make_shared<std::vector<uint8_t>>(truncated.rgb->begin(), truncated.rgb->end() - 1);
  empty.rgb = std::make_shared<std::vector<uint8_t>>();
  none.rgb.reset();
  auto deliver = [&](Frame f) { return [&, f] { return backend_->Deliver("cam-a", f); }; };
  auto fail = [&](const char* code) { return [&, code] { return backend_->Fail("cam-a", code); }; };
  const std::pair<std::function<bool()>, const char*> cases[] = {
      {deliver(SmallFrame(50, 1280, 720)), ""},
      {deliver(SmallFrame(50, 1280, 721)), "tooLarge"},
      {deliver(SmallFrame(50, 1281, 1)), "tooLarge"},
      {deliver(SmallFrame(50, 1, 1281)), "tooLarge"},
      {deliver(Frame{50, 0, 10, SmallFrame(50).rgb}), "tooLarge"},
      {deliver(Frame{50, 10, -1, SmallFrame(50).rgb}), "tooLarge"},
      {deliver(none), "unavailable"},
      {deliver(empty), "unavailable"},
      {deliver(truncated), "tooLarge"},  // a picture that will not convert
      {fail(kStreamDisconnected), kStreamDisconnected},
      {fail(kStreamFailed), kStreamFailed},
      {fail(kStreamInterrupted), kStreamInterrupted},
  };
  for (size_t i = 0; i < std::size(cases); ++i) {
    const char* code = cases[i].second;
    Pending read = Arm();
    ASSERT_TRUE(cases[i].first());
    Answer answer = Await(read);
    EXPECT_EQ(answer.code(), code) << i;
    if (*code) {
      EXPECT_EQ(Read(kT1).code(), code) << i << ": and every later read";
      EXPECT_FALSE(backend_->streaming("cam-a")) << i;
      EXPECT_FALSE(backend_->Fail("cam-a", kStreamFailed)) << i << ": the first reason stays";
    } else {
      EXPECT_EQ(Sequence(answer), 1);
    }
    Close(kT1);
    ASSERT_TRUE(Open(kT1, "cam-a", 100).ok());
  }
}

TEST_F(FramesTest, FramesRacingReadsServeEachReadOnceInOrder) {
  Close(kT1);
  ASSERT_TRUE(Open(kT1, "cam-a", 60000).ok());
  std::atomic<bool> stop{false};
  std::thread camera([&] {
    for (int64_t t = 1; !stop; ++t) backend_->Deliver("cam-a", SmallFrame(t, 16, 16));
  });
  for (int64_t n = 1; n <= 40; ++n) ASSERT_EQ(Sequence(Read(kT1)), n);
  stop = true;
  camera.join();
}

}  // namespace
}  // namespace corvane::camera
