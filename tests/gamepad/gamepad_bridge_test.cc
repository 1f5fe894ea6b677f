// AppleGameControllerBridge against a controller platform the test drives: entries, the choice
// of controller, pulse validation and the life of haptic engines, including the failures no
// real pad can be made to produce on demand.
#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <thread>

#include "gamepad/gamepad_client.h"

namespace corvane::gamepad::testing {
namespace {

// What every engine of the test was asked to do, in order.
struct EngineLog {
  int created = 0;
  std::vector<std::string> calls;  // "start 1", "play 1", "stop 2", ...
  std::vector<HapticPattern> played;
};

class FakeEngine final : public HapticDevice {
 public:
  FakeEngine(EngineLog& log, int id, std::vector<bool>& play_results, bool start_ok)
      : log_(log), id_(id), play_results_(play_results), start_ok_(start_ok) {}

  void SetStoppedHandler(Handler h) override { stopped = std::move(h); }
  void SetResetHandler(Handler h) override { reset = std::move(h); }
  bool Start() override {
    log_.calls.push_back("start " + std::to_string(id_));
    return start_ok_;
  }
  void Stop() override { log_.calls.push_back("stop " + std::to_string(id_)); }
  bool Play(const HapticPattern& pattern) override {
    log_.calls.push_back("play " + std::to_string(id_));
    bool ok = true;
    if (!play_results_.empty()) {
      ok = play_results_.front();
      play_results_.erase(play_results_.begin());
    }
    if (ok) log_.played.push_back(pattern);
    return ok;
  }

  Handler stopped, reset;

 private:
  EngineLog& log_;
  int id_;
  std::vector<bool>& play_results_;

 public:
  bool start_ok_;
};

class FakeController final : public GameController {
 public:
  explicit FakeController(std::string category, std::optional<std::string> vendor = {})
      : category(std::move(category)), vendor(std::move(vendor)) {}

  bool has_extended_gamepad() const override { return gamepad; }
  std::string product_category() const override { return category; }
  std::optional<std::string> vendor_name() const override { return vendor; }
  std::optional<Battery> battery() const override { return power; }
  std::optional<std::vector<HapticsLocality>> haptic_localities() const override {
    return localities;
  }
  std::unique_ptr<HapticDevice> CreateHapticEngine(HapticsLocality locality) override {
    asked_locality = locality;
    if (!log || !can_create) return nullptr;
    auto engine = std::make_unique<FakeEngine>(*log, ++log->created, play_results, start_ok);
    last_engine = engine.get();
    return engine;
  }

  std::string category;
  std::optional<std::string> vendor;
  bool gamepad = true;
  std::optional<Battery> power;
  std::optional<std::vector<HapticsLocality>> localities =
      std::vector<HapticsLocality>{HapticsLocality::kDefault, HapticsLocality::kHandles};
  bool can_create = true;
  bool start_ok = true;
  std::vector<bool> play_results;  // consumed one per play; true once empty
  std::optional<HapticsLocality> asked_locality;
  EngineLog* log = nullptr;
  FakeEngine* last_engine = nullptr;  // owned by the bridge
};

class FakeBackend final : public ControllerBackend {
 public:
  void Update() override {}
  std::vector<std::shared_ptr<GameController>> Controllers() override {
    return {controllers.begin(), controllers.end()};
  }
  std::shared_ptr<GameController> Current() override { return current; }
  void SetDisconnectHandler(DisconnectHandler h) override { on_disconnect = std::move(h); }

  std::vector<std::shared_ptr<FakeController>> controllers;
  std::shared_ptr<FakeController> current;
  DisconnectHandler on_disconnect;
};

class GamepadBridgeTest : public ::testing::Test {
 protected:
  void SetUp() override {
    auto backend = std::make_unique<FakeBackend>();
    backend_ = backend.get();
    bridge_ = AppleGameControllerBridge::Create(client_.engine(), std::move(backend));
  }

