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

using Calls = std::vector<std::string>;
using Localities = std::vector<HapticsLocality>;
const double kNaN = std::numeric_limits<double>::quiet_NaN();
const double kInf = std::numeric_limits<double>::infinity();

// What every engine of the test was asked to do, in order.
struct EngineLog {
  int created = 0;
  Calls calls;  // "start 1", "play 1", "stop 2", ...
  std::vector<HapticPattern> played;
};

class FakeEngine final : public HapticDevice {
 public:
  FakeEngine(EngineLog& log, std::vector<bool>& play_results, bool start_ok)
      : start_ok(start_ok),
        log_(log),
        id_(" " + std::to_string(++log.created)),
        play_results_(play_results) {}

  void SetStoppedHandler(Handler h) override { stopped = std::move(h); }
  void SetResetHandler(Handler h) override { reset = std::move(h); }
  bool Start() override { return log_.calls.push_back("start" + id_), start_ok; }
  void Stop() override { log_.calls.push_back("stop" + id_); }
  bool Play(const HapticPattern& pattern) override {
    log_.calls.push_back("play" + id_);
    const bool ok = play_results_.empty() || play_results_.front();
    if (!play_results_.empty()) play_results_.erase(play_results_.begin());
    if (ok) log_.played.push_back(pattern);
    return ok;
  }

  Handler stopped, reset;
  bool start_ok;

 private:
  EngineLog& log_;
  std::string id_;
  std::vector<bool>& play_results_;
};

class FakeController final : public GameController {
 public:
  FakeController(EngineLog& log, std::string category, std::optional<std::string> vendor)
      : category(std::move(category)), vendor(std::move(vendor)), log_(log) {}

  bool has_extended_gamepad() const override { return gamepad; }
  std::string product_category() const override { return category; }
  std::optional<std::string> vendor_name() const override { return vendor; }
  std::optional<Battery> battery() const override { return power; }
  std::optional<Localities> haptic_localities() const override { return localities; }
  std::unique_ptr<HapticDevice> CreateHapticEngine(HapticsLocality locality) override {
    asked_locality = locality;
    if (!can_create) return nullptr;
    auto engine = std::make_unique<FakeEngine>(log_, play_results, start_ok);
    last_engine = engine.get();
    return engine;
  }

  std::string category;
  std::optional<std::string> vendor;
  bool gamepad = true;
  std::optional<Battery> power;
  std::optional<Localities> localities =
      Localities{HapticsLocality::kDefault, HapticsLocality::kHandles};
  bool can_create = true;
  bool start_ok = true;
  std::vector<bool> play_results;  // consumed one per play; true once empty
  std::optional<HapticsLocality> asked_locality;
  FakeEngine* last_engine = nullptr;  // owned by the bridge

 private:
  EngineLog& log_;
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

// An entry of "controllers", keys in their order.
ValueMap Entry(const std::string& name, const std::string& category, double level,
               const char* state, bool haptics, bool current, const char* vendor = nullptr) {
  ValueMap m;
  m.Append(Value("name"), Value(name));
  m.Append(Value("productCategory"), Value(category));
  m.Append(Value("batteryLevel"), Value(level));
  m.Append(Value("batteryState"), Value(state));
  m.Append(Value("haptics"), Value(haptics));
  m.Append(Value("current"), Value(current));
  if (vendor) m.Append(Value("vendorName"), Value(vendor));
  return m;
}

class GamepadBridgeTest : public ::testing::Test {
 protected:
  void SetUp() override {
    auto backend = std::make_unique<FakeBackend>();
    backend_ = backend.get();
    bridge_ = AppleGameControllerBridge::Create(client_.engine(), std::move(backend));
  }

  std::shared_ptr<FakeController> Attach(std::string category,
                                         std::optional<std::string> vendor = {}) {
    auto c = std::make_shared<FakeController>(log_, std::move(category), std::move(vendor));
    backend_->controllers.push_back(c);
    return c;
  }

  // The engine calls since the last look.
  Calls TakeCalls() { return std::exchange(log_.calls, {}); }

