// Channel calls, argument checks in their order, limits, owner isolation and session endings.
#include <gtest/gtest.h>

#include "camera_fixture.h"

namespace corvane::camera::testing {
namespace {

Value With(Value args, const char* key, Value value) {
  args.mutable_map_if()->Set(key, std::move(value));
  return args;
}
Value Without(const Value& args, const char* key) {
  ValueMap m;
  for (const auto& e : *args.map_if()) {
    if (!(e.key == Value(key))) m.Append(e.key, e.value);
  }
  return Value(std::move(m));
}

TEST_F(CameraTest, SupportedAnswersTrueEvenWhileHiddenAndOtherNamesAreNotImplemented) {
  visible_ = false;
  Answer supported = Call("supported");
  ASSERT_TRUE(supported.ok());
  EXPECT_EQ(supported.reply.value, Value(true));
  for (const char* method : {"Supported", "LIST", "Open", "frame", ""}) {
    Answer answer = Call(method, TokenArgs(kToken1));
    ASSERT_TRUE(answer.arrived) << method;
    EXPECT_EQ(answer.reply.kind, MethodReply::Kind::kNotImplemented) << method;
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
    for (size_t i = 0; i < c.devices; ++i) devices.push_back({"id" + std::to_string(i), "n"});
    backend_->SetDevices(devices);
    backend_->SetAuthorization(c.access);
    Answer answer = Call("list");
    EXPECT_EQ(answer.code(), c.code);
    if (*c.code) continue;
    const auto* list = answer.reply.value.list_if();
    ASSERT_NE(list, nullptr);
    ASSERT_EQ(list->size(), std::min<size_t>(c.devices, 64));
    if (list->empty()) continue;
    ValueMap last;
    last.Append(Value("id"), Value("id63"));
    last.Append(Value("name"), Value("n"));
    EXPECT_EQ(list->back(), Value(last)) << "the first 64, in order";
  }
  EXPECT_EQ(backend_->access_requests(), 0);
}

TEST_F(CameraTest, OpenChecksArgumentsInOrder) {
  const Value good = OpenArgs(kToken1, "cam-a");
  const std::string tab_id = "cam\ta";
  const std::string long_id(1025, 'x');
  std::string emoji_1024;  // 512 characters outside the basic plane: 1024 UTF-16 units
  for (int i = 0; i < 512; ++i) emoji_1024 += "\xF0\x9F\x9A\x82";
  struct Case {
    const char* name;
    Value args;
    bool hidden;
    const char* code;
  } cases[] = {
      {"no map", Value("text"), false, "configuration"},
      {"no token", Without(good, "token"), false, "configuration"},
      {"token not text", With(good, "token", Value::Integer(5)), false, "configuration"},
      {"token not a UUID, hidden", With(good, "token", Value("not-a-uuid")), true, "configuration"},
      {"hidden beats bad device", With(good, "deviceId", Value("")), true, "suspended"},
      {"no device", Without(good, "deviceId"), false, "configuration"},
      {"device not text", With(good, "deviceId", Value::Integer(1)), false, "configuration"},
      {"empty device", With(good, "deviceId", Value("")), false, "configuration"},
      {"device of 1025 units", With(good, "deviceId", Value(long_id)), false, "configuration"},
      {"device of 1025 units, surrogates", With(good, "deviceId", Value(emoji_1024 + "x")), false,
       "configuration"},
      {"device with a tab", With(good, "deviceId", Value(tab_id)), false, "configuration"},
      {"device with DEL", With(good, "deviceId", Value("cam\x7F")), false, "configuration"},
      {"device checked before time-out",
       With(With(good, "deviceId", Value("")), "timeoutMs", Value::Integer(5)), false,
       "configuration"},
      {"time-out 99", With(good, "timeoutMs", Value::Integer(99)), false, "configuration"},
      {"time-out 60001", With(good, "timeoutMs", Value::Integer(60001)), false, "configuration"},
      {"time-out as double", With(good, "timeoutMs", Value(500.0)), false, "configuration"},
      {"no time-out", Without(good, "timeoutMs"), false, "configuration"},
      {"max bytes 63", With(good, "maxFrameBytes", Value::Integer(63)), false, "configuration"},
      {"max bytes 16 MiB + 1", With(good, "maxFrameBytes", Value::Integer(16777217)), false,
       "configuration"},
      {"no max bytes", Without(good, "maxFrameBytes"), false, "configuration"},
      // Valid, but the device is not connected: the arguments passed every check.
      {"device of 1024 units", With(good, "deviceId", Value(emoji_1024)), false, "deviceMissing"},
      {"lowest bounds", OpenArgs(kToken1, "cam-b", 100, 64), false, ""},
      {"highest bounds", OpenArgs(kToken1, "cam-c", 60000, 16 * 1024 * 1024), false, ""},
  };
  for (const Case& c : cases) {
    visible_ = !c.hidden;
    Answer answer = Call("open", c.args);
    ASSERT_TRUE(answer.arrived) << c.name;
    EXPECT_EQ(answer.code(), c.code) << c.name;
    EXPECT_TRUE(answer.reply.error.message == std::nullopt) << c.name;
    EXPECT_TRUE(answer.reply.error.details.is_null()) << c.name;
    Close(kToken1);
  }
}

TEST_F(CameraTest, TokensDevicesAndTheFourSessionLimitAreBusyUntilClosed) {
  ASSERT_TRUE(Open(kToken1, "cam-a").ok());
  EXPECT_EQ(Open(kToken1, "cam-b").code(), "deviceBusy");  // token taken
  EXPECT_EQ(Open(kToken2, "cam-a").code(), "deviceBusy");  // device taken
  // Another spelling of the same UUID is another token; the device is still taken.
  std::string lower = kToken1;
  for (char& c : lower) c = static_cast<char>(std::tolower(c));
  EXPECT_EQ(Open(lower, "cam-a").code(), "deviceBusy");
  EXPECT_TRUE(Open(lower, "cam-b").ok());

  EXPECT_EQ(Open(kToken3, "nowhere").code(), "deviceMissing");  // ended, still registered
  EXPECT_EQ(Open(kToken3, "cam-c").code(), "deviceBusy");       // even an ended token
  ASSERT_TRUE(Open(kToken4, "cam-d").ok());
  EXPECT_EQ(Open(kToken5, "cam-e").code(), "deviceBusy");  // four registered, one ended

  EXPECT_TRUE(Close(kToken3).ok());
  EXPECT_TRUE(Open(kToken5, "cam-e").ok());
  EXPECT_TRUE(Close(kToken1).ok());
  EXPECT_TRUE(backend_->WaitStreaming("cam-a", false));
  EXPECT_TRUE(Open(kToken1, "cam-a").ok());
}

TEST_F(CameraTest, OpenEndsWithTheCodeOfTheStepThatFailed) {
  struct Case {
    const char* name;
    std::function<void()> arrange;
    const char* code;
  } cases[] = {
      {"access denied", [&] { backend_->SetAuthorization(Authorization::kDenied); }, "permission"},
      {"access restricted", [&] { backend_->SetAuthorization(Authorization::kRestricted); },
       "permission"},
      {"user says no",
       [&] {
         backend_->SetAuthorization(Authorization::kNotDetermined);
         backend_->SetAccessAnswer(false);
       },
       "permission"},
      {"no rights to the node", [&] { backend_->FailOpen("cam-a", "permission"); }, "permission"},
      {"held by another program", [&] { backend_->FailOpen("cam-a", "deviceBusy"); }, "deviceBusy"},
      {"neither size", [&] { backend_->FailConfigure("cam-a", "unsupported"); }, "unsupported"},
      {"refuses set-up", [&] { backend_->FailConfigure("cam-a", "unavailable"); }, "unavailable"},
      {"will not start", [&] { backend_->FailStart("cam-a", "deviceBusy"); }, "deviceBusy"},
  };
  for (const Case& c : cases) {
    SetUp();  // a fresh backend and hub for each case
    c.arrange();
    EXPECT_EQ(Open(kToken1, "cam-a").code(), c.code) << c.name;
    EXPECT_EQ(Read(kToken1).code(), c.code) << c.name << ": the session keeps its code";
    EXPECT_FALSE(backend_->streaming("cam-a")) << c.name;
    TearDown();
  }
  SetUp();
}

TEST_F(CameraTest, AccessIsAskedOnceAndOpenWaitsForTheAnswer) {
  backend_->SetAuthorization(Authorization::kNotDetermined);
  backend_->HoldAccessAnswers();
  Pending open = CallLater("open", OpenArgs(kToken1, "cam-a"));
  dispatch::RunMainUntil([&] { return backend_->access_requests() == 1; }, 5s);
  EXPECT_FALSE(Await(open, 50ms).arrived);
  // While the open waits, a read is refused and does not disturb it.
  EXPECT_EQ(Read(kToken1).code(), "deviceBusy");
  backend_->AnswerAccess(true);
  EXPECT_TRUE(Await(open).ok());
  EXPECT_EQ(backend_->access_requests(), 1);
  EXPECT_TRUE(Open(kToken2, "cam-b").ok());
  EXPECT_EQ(backend_->access_requests(), 1);
}

TEST_F(CameraTest, CloseBeforeTheOpenFinishedAnswersTheOpenWithEnded) {
  backend_->SetAuthorization(Authorization::kNotDetermined);
  backend_->HoldAccessAnswers();
  Pending open = CallLater("open", OpenArgs(kToken1, "cam-a"));
  dispatch::RunMainUntil([&] { return backend_->access_requests() == 1; }, 5s);
  EXPECT_TRUE(Close(kToken1).ok());
  EXPECT_EQ(Await(open).code(), "ended");
  backend_->AnswerAccess(true);  // too late: nothing starts
  Flush();
  EXPECT_FALSE(backend_->streaming("cam-a"));
}

TEST_F(CameraTest, WindowsCannotReadOrCloseEachOthersSessions) {
  ASSERT_TRUE(Open(kToken1, "cam-a").ok());
  EXPECT_EQ(Call(engine2_, "read", TokenArgs(kToken1)).code(), "ended");
  EXPECT_TRUE(Call(engine2_, "close", TokenArgs(kToken1)).ok());  // silently ignored
  EXPECT_EQ(Call(engine2_, "open", OpenArgs(kToken1, "cam-b")).code(), "deviceBusy");
  EXPECT_EQ(Call(engine2_, "open", OpenArgs(kToken2, "cam-a")).code(), "deviceBusy");

  Pending read = ReadLater(kToken1);
  Flush();
  ASSERT_TRUE(backend_->Deliver("cam-a", SmallFrame(1)));
  EXPECT_EQ(Sequence(Await(read)), 1);

  // Closing window 2 leaves window 1's session alone.
  window2_->Notify(AppleUsbCamera::Happening::kWindowClosed);
  Flush();
  EXPECT_TRUE(backend_->streaming("cam-a"));
}

TEST_F(CameraTest, CloseAndReadOfUnknownOrMalformedTokens) {
  EXPECT_TRUE(Close(kToken1).ok());
  EXPECT_EQ(Close(kToken1).reply.value, Value());
  EXPECT_EQ(Read(kToken1).code(), "ended");
  EXPECT_EQ(Call("close", TokenArgs("nope")).code(), "configuration");
  EXPECT_EQ(Call("read", Value()).code(), "configuration");
}

TEST_F(CameraTest, WindowAndApplicationHappeningsEndOrSuspendTheWindowsSessions) {
  using H = AppleUsbCamera::Happening;
  struct Case {
    H happening;
    const char* code;
    bool kept;  // still registered (the token stays busy until closed)
  } cases[] = {{H::kWindowMinimised, "suspended", true},
               {H::kApplicationHidden, "suspended", true},
               {H::kSystemWillSleep, "suspended", true},
               {H::kApplicationWillTerminate, "suspended", true},
               {H::kWindowClosed, "ended", false}};
  for (const Case& c : cases) {
    ASSERT_TRUE(Open(kToken1, "cam-a").ok());
    ASSERT_TRUE(Call(engine2_, "open", OpenArgs(kToken2, "cam-b")).ok());
    Pending waiting = ReadLater(kToken1);
    Flush();
    window1_->Notify(c.happening);
    EXPECT_EQ(Await(waiting).code(), c.code);
    EXPECT_EQ(Read(kToken1).code(), c.code);
    EXPECT_FALSE(backend_->streaming("cam-a"));
    EXPECT_TRUE(backend_->streaming("cam-b")) << "the other window's session goes on";
    EXPECT_EQ(Open(kToken1, "cam-c").code(), c.kept ? "deviceBusy" : "");
    Close(kToken1);
    Call(engine2_, "close", TokenArgs(kToken2));
  }
}

TEST_F(CameraTest, DestroyedCameraEndsItsSessions) {
  ASSERT_TRUE(Open(kToken1, "cam-a").ok());
  window1_.reset();
  EXPECT_TRUE(backend_->WaitStreaming("cam-a", false));
  EXPECT_TRUE(Call(engine2_, "open", OpenArgs(kToken1, "cam-a")).ok()) << "token and device free";
}

}  // namespace
}  // namespace corvane::camera::testing
