// AppleGameControllerBridge against a controller platform the test drives: entries, the choice
// of controller, pulse validation and the life of haptic engines, including the failures no
// real pad can be made to produce on demand.
#include <gtest/gtest.h>

#include <limits>
#include <thread>

#include "channel/standard_codec.h"
#include "dispatch/queue.h"
#include "engine/loopback_engine.h"
#include "gamepad/apple_game_controller_bridge.h"

namespace corvane::gamepad {
namespace {

using namespace std::chrono_literals;
using channel::MethodReply;
using channel::Value;
using channel::ValueList;
using channel::ValueMap;
using Calls = std::vector<std::string>;
using Localities = std::vector<HapticsLocality>;
const double kNaN = std::numeric_limits<double>::quiet_NaN();
const double kInf = std::numeric_limits<double>::infinity();

// What every engine of the test was asked to do ("start 1", "play 1", "stop 2", ...).
struct EngineLog {
  int created = 0;
  Calls calls;
  std::vector<HapticPattern> played;
} g_log;  // each test starts a new one

struct FakeEngine final : HapticDevice {
  FakeEngine(std::vector<bool>* results, bool start_ok) : start_ok(start_ok), results(results) {}
  void SetStoppedHandler(Handler h) override { stopped = std::move(h); }
  void SetResetHandler(Handler h) override { reset = std::move(h); }
  bool Start() override { return g_log.calls.push_back("start" + id), start_ok; }
  void Stop() override { g_log.calls.push_back("stop" + id); }
  bool Play(const HapticPattern& pattern) override {
    g_log.calls.push_back("play" + id);
    const bool ok = results->empty() || results->front();
    if (!results->empty()) results->erase(results->begin());
    if (ok) g_log.played.push_back(pattern);
    return ok;
  }
  Handler stopped, reset;
  bool start_ok;
  std::vector<bool>* results;  // one per play; true once empty
  std::string id = " " + std::to_string(++g_log.created);
};

struct FakeController final : GameController {
  bool has_extended_gamepad() const override { return gamepad; }
  std::string product_category() const override { return category; }
  std::optional<std::string> vendor_name() const override { return vendor; }
  std::optional<Battery> battery() const override { return power; }
  std::optional<Localities> haptic_localities() const override { return localities; }
  std::unique_ptr<HapticDevice> CreateHapticEngine(HapticsLocality locality) override {
    asked_locality = locality;
    auto engine = can_create ? std::make_unique<FakeEngine>(&play_results, start_ok) : nullptr;
    last_engine = engine.get();
    return engine;
  }
  std::string category;
  std::optional<std::string> vendor;
  bool gamepad = true, can_create = true, start_ok = true;
  std::optional<Battery> power;
  std::optional<Localities> localities =
      Localities{HapticsLocality::kDefault, HapticsLocality::kHandles};
  std::vector<bool> play_results;
  std::optional<HapticsLocality> asked_locality;
  FakeEngine* last_engine = nullptr;  // owned by the bridge
};

struct FakeBackend final : ControllerBackend {
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

Value Pulses(std::initializer_list<std::initializer_list<double>> pulses) {
  ValueList list;
  for (const auto& p : pulses) list.emplace_back(ValueList(p.begin(), p.end()));
  return Value(std::move(list));
}
const Value kOnePulse = Pulses({{0, 0.5, 0.5}});

class GamepadBridgeTest : public ::testing::Test {
 protected:
  void SetUp() override {
    g_log = {};
    auto backend = std::make_unique<FakeBackend>();
    backend_ = backend.get();
    bridge_ = AppleGameControllerBridge::Create(engine_, std::move(backend));
  }

  std::shared_ptr<FakeController> Attach(std::string category) {
    auto c = std::make_shared<FakeController>();
    c->category = std::move(category);
    backend_->controllers.push_back(c);
    return c;
  }

  MethodReply Call(const std::string& method, Value args = Value()) {
    std::vector<MethodReply> replies;
    engine_.SendFromEngine(
        kMethodChannel, channel::EncodeMethodCall({method, std::move(args)}),
        [&](channel::Bytes b) {
          replies.push_back(channel::DecodeEnvelope(b).value.value_or(MethodReply()));
        });
    dispatch::RunMainUntil([&] { return !replies.empty(); }, 5s);
    EXPECT_EQ(replies.size(), 1u) << method;
    return replies.empty() ? MethodReply() : replies[0];
  }
  Value Haptic(Value name, Value pulses = kOnePulse) {
    ValueMap args;
    if (!name.is_null()) args.Set("name", name);
    args.Set("pulses", std::move(pulses));
    return Call("haptic", Value(std::move(args))).value;
  }
  Calls TakeCalls() { return std::exchange(g_log.calls, {}); }
  static void Drain() {
    bool done = false;
    dispatch::MainQueue().Async([&] { done = true; });
    dispatch::RunMainUntil([&] { return done; }, 5s);
  }