  // Lets tasks posted to the main thread run.
  static void Drain() {
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

TEST_F(GamepadBridgeTest, EntriesListGamepadsWithClampedBatteryAndKnownHaptics) {
  EXPECT_TRUE(client_.Controllers().empty());
  auto xbox = Attach("Xbox One", "Microsoft");
  xbox->power = Battery{0.5, BatteryState::kCharging};
  backend_->current = xbox;
  Attach("Remote")->gamepad = false;
  struct Case {
    std::optional<Battery> battery;
    std::optional<Localities> localities;
    double level;
    const char* state;
    bool haptics;
  } cases[] = {
      {std::nullopt, std::nullopt, -1.0, "unknown", false},
      {Battery{kNaN, BatteryState::kCharging}, Localities{}, -1.0, "charging", false},
      {Battery{kInf, BatteryState::kFull}, Localities{HapticsLocality::kHandles}, -1.0, "full",
       true},
      {Battery{1.2, BatteryState::kFull}, Localities{HapticsLocality::kDefault}, 1.0, "full", true},
      {Battery{-0.5, BatteryState::kDischarging}, {}, 0.0, "discharging", false},
      {Battery{0.42, BatteryState::kUnknown}, {}, 0.42, "unknown", false},
      {Battery{0.3, static_cast<BatteryState>(7)}, {}, 0.3, "unknown", false},
  };
  for (const Case& c : cases) {
    auto pad = Attach("Pad");
    pad->power = c.battery;
    pad->localities = c.localities;
  }
  const auto entries = client_.Controllers();
  ASSERT_EQ(entries.size(), std::size(cases) + 1) << "the remote is no gamepad";
  EXPECT_EQ(entries[0],
            Entry("Microsoft - Xbox One", "Xbox One", 0.5, "charging", true, true, "Microsoft"));
  for (size_t i = 0; i < std::size(cases); ++i) {
    const Case& c = cases[i];
    EXPECT_EQ(entries[i + 1], Entry("Pad", "Pad", c.level, c.state, c.haptics, false)) << i;
  }
}

TEST_F(GamepadBridgeTest, NameFindsTheFirstOfItsNameElseCurrentElseTheOnlyGamepad) {
  auto first = Attach("DualSense", "Sony");
  auto second = Attach("DualSense", "Sony");
  auto other = Attach("Xbox One", "Microsoft");
  auto remote = Attach("Remote");
  remote->gamepad = false;
  const std::string dualsense = "Sony - DualSense", unknown = "Nobody - Nothing";

  EXPECT_EQ(bridge_->FindController(&dualsense), first);
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
  for (const auto& localities :
       {std::optional<Localities>(Localities{}), std::optional<Localities>()}) {
    pad->localities = localities;
    EXPECT_EQ(client_.Haptic(std::nullopt, kOnePulse), Value(false));
  }
  EXPECT_EQ(log_.created, 0);

  pad->localities = Localities{HapticsLocality::kHandles};
  pad->can_create = false;
  EXPECT_EQ(client_.Haptic(std::nullopt, kOnePulse), Value(false));
  EXPECT_EQ(pad->asked_locality, HapticsLocality::kHandles);
  pad->can_create = true;
  pad->start_ok = false;
  EXPECT_EQ(client_.Haptic(std::nullopt, kOnePulse), Value(false));
  EXPECT_FALSE(bridge_->HasEngine(pad)) << "an engine that did not start is not kept";
}

TEST_F(GamepadBridgeTest, EveryInvalidPulseListAnswersFalseAndPlaysNothing) {
  Attach("Pad");
  ValueList too_many;
  for (int i = 0; i < 33; ++i) {
    too_many.push_back(Value(ValueList{Value::Integer(i), Value(0.5), Value(0.5)}));
  }
  const std::vector<std::pair<const char*, Value>> cases = {
      {"missing", Value()},
      {"not a list", Value("0,1,1")},
      {"a map", Value(ValueMap{})},
      {"empty", Value(ValueList{})},
      {"33 pulses", Value(too_many)},
      {"two numbers", Pulses({{0, 1}})},
      {"offset -1", Pulses({{-1, 1, 1}})},
      {"offset 10001", Pulses({{10001, 1, 1}})},
      {"NaN intensity", Pulses({{0, kNaN, 1}})},
      {"infinite sharpness", Pulses({{0, 1, -kInf}})},
      {"infinite offset", Pulses({{kInf, 1, 1}})},
      {"text among numbers",
       Value(ValueList{Value(ValueList{Value(0.0), Value("loud"), Value(0.5)})})},
      {"pulse not a list", Value(ValueList{Value(0.5)})},
      {"one bad among good", Pulses({{0, 1, 1}, {100, 1, 1}, {200, 1}})},
  };
  for (const auto& [what, pulses] : cases) {
    EXPECT_EQ(client_.Haptic(std::nullopt, pulses), Value(false)) << what;
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

TEST_F(GamepadBridgeTest, EnginesAreKeptPerControllerAndAFailedPlayIsRetriedOnce) {
  auto a = Attach("A");
  Attach("B");
  EXPECT_EQ(client_.Haptic("A", kOnePulse), Value(true));
  EXPECT_EQ(client_.Haptic("B", kOnePulse), Value(true));
  a->play_results = {false, true};
  EXPECT_EQ(client_.Haptic("A", kOnePulse), Value(true));
  EXPECT_EQ(TakeCalls(), (Calls{"start 1", "play 1", "start 2", "play 2", "play 1", "stop 1",
                                "start 3", "play 3"}));
  EXPECT_TRUE(bridge_->EngineRunning(a));

  // Both attempts fail: false, and the broken engine is gone.
  a->play_results = {false, false};
  EXPECT_EQ(client_.Haptic("A", kOnePulse), Value(false));
  EXPECT_EQ(TakeCalls(), (Calls{"play 3", "stop 3", "start 4", "play 4", "stop 4"}));
  EXPECT_FALSE(bridge_->HasEngine(a));
  EXPECT_EQ(client_.Haptic("A", kOnePulse), Value(true));
  EXPECT_EQ(TakeCalls(), (Calls{"start 5", "play 5"}));
}

TEST_F(GamepadBridgeTest, StoppedAndResetEnginesAreReplacedAndLateHandlersIgnored) {
  auto pad = Attach("Pad");
  ASSERT_EQ(client_.Haptic(std::nullopt, kOnePulse), Value(true));
  // Stopped by the system, from another thread: the next call makes a new engine.
  std::thread(pad->last_engine->stopped).join();
  Drain();
  EXPECT_FALSE(bridge_->HasEngine(pad));
  ASSERT_EQ(client_.Haptic(std::nullopt, kOnePulse), Value(true));
  FakeEngine* current = pad->last_engine;
  auto stale_stop = current->stopped;  // kept for after engine 2 is replaced
  TakeCalls();
  // A reset of the current engine restarts it in place; a failed restart marks it not running.
  current->reset();
  Drain();
  EXPECT_EQ(TakeCalls(), Calls{"start 2"});
  EXPECT_TRUE(bridge_->EngineRunning(pad));
  current->start_ok = false;
  current->reset();
  Drain();
  EXPECT_TRUE(bridge_->HasEngine(pad));
  EXPECT_FALSE(bridge_->EngineRunning(pad));
  // Not running: the next call replaces it rather than trying it again.
  TakeCalls();
  EXPECT_EQ(client_.Haptic(std::nullopt, kOnePulse), Value(true));
  EXPECT_EQ(TakeCalls(), (Calls{"stop 2", "start 3", "play 3"}));
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
  TakeCalls();
  backend_->controllers = {b};
  backend_->on_disconnect(a);
  EXPECT_FALSE(bridge_->HasEngine(a));
  EXPECT_EQ(TakeCalls(), Calls{"stop 1"});

  auto reset_after_end = b->last_engine->reset;
  bridge_.reset();
  EXPECT_EQ(TakeCalls(), Calls{"stop 2"});
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
