// The game-controller platform the bridge stands on: which controllers are attached, their
// names and battery, which one the user touched last, and per-controller haptic engines that
// play a pattern of transient pulses. The bridge sees only these interfaces;
// sdl_controller_backend.cc is the real implementation.
//
// Threading: everything is called on the main thread, and the disconnect handler runs there.
// A haptic engine's stopped and reset handlers may run on any thread.
#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace corvane::gamepad {

// The battery's charging state, with the values the platform uses for them.
enum class BatteryState : int { kUnknown = -1, kDischarging = 0, kCharging = 1, kFull = 2 };

struct Battery {
  double level = 0;  // 0 ... 1 as reported; the bridge clamps it
  BatteryState state = BatteryState::kUnknown;
};

enum class HapticsLocality { kDefault, kHandles };

// One transient pulse: when it starts, how strong and how sharp (both 0 ... 1).
struct HapticPulse {
  double time_s = 0;
  float intensity = 0;
  float sharpness = 0;
};
using HapticPattern = std::vector<HapticPulse>;

// A controller's haptic engine. It is made stopped; Start() starts it synchronously. Play()
// creates a player for the pattern and starts it at once without waiting for it to finish.
class HapticDevice {
 public:
  using Handler = std::function<void()>;

  virtual ~HapticDevice() = default;
  // Called when the engine stops on its own (the device went away, the system stopped it).
  virtual void SetStoppedHandler(Handler handler) = 0;
  // Called when the engine was reset and needs a restart before it plays again.
  virtual void SetResetHandler(Handler handler) = 0;
  virtual bool Start() = 0;
  // Stops without waiting; whatever plays is silenced.
  virtual void Stop() = 0;
  // False when the player could not be created or started.
  virtual bool Play(const HapticPattern& pattern) = 0;
};

// One attached controller. The bridge tells controllers apart by object identity.
class GameController {
 public:
  virtual ~GameController() = default;
  // Sticks, a d-pad, face and shoulder buttons and triggers: what a gamepad has.
  virtual bool has_extended_gamepad() const = 0;
  // The name players know for the controller type ("Xbox One", "DualSense", ...).
  virtual std::string product_category() const = 0;
  virtual std::optional<std::string> vendor_name() const = 0;
  // Nothing when the controller reports no battery.
  virtual std::optional<Battery> battery() const = 0;
  // Nothing when the controller has no haptics at all; else the localities it supports.
  virtual std::optional<std::vector<HapticsLocality>> haptic_localities() const = 0;
  // A new, stopped engine for `locality`; null when none can be made.
  virtual std::unique_ptr<HapticDevice> CreateHapticEngine(HapticsLocality locality) = 0;
};

class ControllerBackend {
 public:
  using DisconnectHandler = std::function<void(const std::shared_ptr<GameController>&)>;

  virtual ~ControllerBackend() = default;
  // Catches up with the platform: controllers plugged in or out, input seen. Called once at
  // the start of each method call; the other methods answer from what it learnt, and the
  // disconnect handler may run inside it.
  virtual void Update() = 0;
  // Every attached controller, gamepad or not, in enumeration order.
  virtual std::vector<std::shared_ptr<GameController>> Controllers() = 0;
  // The controller the user used last, or the one attached last; may be none.
  virtual std::shared_ptr<GameController> Current() = 0;
  // Called on the main thread with each controller that goes away; empty to remove.
  virtual void SetDisconnectHandler(DisconnectHandler handler) = 0;
};

// The real platform: SDL's game-controller support, with the kernel's power_supply nodes for
// exact battery readings. Not a second one alongside it in the same process: they would share
// SDL's one event queue.
std::unique_ptr<ControllerBackend> MakeSdlControllerBackend();

}  // namespace corvane::gamepad