  engine::LoopbackEngine engine_;
  FakeBackend* backend_ = nullptr;
  std::shared_ptr<AppleGameControllerBridge> bridge_;
};

// An entry of "controllers", keys in their order.
Value Entry(const std::string& category, double level, const char* state, bool haptics) {
  ValueMap m;
  m.Append(Value("name"), Value(category));
  m.Append(Value("productCategory"), Value(category));
  m.Append(Value("batteryLevel"), Value(level));
  m.Append(Value("batteryState"), Value(state));
  m.Append(Value("haptics"), Value(haptics));
  m.Append(Value("current"), Value(false));
  return Value(std::move(m));
}

TEST_F(GamepadBridgeTest, EntriesListGamepadsWithClampedBatteryAndKnownHaptics) {
  EXPECT_EQ(Call("controllers", Value("junk")).value, Value(ValueList{}));
  for (const char* method : {"Controllers", "HAPTIC", "list", ""}) {
    EXPECT_EQ(Call(method).kind, MethodReply::Kind::kNotImplemented) << method;
  }
  Attach("Remote")->gamepad = false;
  struct Case {
    std::optional<Battery> battery;
    std::optional<Localities> localities;
    Value entry;
  } cases[] = {
      {std::nullopt, std::nullopt, Entry("P", -1.0, "unknown", false)},
      {Battery{kNaN, BatteryState::kCharging}, Localities{}, Entry("P", -1.0, "charging", false)},
      {Battery{kInf, BatteryState::kFull}, Localities{HapticsLocality::kHandles},
       Entry("P", -1.0, "full", true)},
      {Battery{1.2, BatteryState::kFull}, Localities{HapticsLocality::kDefault},
       Entry("P", 1.0, "full", true)},
      {Battery{-0.5, BatteryState::kDischarging}, {}, Entry("P", 0.0, "discharging", false)},
      {Battery{0.42, BatteryState::kUnknown}, {}, Entry("P", 0.42, "unknown", false)},
      {Battery{0.3, static_cast<BatteryState>(7)}, {}, Entry("P", 0.3, "unknown", false)},
  };
  ValueList expected;
  for (const Case& c : cases) {
    auto pad = Attach("P");
    pad->power = c.battery;
    pad->localities = c.localities;
    expected.push_back(c.entry);
  }
  EXPECT_EQ(Call("controllers").value, Value(expected));
}

TEST_F(GamepadBridgeTest, NoControllerNoHapticsOrNoEngineAnswersFalse) {
  EXPECT_EQ(Haptic(Value()), Value(false));
  auto pad = Attach("Pad");
  pad->localities = Localities{};
  EXPECT_EQ(Haptic(Value()), Value(false));
  EXPECT_EQ(g_log.created, 0);
  pad->localities = Localities{HapticsLocality::kHandles};
  pad->can_create = false;
  EXPECT_EQ(Haptic(Value()), Value(false));
  EXPECT_EQ(pad->asked_locality, HapticsLocality::kHandles);
  pad->can_create = true;
  pad->start_ok = false;
  EXPECT_EQ(Haptic(Value()), Value(false));
  EXPECT_FALSE(bridge_->HasEngine(pad)) << "an engine that did not start is not kept";
}

TEST_F(GamepadBridgeTest, InvalidPulseListsAnswerFalseAndValidOnesAreClamped) {
  Attach("Pad");
  ValueList too_many(33, Value(ValueList{Value::Integer(0), Value(0.5), Value(0.5)}));
  const Value cases[] = {Value(),
                         Value("0,1,1"),
                         Value(ValueMap{}),
                         Value(ValueList{}),
                         Value(too_many),
                         Pulses({{0, 1}}),
                         Pulses({{-1, 1, 1}}),
                         Pulses({{10001, 1, 1}}),
                         Pulses({{0, kNaN, 1}}),
                         Pulses({{0, 1, -kInf}}),
                         Pulses({{kInf, 1, 1}}),
                         Value(ValueList{Value(ValueList{Value(0.0), Value("loud"), Value(0.5)})}),
                         Value(ValueList{Value(0.5)}),
                         Pulses({{0, 1, 1}, {100, 1, 1}, {200, 1}})};
  for (size_t i = 0; i < std::size(cases); ++i) {
    EXPECT_EQ(Haptic(Value(), cases[i]), Value(false)) << i;
  }
  EXPECT_EQ(Call("haptic", Value::Integer(1)).value, Value(false));
  EXPECT_EQ(g_log.created, 0);
  ValueList pulses = {
      Value(ValueList{Value::Integer(0), Value(2.5), Value::Integer(-3), Value("extra")}),
      Value(channel::Float64List{10000, 0.25, 0.75}), Value(channel::Int32List{5, 1, 0})};
  ASSERT_EQ(Haptic(Value(), Value(pulses)), Value(true));
  ASSERT_EQ(g_log.played.size(), 1u);
  std::vector<std::tuple<double, float, float>> played;
  for (const HapticPulse& p : g_log.played[0])
    played.emplace_back(p.time_s, p.intensity, p.sharpness);
  EXPECT_EQ(played,
            (decltype(played){{0.0, 1.0f, 0.0f}, {10.0, 0.25f, 0.75f}, {0.005, 1.0f, 0.0f}}));
}

TEST_F(GamepadBridgeTest, EnginesAreKeptPerControllerAndAFailedPlayIsRetriedOnce) {
  auto a = Attach("A"), b = Attach("B");
  EXPECT_EQ(Haptic(Value("A")), Value(true));
  EXPECT_EQ(Haptic(Value("B")), Value(true));
  a->play_results = {false, true};
  EXPECT_EQ(Haptic(Value("A")), Value(true));
  EXPECT_EQ(TakeCalls(), (Calls{"start 1", "play 1", "start 2", "play 2", "play 1", "stop 1",
                                "start 3", "play 3"}));
  EXPECT_TRUE(bridge_->EngineRunning(a));
  // Both attempts fail: false, and the broken engine is gone.
  a->play_results = {false, false};
  EXPECT_EQ(Haptic(Value("A")), Value(false));
  EXPECT_EQ(TakeCalls(), (Calls{"play 3", "stop 3", "start 4", "play 4", "stop 4"}));
  EXPECT_FALSE(bridge_->HasEngine(a));
  // A disconnect stops the pad's engine, the bridge's end all the others.
  ASSERT_EQ(Haptic(Value("A")), Value(true));
  backend_->controllers = {b};
  backend_->on_disconnect(a);
  EXPECT_FALSE(bridge_->HasEngine(a));
  auto reset_after_end = b->last_engine->reset;
  bridge_.reset();
  EXPECT_EQ(TakeCalls(), (Calls{"start 5", "play 5", "stop 5", "stop 2"}));
  reset_after_end();  // posts to a bridge that is gone: nothing happens
  Drain();
}

TEST_F(GamepadBridgeTest, StoppedAndResetEnginesAreReplacedAndLateHandlersIgnored) {
  auto pad = Attach("Pad");
  ASSERT_EQ(Haptic(Value()), Value(true));
  // Stopped by the system, from another thread: the next call makes a new engine.
  std::thread(pad->last_engine->stopped).join();
  Drain();
  EXPECT_FALSE(bridge_->HasEngine(pad));
  ASSERT_EQ(Haptic(Value()), Value(true));
  FakeEngine* current = pad->last_engine;
  auto stale_stop = current->stopped;
  // A reset restarts it in place; after a failed restart the next call replaces it.
  current->reset();
  Drain();
  EXPECT_TRUE(bridge_->EngineRunning(pad));
  current->start_ok = false;
  current->reset();
  Drain();
  EXPECT_FALSE(bridge_->EngineRunning(pad));
  EXPECT_EQ(Haptic(Value()), Value(true));
  stale_stop();  // engine 2's, arriving now: engine 3 stays
  Drain();
  EXPECT_TRUE(bridge_->EngineRunning(pad));
  EXPECT_EQ(TakeCalls(), (Calls{"start 1", "play 1", "start 2", "play 2", "start 2", "start 2",
                                "stop 2", "start 3", "play 3"}));
}

}  // namespace
}  // namespace corvane::gamepad
