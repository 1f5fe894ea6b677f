// The test plays the Flutter side of two AppleUsbCamera registrations (two windows) sharing one
// hub on the test backend, with time on a manual clock.
#pragma once

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "camera/apple_usb_camera.h"
#include "camera/test_capture_backend.h"
#include "channel/standard_codec.h"
#include "engine/loopback_engine.h"

namespace corvane::camera::testing {

using namespace std::chrono_literals;
using channel::MethodReply;
using channel::Value;
using channel::ValueMap;
using Frame = TestCaptureBackend::Frame;

inline constexpr const char* kToken1 = "6F9619FF-8B86-D011-B42D-00CF4FC964FF";
inline constexpr const char* kToken2 = "0b3e5a2c-1d4f-4e6a-9b8c-7d6e5f4a3b2c";
inline constexpr const char* kToken3 = "11111111-2222-3333-4444-555555555555";
inline constexpr const char* kToken4 = "aaaaaaaa-bbbb-cccc-dddd-eeeeeeeeeeee";
inline constexpr const char* kToken5 = "99999999-8888-7777-6666-555555555555";

// What a call got back: still nothing, a value, an error code, or not implemented.
struct Answer {
  bool arrived = false;
  MethodReply reply;

  bool ok() const { return arrived && reply.kind == MethodReply::Kind::kSuccess; }
  std::string code() const {
    return arrived && reply.kind == MethodReply::Kind::kError ? reply.error.code : "";
  }
};
using Pending = std::shared_ptr<std::vector<MethodReply>>;

class CameraTest : public ::testing::Test {
 protected:
  void SetUp() override {
    // A camera leaving its channel would unregister a successor's handler: old ones go first.
    window1_.reset();
    window2_.reset();
    backend_ = std::make_shared<TestCaptureBackend>();
    backend_->SetDevices({{"cam-a", "Camera A"},
                          {"cam-b", "Camera B"},
                          {"cam-c", "Camera C"},
                          {"cam-d", "Camera D"},
                          {"cam-e", "Camera E"}});
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
    EXPECT_EQ(engine1_.off_main_thread_deliveries(), 0);
    EXPECT_EQ(engine2_.off_main_thread_deliveries(), 0);
  }

  std::unique_ptr<AppleUsbCamera> MakeCamera(engine::LoopbackEngine& engine) {
    AppleUsbCamera::Options options;
    options.hub = hub_;
    options.application_visible = [this] { return visible_; };
    return std::make_unique<AppleUsbCamera>(engine, std::move(options));
  }

  Pending CallLater(engine::LoopbackEngine& engine, const std::string& method, Value args) {
    auto replies = std::make_shared<std::vector<MethodReply>>();
    engine.SendFromEngine(kMethodChannel, channel::EncodeMethodCall({method, std::move(args)}),
                          [replies](channel::Bytes b) {
                            auto decoded = channel::DecodeEnvelope(b);
                            replies->push_back(decoded.value.value_or(MethodReply()));
                          });
    return replies;
  }
  Pending CallLater(const std::string& method, Value args = Value()) {
    return CallLater(engine1_, method, std::move(args));
  }

  // The answer once it arrived; `arrived` false when none came within `wait`.
  static Answer Await(const Pending& pending, std::chrono::milliseconds wait = 5s) {
    dispatch::RunMainUntil([&] { return !pending->empty(); }, wait);
    Answer answer;
    if (pending->empty()) return answer;
    EXPECT_EQ(pending->size(), 1u) << "answered more than once";
    answer.arrived = true;
    answer.reply = pending->front();
    return answer;
  }
  Answer Call(engine::LoopbackEngine& engine, const std::string& method, Value args = Value()) {
    return Await(CallLater(engine, method, std::move(args)));
  }
  Answer Call(const std::string& method, Value args = Value()) {
    return Call(engine1_, method, std::move(args));
  }

  // Everything queued on the hub so far has run, and its replies reached the main thread.
  void Flush() {
    bool done = false;
    hub_->queue().Async([&done] { dispatch::MainQueue().Async([&done] { done = true; }); });
    dispatch::RunMainUntil([&] { return done; }, 5s);
  }

  static Value TokenArgs(const std::string& token) {
    ValueMap m;
    m.Append(Value("token"), Value(token));
    return Value(std::move(m));
  }

  static Value OpenArgs(const std::string& token, const std::string& device,
                        int64_t timeout_ms = 1000, int64_t max_bytes = 16 * 1024 * 1024) {
    Value args = TokenArgs(token);
    args.mutable_map_if()->Set("deviceId", Value(device));
    args.mutable_map_if()->Set("timeoutMs", Value::Integer(timeout_ms));
    args.mutable_map_if()->Set("maxFrameBytes", Value::Integer(max_bytes));
    return args;
  }
  Answer Open(const std::string& token, const std::string& device, int64_t timeout_ms = 1000,
              int64_t max_bytes = 16 * 1024 * 1024) {
    return Call("open", OpenArgs(token, device, timeout_ms, max_bytes));
  }
  Pending ReadLater(const std::string& token) { return CallLater("read", TokenArgs(token)); }
  Answer Read(const std::string& token) { return Call("read", TokenArgs(token)); }
  Answer Close(const std::string& token) { return Call("close", TokenArgs(token)); }

  // A small frame at `time_ns`; its pixels differ with the time.
  static Frame SmallFrame(int64_t time_ns, int width = 64, int height = 48) {
    return TestCaptureBackend::MakeFrame(time_ns, width, height, [time_ns](int x, int y) {
      return static_cast<uint32_t>(((x * 4) << 16) | ((y * 5) << 8) | (time_ns & 0xFF));
    });
  }

  // The frame's sequence number, or -1 when the answer is not a frame.
  static int64_t Sequence(const Answer& answer) {
    if (!answer.ok() || !answer.reply.value.map_if()) return -1;
    const Value* sequence = answer.reply.value.map_if()->Find("sequence");
    return sequence && sequence->integer() ? *sequence->integer() : -1;
  }
  dispatch::ManualClock clock_;
  std::shared_ptr<TestCaptureBackend> backend_;
  engine::LoopbackEngine engine1_;
  engine::LoopbackEngine engine2_;
  std::shared_ptr<AppleUsbHub> hub_;
  bool visible_ = true;
  std::unique_ptr<AppleUsbCamera> window1_;
  std::unique_ptr<AppleUsbCamera> window2_;
};

}  // namespace corvane::camera::testing
