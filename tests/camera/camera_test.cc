// The camera service where no driver here can show it (tests/device runs vivid for real): the
// Flutter side of two windows sharing one hub on the test backend with time on a manual clock,
// the JPEG encoder's refusals, MJPEG buffers, the choice of filled buffer, and the portal.
#include <gio/gio.h>
#include <gtest/gtest.h>
#include <libv4l-plugin.h>
#include <libv4lconvert.h>

#include <atomic>
#include <cerrno>
#include <deque>
#include <thread>

#include "camera/apple_usb_camera.h"
#include "camera/camera_portal.h"
#include "camera/test_capture_backend.h"
#include "camera/v4l2_frames.h"
#include "channel/standard_codec.h"
#include "engine/loopback_engine.h"
#include "imaging/jpeg_encoder.h"
#include "jpeg_test_util.h"
#include "support/loopback_call.h"

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

// A reply in short: "ok" (null), "true", "#N" (frame N), "value", an error code, "none"
// (not implemented) or "" (no answer yet).
std::string Text(const Pending& replies) {
  if (replies->empty()) return "";
  EXPECT_EQ(replies->size(), 1u) << "answered more than once";
  const MethodReply& r = replies->front();
  if (r.kind == MethodReply::Kind::kError) {
    return r.error.message || !r.error.details.is_null() ? "extras" : r.error.code;
  }
  if (r.kind == MethodReply::Kind::kNotImplemented) return "none";
  if (r.value.is_null()) return "ok";
  if (r.value == Value(true)) return "true";
  const ValueMap* map = r.value.map_if();
  const Value* sequence = map ? map->Find("sequence") : nullptr;
  return sequence && sequence->integer() ? "#" + std::to_string(*sequence->integer()) : "value";
}