  std::shared_ptr<FakeController> Attach(std::string category,
                                         std::optional<std::string> vendor = {}) {
    auto c = std::make_shared<FakeController>(std::move(category), std::move(vendor));
    c->log = &log_;
    backend_->controllers.push_back(c);
    return c;
  }

  // Lets tasks posted to the main thread run.
  void Drain() {
    bool done = false;
    dispatch::MainQueue().Async([&] { done = true; });
    dispatch::RunMainUntil([&] { return done; }, 5s);
  }

  GamepadClient client_;
  EngineLog log_;
  FakeBackend* backend_ = nullptr;
  std::shared_ptr<AppleGameControllerBridge> bridge_;
};

const Value kOnePulse = Pulses({{0, 0.5, 0.5}});

// --- "controllers" ----------------------------------------------------------------------------

TEST_F(GamepadBridgeTest, EntryHasEveryKeyInOrderAndVendorOnlyWhenReported) {
  auto xbox = Attach("Xbox One", "Microsoft");
  xbox->power = Battery{0.5, BatteryState::kCharging};
  auto plain = Attach("Virtual Pad");
  plain->localities.reset();
  backend_->current = xbox;

  const auto entries = client_.Controllers();
  ASSERT_EQ(entries.size(), 2u);
  ValueMap expected_xbox;
  expected_xbox.Append(Value("name"), Value("Microsoft - Xbox One"));
  expected_xbox.Append(Value("productCategory"), Value("Xbox One"));
  expected_xbox.Append(Value("batteryLevel"), Value(0.5));
  expected_xbox.Append(Value("batteryState"), Value("charging"));
  expected_xbox.Append(Value("haptics"), Value(true));
  expected_xbox.Append(Value("current"), Value(true));
  expected_xbox.Append(Value("vendorName"), Value("Microsoft"));
  EXPECT_EQ(entries[0], expected_xbox);

  ValueMap expected_plain;
  expected_plain.Append(Value("name"), Value("Virtual Pad"));
  expected_plain.Append(Value("productCategory"), Value("Virtual Pad"));
  expected_plain.Append(Value("batteryLevel"), Value(-1.0));
  expected_plain.Append(Value("batteryState"), Value("unknown"));
  expected_plain.Append(Value("haptics"), Value(false));
  expected_plain.Append(Value("current"), Value(false));
  EXPECT_EQ(entries[1], expected_plain);
}

TEST_F(GamepadBridgeTest, BatteryLevelIsClampedAndStateMapped) {
  const double nan = std::numeric_limits<double>::quiet_NaN();
  const double inf = std::numeric_limits<double>::infinity();
  struct Case {
    std::optional<Battery> battery;
    double level;
    const char* state;
  };
  const std::vector<Case> cases = {
      {std::nullopt, -1.0, "unknown"},
      {Battery{nan, BatteryState::kCharging}, -1.0, "charging"},
      {Battery{inf, BatteryState::kFull}, -1.0, "full"},
      {Battery{1.2, BatteryState::kFull}, 1.0, "full"},
      {Battery{-0.5, BatteryState::kDischarging}, 0.0, "discharging"},
      {Battery{0.0, BatteryState::kDischarging}, 0.0, "discharging"},
      {Battery{0.42, BatteryState::kUnknown}, 0.42, "unknown"},
      {Battery{0.3, static_cast<BatteryState>(7)}, 0.3, "unknown"},
  };
  for (const Case& c : cases) Attach("Pad")->power = c.battery;
  const auto entries = client_.Controllers();
  ASSERT_EQ(entries.size(), cases.size());
  for (size_t i = 0; i < cases.size(); ++i) {
    SCOPED_TRACE(i);
    EXPECT_EQ(*entries[i].Find("batteryLevel"), Value(cases[i].level));
    EXPECT_EQ(*entries[i].Find("batteryState"), Value(cases[i].state));
  }
}

TEST_F(GamepadBridgeTest, OnlyGamepadsAreListedAndHapticsNeedsAKnownLocality) {
  EXPECT_TRUE(client_.Controllers().empty());
  Attach("Remote")->gamepad = false;
  Attach("Both");
  Attach("Handles")->localities = std::vector<HapticsLocality>{HapticsLocality::kHandles};
  Attach("Neither")->localities = std::vector<HapticsLocality>{};

  const auto entries = client_.Controllers();
  std::vector<std::pair<std::string, bool>> seen;
  for (const auto& e : entries) {
    seen.emplace_back(*e.Find("name")->string_if(), *e.Find("haptics")->bool_if());
  }
  EXPECT_EQ(seen, (std::vector<std::pair<std::string, bool>>{
                      {"Both", true}, {"Handles", true}, {"Neither", false}}));
}

// --- finding the controller -------------------------------------------------------------------

TEST_F(GamepadBridgeTest, NameFindsTheFirstOfItsNameElseCurrentElseTheOnlyGamepad) {
  auto first = Attach("DualSense", "Sony");
  auto second = Attach("DualSense", "Sony");
  auto other = Attach("Xbox One", "Microsoft");
  auto remote = Attach("Remote");
  remote->gamepad = false;
  const std::string dualsense = "Sony - DualSense";

  EXPECT_EQ(bridge_->FindController(&dualsense), first);
  const std::string unknown = "Nobody - Nothing";
  EXPECT_EQ(bridge_->FindController(&unknown), nullptr) << "three gamepads, no current";
  backend_->current = remote;  // current even though it is not a gamepad
  EXPECT_EQ(bridge_->FindController(&unknown), remote);
  EXPECT_EQ(bridge_->FindController(nullptr), remote);
  EXPECT_EQ(bridge_->FindController(&dualsense), first) << "a matching name beats current";

  backend_->current = nullptr;
  backend_->controllers = {remote, other};
  EXPECT_EQ(bridge_->FindController(&unknown), other) << "the only gamepad";

  // Through the channel, a name that is not text counts as no name.
  backend_->controllers = {first, other};
  backend_->current = other;
  ValueMap args;
  args.Set("name", Value::Integer(3));
  args.Set("pulses", kOnePulse);
  EXPECT_EQ(client_.Haptic(Value(std::move(args))), Value(true));
  EXPECT_TRUE(bridge_->HasEngine(other));
}

TEST_F(GamepadBridgeTest, NoControllerOrNoHapticsAnswersFalse) {
  EXPECT_EQ(client_.Haptic(std::nullopt, kOnePulse), Value(false));
  auto pad = Attach("Pad");
  pad->localities = std::vector<HapticsLocality>{};
  EXPECT_EQ(client_.Haptic(std::nullopt, kOnePulse), Value(false));
  pad->localities.reset();
  EXPECT_EQ(client_.Haptic(std::nullopt, kOnePulse), Value(false));
  EXPECT_EQ(log_.created, 0);

  pad->localities = std::vector<HapticsLocality>{HapticsLocality::kHandles};
  pad->can_create = false;
  EXPECT_EQ(client_.Haptic(std::nullopt, kOnePulse), Value(false));
  EXPECT_EQ(pad->asked_locality, HapticsLocality::kHandles);
  pad->can_create = true;
  pad->start_ok = false;
  EXPECT_EQ(client_.Haptic(std::nullopt, kOnePulse), Value(false));
  EXPECT_FALSE(bridge_->HasEngine(pad)) << "an engine that did not start is not kept";
}

// --- pulses -----------------------------------------------------------------------------------

TEST_F(GamepadBridgeTest, EveryInvalidPulseListAnswersFalseAndPlaysNothing) {
  Attach("Pad");
  const double nan = std::numeric_limits<double>::quiet_NaN();
  const double inf = std::numeric_limits<double>::infinity();
  ValueList too_many;
  for (int i = 0; i < 33; ++i)
    too_many.push_back(Value(ValueList{Value::Integer(i), Value(0.5), Value(0.5)}));
  ValueList mixed_types = {Value(ValueList{Value::Integer(0), Value("loud"), Value(0.5)})};
  ValueList pulse_not_list = {Value(0.5)};
  const std::vector<std::pair<const char*, Value>> cases = {
      {"missing", Value()},
      {"not a list", Value("0,1,1")},
      {"a map", Value(ValueMap{})},
      {"empty", Value(ValueList{})},
      {"33 pulses", Value(too_many)},
      {"two numbers", Pulses({{0, 1}})},
      {"offset -1", Pulses({{-1, 1, 1}})},
      {"offset 10001", Pulses({{10001, 1, 1}})},
      {"NaN intensity", Pulses({{0, nan, 1}})},
      {"infinite sharpness", Pulses({{0, 1, -inf}})},
      {"infinite offset", Pulses({{inf, 1, 1}})},
      {"text among numbers", Value(mixed_types)},
      {"pulse not a list", Value(pulse_not_list)},
      {"one bad among good", Pulses({{0, 1, 1}, {100, 1, 1}, {200, 1}})},
  };
  for (const auto& [what, pulses] : cases) {
    SCOPED_TRACE(what);
    EXPECT_EQ(client_.Haptic(std::nullopt, pulses), Value(false));
  }
  EXPECT_EQ(log_.created, 0);
  EXPECT_TRUE(log_.played.empty());
}

TEST_F(GamepadBridgeTest, PulsesAreClampedAndTakenInAnyNumericForm) {
  Attach("Pad");
  ValueList pulses = {
      Value(ValueList{Value::Integer(0), Value(2.5), Value::Integer(-3), Value("extra")}),
      Value(channel::Float64List{10000, 0.25, 0.75}),
      Value(channel::Int32List{5, 1, 0}),
  };
  ASSERT_EQ(client_.Haptic(std::nullopt, Value(pulses)), Value(true));
  ASSERT_EQ(log_.played.size(), 1u);
  const HapticPattern& p = log_.played[0];
  ASSERT_EQ(p.size(), 3u);
  EXPECT_EQ(p[0].time_s, 0.0);
  EXPECT_EQ(p[0].intensity, 1.0f);
  EXPECT_EQ(p[0].sharpness, 0.0f);
  EXPECT_EQ(p[1].time_s, 10.0) << "10000 ms is accepted";
  EXPECT_EQ(p[1].intensity, 0.25f);
  EXPECT_EQ(p[2].time_s, 0.005);
}

// --- engines ----------------------------------------------------------------------------------

TEST_F(GamepadBridgeTest, OneEngineIsKeptPerControllerAcrossCalls) {
  auto a = Attach("A");
  auto b = Attach("B");
  EXPECT_EQ(client_.Haptic("A", kOnePulse), Value(true));
  EXPECT_EQ(client_.Haptic("A", kOnePulse), Value(true));
  EXPECT_EQ(client_.Haptic("B", kOnePulse), Value(true));
  EXPECT_EQ(log_.calls,
            (std::vector<std::string>{"start 1", "play 1", "play 1", "start 2", "play 2"}));
}

TEST_F(GamepadBridgeTest, AFailedPlayIsRetriedOnceOnAFreshEngine) {
  auto pad = Attach("Pad");
  pad->play_results = {false, true};
  EXPECT_EQ(client_.Haptic(std::nullopt, kOnePulse), Value(true));
  EXPECT_EQ(log_.calls,
            (std::vector<std::string>{"start 1", "play 1", "stop 1", "start 2", "play 2"}));
  EXPECT_TRUE(bridge_->EngineRunning(pad));

  // Both attempts fail: false, and the broken engine is gone.
  log_.calls.clear();
  pad->play_results = {false, false};
  EXPECT_EQ(client_.Haptic(std::nullopt, kOnePulse), Value(false));
  EXPECT_EQ(log_.calls,
            (std::vector<std::string>{"play 2", "stop 2", "start 3", "play 3", "stop 3"}));
  EXPECT_FALSE(bridge_->HasEngine(pad));

  log_.calls.clear();
  EXPECT_EQ(client_.Haptic(std::nullopt, kOnePulse), Value(true));
  EXPECT_EQ(log_.calls, (std::vector<std::string>{"start 4", "play 4"}));
}

TEST_F(GamepadBridgeTest, EngineStoppedBySystemIsReplacedOnTheNextCall) {
  auto pad = Attach("Pad");
  ASSERT_EQ(client_.Haptic(std::nullopt, kOnePulse), Value(true));
  FakeEngine* first = pad->last_engine;
  // Handlers may come from any thread.
  std::thread([stopped = first->stopped] { stopped(); }).join();
  Drain();
  EXPECT_FALSE(bridge_->HasEngine(pad));
  EXPECT_EQ(client_.Haptic(std::nullopt, kOnePulse), Value(true));
  EXPECT_EQ(log_.created, 2);
}

TEST_F(GamepadBridgeTest, LateHandlersOfAReplacedEngineLeaveTheNewOneAlone) {
  auto pad = Attach("Pad");
  pad->play_results = {false, true};
  ASSERT_EQ(client_.Haptic(std::nullopt, kOnePulse), Value(true));
  ASSERT_EQ(log_.created, 2);
  FakeEngine* current = pad->last_engine;
  auto stale_stop = current->stopped;  // kept for after engine 2 is replaced
  log_.calls.clear();
  // A reset of the current engine restarts it in place; a failed restart marks it not running.
  current->reset();
  Drain();
  EXPECT_EQ(log_.calls, (std::vector<std::string>{"start 2"}));
  EXPECT_TRUE(bridge_->EngineRunning(pad));
  current->start_ok_ = false;
  current->reset();
  Drain();
  EXPECT_TRUE(bridge_->HasEngine(pad));
  EXPECT_FALSE(bridge_->EngineRunning(pad));
  // Not running: the next call replaces it rather than trying it again.
  log_.calls.clear();
  EXPECT_EQ(client_.Haptic(std::nullopt, kOnePulse), Value(true));
  EXPECT_EQ(log_.calls, (std::vector<std::string>{"stop 2", "start 3", "play 3"}));
  // Engine 2's stopped handler, arriving now, must not remove engine 3.
  stale_stop();
  Drain();
  EXPECT_TRUE(bridge_->EngineRunning(pad));
}

TEST_F(GamepadBridgeTest, DisconnectAndBridgeEndStopTheirEngines) {
  auto a = Attach("A");
  auto b = Attach("B");
  ASSERT_EQ(client_.Haptic("A", kOnePulse), Value(true));
  ASSERT_EQ(client_.Haptic("B", kOnePulse), Value(true));
  log_.calls.clear();
  backend_->controllers = {b};
  backend_->on_disconnect(a);
  EXPECT_FALSE(bridge_->HasEngine(a));
  EXPECT_EQ(log_.calls, (std::vector<std::string>{"stop 1"}));

  auto reset_after_end = b->last_engine->reset;
  bridge_.reset();
  EXPECT_EQ(log_.calls, (std::vector<std::string>{"stop 1", "stop 2"}));
  reset_after_end();  // posts to a bridge that is gone: nothing happens
  Drain();
}

TEST_F(GamepadBridgeTest, UnknownMethodsAreNotImplemented) {
  for (const char* method : {"Controllers", "HAPTIC", "list", ""}) {
    EXPECT_EQ(client_.Call(method).kind, MethodReply::Kind::kNotImplemented) << method;
  }
  EXPECT_EQ(client_.Call("controllers", Value("junk")).kind, MethodReply::Kind::kSuccess);
  EXPECT_EQ(client_.Call("haptic", Value::Integer(1)).value, Value(false));
}

}  // namespace
}  // namespace corvane::gamepad::testing
