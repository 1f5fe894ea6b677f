// The bridge on the real SDL backend, with SDL's virtual game controllers standing in for pads:
// what SDL makes of them is what a real pad would get, down to the rumble callback.
#include <SDL.h>
#include <gtest/gtest.h>

#include <map>

#include "gamepad/gamepad_client.h"
#include "gamepad/sdl_controller_backend.h"
#include "gamepad/virtual_pad.h"

namespace corvane::gamepad::testing {
namespace {

struct Rumble {
  uint16_t low, high;
  friend bool operator==(const Rumble&, const Rumble&) = default;
  friend std::ostream& operator<<(std::ostream& os, const Rumble& r) {
    return os << "{" << r.low << ", " << r.high << "}";
  }
};

// One virtual pad and what reached its motors.
struct VirtualPad {
  std::string name;
  SDL_JoystickID id = -1;
  std::vector<Rumble> rumbles;
  int failures_to_come = 0;  // pulses to refuse before accepting again (stops always pass)

  static int SDLCALL OnRumble(void* self, Uint16 low, Uint16 high) {
    auto* pad = static_cast<VirtualPad*>(self);
    if ((low || high) && pad->failures_to_come > 0) {
      --pad->failures_to_come;
      return -1;
    }
    pad->rumbles.push_back({low, high});
    return 0;
  }
};

int DeviceIndexOf(SDL_JoystickID id) {
  for (int i = 0; i < SDL_NumJoysticks(); ++i) {
    if (SDL_JoystickGetDeviceInstanceID(i) == id) return i;
  }
  return -1;
}

class GamepadSdlTest : public ::testing::Test {
 protected:
  void SetUp() override {
    SDL_SetHint(SDL_HINT_NO_SIGNAL_HANDLERS, "1");
    ASSERT_EQ(SDL_InitSubSystem(SDL_INIT_GAMECONTROLLER), 0) << SDL_GetError();
    bridge_ = AppleGameControllerBridge::Create(client_.engine(), MakeSdlControllerBackend());
  }
  void TearDown() override {
    bridge_.reset();
    for (auto& pad : pads_) Detach(*pad);
    SDL_QuitSubSystem(SDL_INIT_GAMECONTROLLER);
  }

  VirtualPad& Attach(const std::string& name, uint16_t vendor = 0, uint16_t product = 0,
                     bool rumble = true, SDL_JoystickType type = SDL_JOYSTICK_TYPE_GAMECONTROLLER) {
    auto pad = std::make_unique<VirtualPad>();
    pad->name = name;
    const int index = AttachVirtualPad(pad->name.c_str(), vendor, product,
                                       rumble ? &VirtualPad::OnRumble : nullptr, pad.get(), type);
    EXPECT_GE(index, 0) << SDL_GetError();
    pad->id = SDL_JoystickGetDeviceInstanceID(index);
    pads_.push_back(std::move(pad));
    return *pads_.back();
  }

  void Detach(VirtualPad& pad) {
    if (pad.id < 0) return;
    if (SDL_Joystick* js = SDL_JoystickFromInstanceID(pad.id); js && input_.count(pad.id)) {
      SDL_JoystickClose(js);
      input_.erase(pad.id);
    }
    const int index = DeviceIndexOf(pad.id);
    if (index >= 0) SDL_JoystickDetachVirtual(index);
    pad.id = -1;
  }

  // A button press on the pad, as its driver would report it.
  void Press(VirtualPad& pad) {
    SDL_Joystick*& js = input_[pad.id];
    if (!js) js = SDL_JoystickOpen(DeviceIndexOf(pad.id));
    ASSERT_NE(js, nullptr) << SDL_GetError();
    SDL_JoystickSetVirtualButton(js, SDL_CONTROLLER_BUTTON_A, SDL_PRESSED);
  }

  std::shared_ptr<GameController> Find(const std::string& name) {
    return bridge_->FindController(&name);
  }

  // The names "controllers" lists, or only the one marked current.
  std::vector<std::string> Names(bool only_current = false) {
    std::vector<std::string> names;
    for (const auto& e : client_.Controllers()) {
      if (!only_current || *e.Find("current") == Value(true)) {
        names.push_back(*e.Find("name")->string_if());
      }
    }
    return names;
  }