Value With(Value args, const char* key, Value value) {
  args.mutable_map_if()->Set(key, std::move(value));
  return args;
}
Value OpenArgs(const std::string& token, const std::string& device, int64_t timeout_ms = 1000,
               int64_t max_bytes = 16 << 20) {
  Value args = With(With(Value{ValueMap{}}, "token", Value(token)), "deviceId", Value(device));
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

class CameraTest : public ::testing::Test {
 protected:
  void SetUp() override {
    // A camera leaving its channel would unregister a successor's handler: old ones go first.
    window1_.reset();
    window2_.reset();
    backend_ = std::make_shared<TestCaptureBackend>();
    backend_->SetDevices({{"cam-a", "A"}, {"cam-b", "B"}, {"cam-c", "C"}, {"cam-d", "D"}});
    hub_ = AppleUsbHub::Create(
        {[backend = backend_](dispatch::SerialQueue&) { return backend; }, &clock_});
    window1_ = std::make_unique<AppleUsbCamera>(
        engine1_, AppleUsbCamera::Options{hub_, [this] { return visible_; }});
    window2_ = std::make_unique<AppleUsbCamera>(
        engine2_, AppleUsbCamera::Options{hub_, [this] { return visible_; }});
  }
  void TearDown() override {
    window1_.reset();
    window2_.reset();
    hub_.reset();
    EXPECT_EQ(engine1_.off_main_thread_deliveries() + engine2_.off_main_thread_deliveries(), 0);
  }
  Pending Later(const std::string& method, Value args, engine::LoopbackEngine* engine = nullptr) {
    return corvane::testing::StartCall(engine ? *engine : engine1_, kMethodChannel, method,
                                       std::move(args));
  }
  static std::string Await(const Pending& replies, std::chrono::milliseconds wait = 5s) {
    dispatch::RunMainUntil([&] { return !replies->empty(); }, wait);
    return Text(replies);
  }
  std::string Call(const std::string& method, Value args = Value(),
                   engine::LoopbackEngine* engine = nullptr) {
    return Await(Later(method, std::move(args), engine));
  }
  std::string Open(const std::string& token, const std::string& device, int64_t timeout = 1000) {
    return Call("open", OpenArgs(token, device, timeout));
  }
  std::string Read(const std::string& token) { return Call("read", TokenArgs(token)); }
  std::string Close(const std::string& token) { return Call("close", TokenArgs(token)); }
  // Starts a read and lets the hub arm it before frames arrive.
  Pending Arm() {
    Pending read = Later("read", TokenArgs(kT1));
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

TEST_F(CameraTest, SupportedEvenWhileHiddenOtherNamesNotImplementedAndListNeverPrompts) {
  visible_ = false;  // only "open" looks at visibility
  EXPECT_EQ(Call("supported"), "true");
  for (const char* method : {"Supported", "LIST", "Open", "frame", ""}) {
    EXPECT_EQ(Call(method, TokenArgs(kT1)), "none") << method;
  }
  backend_->SetAuthorization(Authorization::kNotDetermined);
  EXPECT_EQ(Call("list"), "value");
  backend_->SetAuthorization(Authorization::kDenied);
  EXPECT_EQ(Call("list"), "permission");
  EXPECT_EQ(backend_->access_requests(), 0);
}

TEST_F(CameraTest, OpenChecksArgumentsInOrder) {
  std::string emoji_1024;  // 512 characters outside the basic plane: 1024 UTF-16 units
  for (int i = 0; i < 512; ++i) emoji_1024 += "\xF0\x9F\x9A\x82";
  const std::pair<const char*, std::vector<Value>> bad[] = {
      {"token", {Value::Integer(5), Value("not-a-uuid")}},
      {"deviceId",
       {Value::Integer(1), Value(""), Value(std::string(1025, 'x')), Value(emoji_1024 + "x"),
        Value("cam\ta"), Value("cam\x7F")}},
      {"timeoutMs", {Value::Integer(99), Value::Integer(60001), Value(500.0), Value()}},
      {"maxFrameBytes", {Value::Integer(63), Value::Integer(16777217)}}};
  for (const auto& [key, values] : bad) {
    for (const Value& value : values) {
      EXPECT_EQ(Call("open", With(OpenArgs(kT1, "cam-a"), key, value)), "configuration") << key;
    }
  }
  EXPECT_EQ(Call("open", Value("text")), "configuration");
  visible_ = false;  // a bad token comes first, then the hidden window, then a bad device
  EXPECT_EQ(Call("open", OpenArgs("not-a-uuid", "")), "configuration");
  EXPECT_EQ(Call("open", OpenArgs(kT1, "")), "suspended");
  visible_ = true;
  // Valid, in every case: only the missing device is left to refuse.
  const std::vector<std::string> replies = {
      Open(kT1, emoji_1024), Close(kT1), Call("open", OpenArgs(kT1, "cam-b", 100, 64)), Close(kT1),
      Call("open", OpenArgs(kT1, "cam-c", 60000, 16 << 20))};
  EXPECT_EQ(replies, (std::vector<std::string>{"deviceMissing", "ok", "ok", "ok", "ok"}));
}

TEST_F(CameraTest, TokensDevicesAndTheFourSessionLimitAreBusyUntilClosed) {
  // Token or device taken is busy, but another spelling of the same UUID is another token.
  std::string lower = kT1;
  for (char& c : lower) c = static_cast<char>(std::tolower(c));
  // Then: kT3 ends on a missing device but stays registered, so four are registered, one ended.
  const std::vector<std::string> replies = {
      Open(kT1, "cam-a"),
      Open(kT1, "cam-b"),
      Open(kT2, "cam-a"),
      Open(lower, "cam-a"),
      Open(lower, "cam-b"),
      Open(kT3, "nowhere"),
      Open(kT3, "cam-c"),
      Open(kT4, "cam-c"),
      Open(kT5, "cam-d"),
      Close(kT3),
      Open(kT5, "cam-d"),
      Close(kT1),
      backend_->WaitStreaming("cam-a", false) ? Open(kT1, "cam-a") : "still streaming"};
  EXPECT_EQ(replies, (std::vector<std::string>{"ok", "deviceBusy", "deviceBusy", "deviceBusy", "ok",
                                               "deviceMissing", "deviceBusy", "ok", "deviceBusy",
                                               "ok", "ok", "ok", "ok"}));
}

TEST_F(CameraTest, OpenEndsWithTheCodeOfTheStepThatFailed) {
  const std::pair<std::function<void()>, const char*> cases[] = {
      {[&] { backend_->SetAuthorization(Authorization::kDenied); }, "permission"},
      {[&] { backend_->SetAuthorization(Authorization::kNotDetermined); }, "permission"},
      {[&] { backend_->FailOpen("cam-a", "permission"); }, "permission"},
      {[&] { backend_->FailConfigure("cam-a", "unsupported"); }, "unsupported"},
  };
  for (size_t i = 0; i < std::size(cases); ++i) {
    SetUp();                           // a fresh backend and hub for each case
    backend_->SetAccessAnswer(false);  // if asked
    cases[i].first();
    const std::string open = Open(kT1, "cam-a");
    EXPECT_EQ(open + " " + Read(kT1), std::string(cases[i].second) + " " + cases[i].second) << i;
    EXPECT_FALSE(backend_->streaming("cam-a")) << i;
    TearDown();
  }
  SetUp();
}

TEST_F(CameraTest, OpenWaitsForTheOneAccessAnswerAndCloseBeforeItEndsTheOpen) {
  for (bool close_first : {true, false}) {
    SetUp();
    backend_->SetAuthorization(Authorization::kNotDetermined);
    backend_->HoldAccessAnswers();
    Pending open = Later("open", OpenArgs(kT1, "cam-a"));
    dispatch::RunMainUntil([&] { return backend_->access_requests() == 1; }, 5s);
    EXPECT_EQ(Await(open, 50ms), "");
    EXPECT_EQ(close_first ? Close(kT1) : Read(kT1), close_first ? "ok" : "deviceBusy");
    backend_->AnswerAccess(true);
    EXPECT_EQ(Await(open), close_first ? "ended" : "ok");
    Flush();
    EXPECT_EQ(backend_->streaming("cam-a"), !close_first);
    EXPECT_EQ(Open(kT2, "cam-b"), "ok");
    EXPECT_EQ(backend_->access_requests(), 1);
    TearDown();
  }
  SetUp();
}

TEST_F(CameraTest, WindowsOwnTheirSessionsAndUnknownTokensEndOrAreIgnored) {
  EXPECT_EQ(Close(kT1), "ok");
  EXPECT_EQ(Read(kT1), "ended");
  EXPECT_EQ(Call("close", TokenArgs("nope")) + Call("read"), "configurationconfiguration");
  ASSERT_EQ(Open(kT1, "cam-a"), "ok");
  EXPECT_EQ(Call("read", TokenArgs(kT1), &engine2_), "ended");
  EXPECT_EQ(Call("close", TokenArgs(kT1), &engine2_), "ok");  // silently ignored
  Pending read = Arm();
  ASSERT_TRUE(backend_->Deliver("cam-a", SmallFrame(1)));
  EXPECT_EQ(Await(read), "#1");
  window1_.reset();
  EXPECT_TRUE(backend_->WaitStreaming("cam-a", false));
  EXPECT_EQ(Call("open", OpenArgs(kT1, "cam-a"), &engine2_), "ok") << "token and device free";
}

TEST_F(CameraTest, WindowAndApplicationHappeningsEndOrSuspendTheWindowsSessions) {
  using H = AppleUsbCamera::Happening;
  for (H happening : {H::kWindowMinimised, H::kApplicationHidden, H::kSystemWillSleep,
                      H::kApplicationWillTerminate, H::kWindowClosed}) {
    const std::string code = happening == H::kWindowClosed ? "ended" : "suspended";
    ASSERT_EQ(Open(kT1, "cam-a") + Call("open", OpenArgs(kT2, "cam-b"), &engine2_), "okok");
    Pending waiting = Arm();
    window1_->Notify(happening);
    EXPECT_EQ(Await(waiting), code);
    EXPECT_EQ(Read(kT1), code);
    EXPECT_FALSE(backend_->streaming("cam-a"));
    EXPECT_TRUE(backend_->streaming("cam-b")) << "the other window's session goes on";
    // A suspended token stays registered (busy) until closed; an ended one is gone.
    EXPECT_EQ(Open(kT1, "cam-c"), code == "ended" ? "ok" : "deviceBusy");
    Close(kT1);
    Call("close", TokenArgs(kT2), &engine2_);
  }
}

TEST_F(CameraTest, EachReadTakesOneStrictlyNewerFrame) {
  ASSERT_EQ(Open(kT1, "cam-a"), "ok");
  ASSERT_TRUE(backend_->Deliver("cam-a", SmallFrame(100)));  // nobody asked: not counted
  Pending read = Arm();
  Frame no_time = SmallFrame(0);
  no_time.time_ns.reset();
  for (const Frame& stale : {SmallFrame(100), SmallFrame(99), no_time}) {
    ASSERT_TRUE(backend_->Deliver("cam-a", stale));
    Flush();
    EXPECT_EQ(Text(read), "");
  }
  ASSERT_TRUE(backend_->Deliver("cam-a", SmallFrame(101)));
  EXPECT_EQ(Await(read), "#1");
  clock_.Advance(1000ms);  // an answered read's time-out never fires
  read = Arm();
  ASSERT_TRUE(backend_->Deliver("cam-a", SmallFrame(102)));
  EXPECT_EQ(Await(read), "#2");
}

TEST_F(CameraTest, TimeOutEndsTheSessionAndAFrameQueuedBehindItIsDropped) {
  ASSERT_EQ(Open(kT1, "cam-a", 100), "ok");
  Pending read = Arm();
  clock_.Advance(99ms);
  Flush();
  EXPECT_EQ(Text(read), "");
  // The frame is taken on the capture side, but the time-out reaches the hub first.
  std::atomic<bool> release{false};
  hub_->queue().Async([&] {
    while (!release) std::this_thread::yield();
  });
  clock_.Advance(1ms);                                     // the time-out queues behind it
  ASSERT_TRUE(backend_->Deliver("cam-a", SmallFrame(7)));  // and its frame after that
  release = true;
  EXPECT_EQ(Await(read), "timeout");
  Flush();
  EXPECT_EQ(Text(read), "timeout");
  EXPECT_EQ(Read(kT1), "timeout") << "at once, with no time passing";
  EXPECT_FALSE(backend_->streaming("cam-a"));
  EXPECT_EQ(clock_.pending_timers(), 0u);
}

TEST_F(CameraTest, FramesOutsideTheLimitsAndStreamFailuresEndTheSession) {
  Frame truncated = SmallFrame(50), empty = SmallFrame(50), none = SmallFrame(50);
  truncated.rgb =
      std::make_shared<std::vector<uint8_t>>(truncated.rgb->begin(), truncated.rgb->end() - 1);
  empty.rgb = std::make_shared<std::vector<uint8_t>>();
  none.rgb.reset();
  // A truncated picture will not convert: too large for what it claims.
  const std::pair<std::string, std::vector<Frame>> frames[] = {
      {"#1", {SmallFrame(50, 1280, 720)}},
      {"tooLarge",
       {SmallFrame(50, 1280, 721), SmallFrame(50, 1281, 1), SmallFrame(50, 1, 1281),
        Frame{50, 0, 10, truncated.rgb}, Frame{50, 10, -1, truncated.rgb}, truncated}},
      {"unavailable", {none, empty}}};
  std::vector<std::pair<std::function<bool()>, std::string>> cases;
  for (const auto& [reply, list] : frames) {
    for (const Frame& f : list)
      cases.emplace_back([&, f] { return backend_->Deliver("cam-a", f); }, reply);
  }
  for (const char* code : {kStreamDisconnected, kStreamFailed, kStreamInterrupted}) {
    cases.emplace_back([&, code] { return backend_->Fail("cam-a", code); }, code);
  }
  for (size_t i = 0; i < cases.size(); ++i) {
    const std::string& reply = cases[i].second;
    Close(kT1);
    ASSERT_EQ(Open(kT1, "cam-a", 100), "ok");
    Pending read = Arm();
    ASSERT_TRUE(cases[i].first());
    EXPECT_EQ(Await(read), reply) << i;
    if (reply == "#1") continue;
    EXPECT_EQ(Read(kT1), reply) << i << ": and every later read";
    EXPECT_FALSE(backend_->streaming("cam-a")) << i;
    EXPECT_FALSE(backend_->Fail("cam-a", kStreamFailed)) << i << ": the first reason stays";
  }
}

TEST_F(CameraTest, FramesRacingReadsServeEachReadOnceInOrder) {
  ASSERT_EQ(Open(kT1, "cam-a", 60000), "ok");
  std::atomic<bool> stop{false};
  std::thread camera([&] {
    for (int64_t t = 1; !stop; ++t) backend_->Deliver("cam-a", SmallFrame(t, 16, 16));
  });
  for (int64_t n = 1; n <= 40; ++n) ASSERT_EQ(Read(kT1), "#" + std::to_string(n));
  stop = true;
  camera.join();
}

// The encoder's own shapes are decoded below (MJPEG) and by the device suite (1280x720).
TEST(JpegEncoder, RefusesBadArguments) {
  const std::vector<uint8_t> grey(16 * 16 * 3, 0x80);
  const uint8_t* p = grey.data();
  const std::tuple<const uint8_t*, int, int, size_t, int> cases[] = {
      {nullptr, 16, 16, 48, 80}, {p, 0, 16, 48, 80},       {p, 16, 0, 48, 80},
      {p, -4, 16, 48, 80},       {p, 16, 16, 47, 80},      {p, 16, 16, 48, 0},
      {p, 16, 16, 48, 101},      {p, 70000, 1, 210000, 80}};
  for (auto [pixels, width, height, stride, quality] : cases) {
    EXPECT_TRUE(imaging::EncodeJpeg(pixels, width, height, stride, quality).empty()) << width;
  }
}

// A recorded capture node for libv4lconvert offering YUYV and MJPEG at 640x480 only.
int FakeIoctl(void*, int, unsigned long request, void* arg) {
  static const uint32_t kFormats[] = {V4L2_PIX_FMT_YUYV, V4L2_PIX_FMT_MJPEG};
  if (request == VIDIOC_QUERYCAP) {
    auto* caps = static_cast<v4l2_capability*>(arg);
    *caps = {};
    caps->device_caps = V4L2_CAP_VIDEO_CAPTURE | V4L2_CAP_STREAMING;
    caps->capabilities = caps->device_caps | V4L2_CAP_DEVICE_CAPS;
    return 0;
  }
  if (auto* desc = static_cast<v4l2_fmtdesc*>(arg); request == VIDIOC_ENUM_FMT && desc->index < 2) {
    desc->pixelformat = kFormats[desc->index];
    desc->flags = desc->index == 1 ? V4L2_FMT_FLAG_COMPRESSED : 0;
    return 0;
  }
  if (auto* size = static_cast<v4l2_frmsizeenum*>(arg);
      request == VIDIOC_ENUM_FRAMESIZES && size->index == 0) {
    size->type = V4L2_FRMSIZE_TYPE_DISCRETE;
    size->discrete = {640, 480};
    return 0;
  }
  if (request == VIDIOC_TRY_FMT) {
    auto& pix = static_cast<v4l2_format*>(arg)->fmt.pix;
    const bool mjpeg = pix.pixelformat == V4L2_PIX_FMT_MJPEG;
    const uint32_t format = mjpeg ? V4L2_PIX_FMT_MJPEG : V4L2_PIX_FMT_YUYV;
    pix = {640, 480, format, V4L2_FIELD_NONE, mjpeg ? 0u : 1280u, mjpeg ? 307200u : 614400u};
    return 0;
  }
  errno = EINVAL;
  return -1;
}

std::unique_ptr<V4l2Converter> RecordedConverter() {
  static libv4l_dev_ops ops = [] {
    libv4l_dev_ops o{};
    o.ioctl = FakeIoctl;
    return o;
  }();
  return std::make_unique<V4l2Converter>(v4lconvert_create_with_dev_ops(-1, nullptr, &ops));
}

TEST(V4l2Frames, OnlyOfferedSizesAndMjpegBuffersDecode) {
  auto converter = RecordedConverter();
  EXPECT_FALSE(converter->SourceFor(1280, 720)) << "the device has no 1280x720";
  EXPECT_FALSE(V4l2Converter(nullptr).SourceFor(640, 480));
  auto source = converter->SourceFor(640, 480);
  ASSERT_TRUE(source);
  EXPECT_EQ(std::pair(source->fmt.pix.width, source->fmt.pix.height), std::pair(640u, 480u));

  std::vector<uint8_t> rgb(640 * 480 * 3);  // a colour per row
  for (size_t i = 0; i < rgb.size(); ++i) rgb[i] = static_cast<uint8_t>(i / 1920 + i % 3 * 80);
  const std::vector<uint8_t> mjpeg = imaging::EncodeJpeg(rgb.data(), 640, 480, 640 * 3, 90);
  v4l2_format format{V4L2_BUF_TYPE_VIDEO_CAPTURE};
  format.fmt.pix = {640, 480, V4L2_PIX_FMT_MJPEG, V4L2_FIELD_NONE, 0, 640 * 480};
  converter->SetSource(format);
  std::vector<uint8_t> scratch;
  RgbImage image;
  V4l2Sample sample(*converter, mjpeg.data(), mjpeg.size(), 1);
  ASSERT_TRUE(sample.ReadRgb(scratch, &image));
  EXPECT_EQ(image.width, 640);
  EXPECT_LT(corvane::testing::MeanDifference(scratch, rgb), 3.0);
}

TEST(V4l2Frames, OnlyTheNewestFilledBufferIsUsedAndEveryOneGoesBack) {
  struct Case {
    std::vector<uint32_t> ready;  // indexes the device has filled, oldest first
    int end_errno;                // what the dequeue says after them
    uint32_t damaged;             // index flagged as damaged
    int used;                     // index handed on, or -1
    const char* failure;
  } cases[] = {
      {{0, 1, 2}, EAGAIN, 99, 2, ""},   {{}, EAGAIN, 99, -1, ""},
      {{0, 1}, EAGAIN, 1, -1, ""},      {{3}, ENODEV, 99, 3, kStreamDisconnected},
      {{}, EIO, 99, -1, kStreamFailed},
  };
  for (const Case& c : cases) {
    std::deque<uint32_t> ready(c.ready.begin(), c.ready.end());
    std::vector<uint32_t> requeued;
    bool interrupted = false;
    auto dequeue = [&](v4l2_buffer* b) {
      if (!interrupted || ready.empty()) {  // a signal first: retried
        errno = std::exchange(interrupted, true) ? c.end_errno : EINTR;
        return -1;
      }
      b->index = ready.front();
      b->flags = b->index == c.damaged ? V4L2_BUF_FLAG_ERROR : 0;
      return ready.pop_front(), 0;
    };
    BufferQueue queue{dequeue, [&](const v4l2_buffer& b) { requeued.push_back(b.index); }};
    int used = -1;
    const char* failure =
        TakeNewestBuffer(queue, [&](const v4l2_buffer& b) { used = static_cast<int>(b.index); });
    EXPECT_EQ(std::tuple(used, std::string(failure ? failure : ""), requeued),
              std::tuple(c.used, std::string(c.failure), c.ready));
  }
}

// Answers AccessCamera as xdg-desktop-portal does: the request's path first, the user's answer
// (`response`) later as that request's Response signal.
void OnAccessCamera(GDBusConnection* bus, const char* sender, const char*, const char*, const char*,
                    GVariant* parameters, GDBusMethodInvocation* invocation, gpointer response) {
  const char* token = "t";
  g_autoptr(GVariant) options = g_variant_get_child_value(parameters, 0);
  g_variant_lookup(options, "handle_token", "&s", &token);
  std::string who = sender + 1;
  for (char& c : who) c = c == '.' ? '_' : c;
  const std::string path = "/org/freedesktop/portal/desktop/request/" + who + "/" + token;
  g_dbus_method_invocation_return_value(invocation, g_variant_new("(o)", path.c_str()));
  g_dbus_connection_emit_signal(bus, sender, path.c_str(), "org.freedesktop.portal.Request",
                                "Response",
                                g_variant_new("(u@a{sv})", GPOINTER_TO_UINT(response),
                                              g_variant_new_array(G_VARIANT_TYPE("{sv}"), 0, 0)),
                                nullptr);
}

TEST(CameraPortal, TheUsersAnswerDecidesAndNoPortalLeavesItToTheDevices) {
  GTestDBus* session = g_test_dbus_new(G_TEST_DBUS_NONE);
  g_test_dbus_up(session);
  auto ask = [] {
    std::optional<bool> answer;
    RequestPortalCameraAccess([&](bool granted) { answer = granted; });
    dispatch::RunMainUntil([&] { return answer.has_value(); }, std::chrono::seconds(10));
    return answer;
  };
  g_autoptr(GDBusNodeInfo) node = g_dbus_node_info_new_for_xml(
      "<node><interface name='org.freedesktop.portal.Camera'><method name='AccessCamera'>"
      "<arg type='a{sv}' direction='in'/><arg type='o' direction='out'/>"
      "</method></interface></node>",
      nullptr);
  const GDBusInterfaceVTable vtable = {OnAccessCamera, nullptr, nullptr, {}};
  for (guint response : {0u, 1u, 2u}) {  // granted, cancelled, refused
    GDBusConnection* bus = g_dbus_connection_new_for_address_sync(
        g_test_dbus_get_bus_address(session),
        GDBusConnectionFlags(G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT |
                             G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION),
        nullptr, nullptr, nullptr);
    g_dbus_connection_register_object(bus, "/org/freedesktop/portal/desktop", node->interfaces[0],
                                      &vtable, GUINT_TO_POINTER(response), nullptr, nullptr);
    g_autoptr(GVariant) owned = g_dbus_connection_call_sync(
        bus, "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus", "RequestName",
        g_variant_new("(su)", "org.freedesktop.portal.Desktop", 0u), nullptr,
        G_DBUS_CALL_FLAGS_NONE, -1, nullptr, nullptr);
    EXPECT_EQ(ask(), std::optional<bool>(response == 0)) << response;
    g_dbus_connection_close_sync(bus, nullptr, nullptr);
    g_object_unref(bus);
  }
  EXPECT_EQ(ask(), std::optional<bool>(true)) << "no portal on the bus";
  g_test_dbus_down(session);
  g_object_unref(session);
}

}  // namespace
}  // namespace corvane::camera