  GamepadClient client_;
  std::shared_ptr<AppleGameControllerBridge> bridge_;
  std::vector<std::unique_ptr<VirtualPad>> pads_;
  std::map<SDL_JoystickID, SDL_Joystick*> input_;
};

const Value kBuzz = Pulses({{0, 1, 0}});

TEST_F(GamepadSdlTest, ListsGamepadsWithTheNamesPlayersKnow) {
  EXPECT_TRUE(client_.Controllers().empty());
  Attach("Controller (XBOX 360 For Windows)", 0x045E, 0x028E);
  Attach("DualSense Wireless Controller", 0x054C, 0x0CE6);
  Attach("Pro Controller", 0x057E, 0x2009);
  Attach("Corvane Test Pad", 0, 0, /*rumble=*/false);
  Attach("Throttle Quadrant", 0, 0, true, SDL_JOYSTICK_TYPE_THROTTLE);

  struct Expected {
    const char* name;
    const char* category;
    std::optional<const char*> vendor;
    bool haptics;
  };
  const Expected expected[] = {
      {"Microsoft - Xbox 360", "Xbox 360", "Microsoft", true},
      {"Sony - DualSense", "DualSense", "Sony", true},
      {"Nintendo - Switch Pro Controller", "Switch Pro Controller", "Nintendo", true},
      {"Corvane Test Pad", "Corvane Test Pad", std::nullopt, false},
  };
  const auto entries = client_.Controllers();
  ASSERT_EQ(entries.size(), std::size(expected)) << "the throttle is no gamepad";
  for (size_t i = 0; i < entries.size(); ++i) {
    SCOPED_TRACE(expected[i].name);
    const ValueMap& e = entries[i];
    EXPECT_EQ(*e.Find("name"), Value(expected[i].name));
    EXPECT_EQ(*e.Find("productCategory"), Value(expected[i].category));
    EXPECT_EQ(*e.Find("haptics"), Value(expected[i].haptics));
    // SDL has no battery for a virtual pad.
    EXPECT_EQ(*e.Find("batteryLevel"), Value(-1.0));
    EXPECT_EQ(*e.Find("batteryState"), Value("unknown"));
    if (expected[i].vendor) {
      ASSERT_NE(e.Find("vendorName"), nullptr);
      EXPECT_EQ(*e.Find("vendorName"), Value(*expected[i].vendor));
    } else {
      EXPECT_EQ(e.Find("vendorName"), nullptr);
    }
  }
  // A pad without rumble motors plays nothing and keeps no engine.
  EXPECT_EQ(client_.Haptic("Corvane Test Pad", kBuzz), Value(false));
  EXPECT_FALSE(bridge_->HasEngine(Find("Corvane Test Pad")));
}

TEST_F(GamepadSdlTest, CurrentIsTheLastAttachedUntilAnotherIsUsed) {
  VirtualPad& first = Attach("First Pad");
  Attach("Second Pad");
  EXPECT_EQ(Names(true), std::vector<std::string>{"Second Pad"});
  Press(first);
  EXPECT_EQ(Names(true), std::vector<std::string>{"First Pad"});
  // An unknown name plays on the pad in use.
  EXPECT_EQ(client_.Haptic("Nobody - Nothing", kBuzz), Value(true));
  EXPECT_EQ(first.rumbles, (std::vector<Rumble>{{0xFFFF, 0}}));
}

TEST_F(GamepadSdlTest, PatternReachesTheMotorsInOrder) {
  VirtualPad& pad = Attach("Pad", 0x045E, 0x028E);
  Attach("Other Pad");
  ASSERT_EQ(client_.Haptic("Microsoft - Xbox 360",
                           Pulses({{0, 1, 0}, {100, 0.5, 1}, {200, 2.5, 0.5}, {300, 0.5, 0.25}})),
            Value(true));
  // The first pulse starts inside the call; sharpness moves strength from the low motor to the
  // high one.
  EXPECT_EQ(pad.rumbles, (std::vector<Rumble>{{0xFFFF, 0}}));
  const std::vector<Rumble> expected = {{0xFFFF, 0},      {0, 0}, {0, 0x8000},      {0, 0},
                                        {0xFFFF, 0xFFFF}, {0, 0}, {0x8000, 0x4000}, {0, 0}};
  dispatch::RunMainUntil([&] { return pad.rumbles.size() >= expected.size(); }, 5s);
  EXPECT_EQ(pad.rumbles, expected);
}

TEST_F(GamepadSdlTest, ANewPatternTakesOverTheMotors) {
  VirtualPad& pad = Attach("Pad");
  ASSERT_EQ(client_.Haptic(std::nullopt, Pulses({{0, 1, 0}, {300, 1, 0}})), Value(true));
  ASSERT_EQ(client_.Haptic(std::nullopt, Pulses({{100, 0.5, 1}})), Value(true));
  // The first pattern's pulse is cut off at once, its second pulse never comes.
  dispatch::RunMainUntil([&] { return pad.rumbles.size() >= 4; }, 5s);
  dispatch::RunMainUntil([] { return false; }, 400ms);
  EXPECT_EQ(pad.rumbles, (std::vector<Rumble>{{0xFFFF, 0}, {0, 0}, {0, 0x8000}, {0, 0}}));
}

TEST_F(GamepadSdlTest, FailedFirstPlayIsRetriedOnAFreshEngine) {
  VirtualPad& pad = Attach("Pad");
  pad.failures_to_come = 1;
  EXPECT_EQ(client_.Haptic(std::nullopt, kBuzz), Value(true));
  EXPECT_EQ(pad.rumbles, (std::vector<Rumble>{{0xFFFF, 0}}));
  EXPECT_TRUE(bridge_->EngineRunning(Find("Pad")));
  pad.failures_to_come = 2;
  EXPECT_EQ(client_.Haptic(std::nullopt, Pulses({{0, 0.5, 0}})), Value(false));
  EXPECT_FALSE(bridge_->HasEngine(Find("Pad")));
}

TEST_F(GamepadSdlTest, PadUnpluggedMidPatternLosesItsEngineAndItsNameFallsBack) {
  VirtualPad& gone = Attach("Gone Pad");
  VirtualPad& stays = Attach("Staying Pad");
  ASSERT_EQ(client_.Haptic("Gone Pad", Pulses({{0, 1, 0}, {150, 1, 1}})), Value(true));
  const auto controller = Find("Gone Pad");
  ASSERT_TRUE(bridge_->HasEngine(controller));
  Detach(gone);
  // No call comes in: the pattern's next step finds the pad gone and the engine stops.
  EXPECT_TRUE(dispatch::RunMainUntil([&] { return !bridge_->HasEngine(controller); }, 5s));
  EXPECT_EQ(Names(), std::vector<std::string>{"Staying Pad"});
  // A name that vanished between "controllers" and "haptic" plays on the fall-back.
  EXPECT_EQ(client_.Haptic("Gone Pad", kBuzz), Value(true));
  EXPECT_EQ(stays.rumbles, (std::vector<Rumble>{{0xFFFF, 0}}));
}

}  // namespace
}  // namespace corvane::gamepad::testing
