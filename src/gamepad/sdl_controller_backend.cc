// Game controllers through SDL's game-controller API. Nothing here runs unless asked: SDL is
// started on the first call, its events are read when a call comes in, and a playing pattern's
// timers are the only wake-ups, ending with the pattern. An idle host costs nothing.
#include "gamepad/sdl_controller_backend.h"

#include <SDL.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <set>

#include "channel/log.h"
#include "dispatch/queue.h"
#include "gamepad/controller_names.h"
#include "gamepad/power_supply.h"
#include "gamepad/rumble_schedule.h"

namespace corvane::gamepad {

namespace {

constexpr const char* kLogDomain = "corvane-gamepad";
// A stick or trigger has to move this far (of 32767) to count as the user's input: resting
// sticks drift and must not steal "current" from the pad in use.
constexpr int kAxisInputThreshold = 8000;
// The motors stop by themselves this long after a step should have been followed by another,
// in case the main loop stalls.
constexpr uint32_t kRumbleSafetyMs = kPulseMs + 250;

void Warn(const std::string& message) {
  channel::Log(channel::LogLevel::kWarning, kLogDomain, message);
}

// SDL's game-controller subsystem, held by the backend and by every controller object, so SDL
// stays up until the last open controller is closed.
class SdlSession {
 public:
  SdlSession() {
    // The host handles its own signals; SDL would otherwise turn SIGINT/SIGTERM into SDL_QUIT
    // events that nobody reads.
    SDL_SetHint(SDL_HINT_NO_SIGNAL_HANDLERS, "1");
    // Input counts even though no SDL window has focus: the host's windows are not SDL's.
    SDL_SetHint(SDL_HINT_JOYSTICK_ALLOW_BACKGROUND_EVENTS, "1");
    ok_ = SDL_InitSubSystem(SDL_INIT_GAMECONTROLLER) == 0;
    if (!ok_) Warn(std::string("game controllers unavailable: ") + SDL_GetError());
  }
  ~SdlSession() {
    if (ok_) SDL_QuitSubSystem(SDL_INIT_GAMECONTROLLER);
  }
  SdlSession(const SdlSession&) = delete;
  SdlSession& operator=(const SdlSession&) = delete;
  bool ok() const { return ok_; }

 private:
  bool ok_ = false;
};

class SdlController final : public GameController {
 public:
  SdlController(std::shared_ptr<SdlSession> session, int device_index,
                const std::string& sysfs_root)
      : session_(std::move(session)), sysfs_root_(sysfs_root) {
    if (SDL_IsGameController(device_index)) {
      controller_ = SDL_GameControllerOpen(device_index);
      joystick_ = controller_ ? SDL_GameControllerGetJoystick(controller_) : nullptr;
    } else {
      joystick_ = SDL_JoystickOpen(device_index);
    }
    if (!joystick_) return;
    id_ = SDL_JoystickInstanceID(joystick_);
    if (const char* path = SDL_JoystickPath(joystick_)) path_ = path;
    const char* name = SDL_JoystickName(joystick_);
    category_ = controller_ ? ProductCategoryFor(SDL_GameControllerGetType(controller_), name)
                            : (name && *name ? name : "Joystick");
    vendor_ = VendorNameForUsbId(SDL_JoystickGetVendor(joystick_));
  }
  ~SdlController() override {
    if (controller_) {
      SDL_GameControllerClose(controller_);
    } else if (joystick_) {
      SDL_JoystickClose(joystick_);
    }
  }

  bool opened() const { return joystick_ != nullptr; }
  SDL_JoystickID id() const { return id_; }
  bool attached() const { return joystick_ && SDL_JoystickGetAttached(joystick_); }
  // SDL's answer, -1 when it failed (not supported, device gone).
  int Rumble(uint16_t low, uint16_t high, uint32_t duration_ms) {
    if (!controller_) return -1;
    return SDL_GameControllerRumble(controller_, low, high, duration_ms);
  }

  bool has_extended_gamepad() const override { return controller_ != nullptr; }
  std::string product_category() const override { return category_; }
  std::optional<std::string> vendor_name() const override { return vendor_; }

  std::optional<Battery> battery() const override {
    // The kernel's reading is exact where the driver offers one; SDL's is a band.
    if (!path_.empty()) {
      if (auto battery = ReadPowerSupplyBattery(sysfs_root_, path_)) return battery;
    }
    return joystick_ ? BatteryFromPowerLevel(SDL_JoystickCurrentPowerLevel(joystick_))
                     : std::nullopt;
  }

  std::optional<std::vector<HapticsLocality>> haptic_localities() const override {
    // Rumble shakes the whole pad: that is the default locality, and the handles too.
    if (!controller_ || !SDL_GameControllerHasRumble(controller_)) return std::nullopt;
    return std::vector<HapticsLocality>{HapticsLocality::kDefault, HapticsLocality::kHandles};
  }

  std::unique_ptr<HapticDevice> CreateHapticEngine(HapticsLocality locality) override;

  std::shared_ptr<SdlController> self() const { return self_.lock(); }
  void set_self(std::weak_ptr<SdlController> self) { self_ = std::move(self); }

 private:
  std::shared_ptr<SdlSession> session_;  // first in, last out: SDL outlives the handles
  std::string sysfs_root_;
  SDL_GameController* controller_ = nullptr;
  SDL_Joystick* joystick_ = nullptr;
  SDL_JoystickID id_ = -1;
  std::string path_;
  std::string category_;
  std::optional<std::string> vendor_;
  std::weak_ptr<SdlController> self_;
};

// One pattern on its way through the motors, step by step on the main loop. Shared with its
// timer so that the engine may be dropped, even from inside a step, without pulling the ground
// from under it.
class Playback : public std::enable_shared_from_this<Playback> {
 public:
  Playback(std::shared_ptr<SdlController> controller, std::vector<RumbleStep> steps,
           HapticDevice::Handler on_lost)
      : controller_(std::move(controller)),
        steps_(std::move(steps)),
        on_lost_(std::move(on_lost)),
        start_(std::chrono::steady_clock::now()) {}

  // Plays the steps that are due now and schedules the next; false when the controller
  // refused a step.
  bool Run() {
    const auto elapsed = std::chrono::duration_cast<std::chrono::milliseconds>(
        std::chrono::steady_clock::now() - start_);
    while (!cancelled_ && next_ < steps_.size() &&
           steps_[next_].at_ms <= static_cast<uint64_t>(elapsed.count())) {
      const RumbleStep& step = steps_[next_++];
      const bool stop = step.low == 0 && step.high == 0;
      if (controller_->Rumble(step.low, step.high, stop ? 0 : kRumbleSafetyMs) != 0) {
        cancelled_ = true;
        return false;
      }
      motors_on_ = !stop;
    }
    if (cancelled_ || next_ == steps_.size()) return !cancelled_;
    const auto wait = std::chrono::milliseconds(steps_[next_].at_ms) - elapsed;
    timer_ = dispatch::MainQueue().After(wait, [self = shared_from_this()] { self->Tick(); });
    return true;
  }

  void Cancel() {
    cancelled_ = true;
    timer_.Cancel();
  }

  bool motors_on() const { return motors_on_; }
  bool starts_at_once() const { return !steps_.empty() && steps_.front().at_ms == 0; }

 private:
  void Tick() {
    if (cancelled_) return;
    // Lets SDL read the pad and notice an unplug; the events wait in SDL's queue for the next
    // call, so nothing re-enters the bridge from here.
    SDL_GameControllerUpdate();
    if (!Run() && on_lost_ && !controller_->attached()) on_lost_();
  }

  std::shared_ptr<SdlController> controller_;
  std::vector<RumbleStep> steps_;
  HapticDevice::Handler on_lost_;
  std::chrono::steady_clock::time_point start_;
  size_t next_ = 0;
  bool cancelled_ = false;
  bool motors_on_ = false;
  dispatch::WorkItem timer_;
};

// A haptic engine on a pad's rumble motors. Its one way of stopping on its own is the pad
// going away in the middle of a pattern.
class SdlRumbleEngine final : public HapticDevice {
 public:
  explicit SdlRumbleEngine(std::shared_ptr<SdlController> controller)
      : controller_(std::move(controller)) {}
  ~SdlRumbleEngine() override { Stop(); }

  void SetStoppedHandler(Handler handler) override { stopped_ = std::move(handler); }
  // Rumble motors keep no state that a reset could lose: there is nothing to restart.
  void SetResetHandler(Handler handler) override { reset_ = std::move(handler); }

  bool Start() override {
    started_ = controller_->attached() && controller_->haptic_localities().has_value();
    return started_;
  }

  void Stop() override {
    const bool was_started = std::exchange(started_, false);
    if (playback_) std::exchange(playback_, nullptr)->Cancel();
    if (was_started && controller_->attached()) controller_->Rumble(0, 0, 0);
  }

  bool Play(const HapticPattern& pattern) override {
    if (!started_ || !controller_->attached()) return false;
    auto playback = std::make_shared<Playback>(controller_, ScheduleRumble(pattern), stopped_);
    // A new pattern takes over the motors from one still playing; if it does not start at
    // once, the old pulse must not run on until the new one's first.
    if (auto old = std::exchange(playback_, nullptr)) {
      old->Cancel();
      if (old->motors_on() && !playback->starts_at_once()) controller_->Rumble(0, 0, 0);
    }
    playback_ = std::move(playback);
    return playback_->Run();
  }

 private:
  std::shared_ptr<SdlController> controller_;
  std::shared_ptr<Playback> playback_;
  Handler stopped_;
  Handler reset_;
  bool started_ = false;
};

std::unique_ptr<HapticDevice> SdlController::CreateHapticEngine(HapticsLocality) {
  auto self = self_.lock();
  if (!self || !haptic_localities()) return nullptr;
  return std::make_unique<SdlRumbleEngine>(std::move(self));
}

class SdlControllerBackend final : public ControllerBackend {
 public:
  explicit SdlControllerBackend(SdlBackendOptions options) : options_(std::move(options)) {}

  std::vector<std::shared_ptr<GameController>> Controllers() override {
    return {controllers_.begin(), controllers_.end()};
  }

  std::shared_ptr<GameController> Current() override {
    for (const auto& controller : controllers_) {
      if (controller->id() == last_input_) return controller;
    }
    return controllers_.empty() ? nullptr : controllers_.back();
  }

  void SetDisconnectHandler(DisconnectHandler handler) override {
    on_disconnect_ = std::move(handler);
  }

  void Update() override {
    if (!session_) session_ = std::make_shared<SdlSession>();
    if (!session_->ok()) return;
    // Reads the pads and notices plug-ins and unplugs: all SDL's events that matter here.
    SDL_JoystickUpdate();
    std::vector<SDL_JoystickID> removed;
    SDL_Event events[64];
    int count;
    while ((count = SDL_PeepEvents(events, std::size(events), SDL_GETEVENT, SDL_FIRSTEVENT,
                                   SDL_LASTEVENT)) > 0) {
      for (int i = 0; i < count; ++i) Note(events[i], removed);
    }
    // Unplugs that arrived as events, and any the events did not tell (a pad opened after its
    // removal event was read).
    std::vector<std::shared_ptr<SdlController>> gone;
    std::erase_if(controllers_, [&](const std::shared_ptr<SdlController>& c) {
      const bool lost =
          !c->attached() || std::find(removed.begin(), removed.end(), c->id()) != removed.end();
      if (lost) gone.push_back(c);
      return lost;
    });
    // New pads, in SDL's device order; the list keeps attach order.
    for (int index = 0, n = SDL_NumJoysticks(); index < n; ++index) {
      const SDL_JoystickID id = SDL_JoystickGetDeviceInstanceID(index);
      if (id < 0 || Known(id) || unopenable_.count(id)) continue;
      auto controller = std::make_shared<SdlController>(session_, index, options_.sysfs_root);
      if (!controller->opened()) {
        // Usually no access to its device node; asking again on every call would not help.
        const char* name = SDL_JoystickNameForIndex(index);
        Warn(std::string("cannot open controller ") + (name ? name : "?") + ": " + SDL_GetError());
        unopenable_.insert(id);
        continue;
      }
      controller->set_self(controller);
      controllers_.push_back(std::move(controller));
    }
    for (const auto& controller : gone) {
      if (on_disconnect_) on_disconnect_(controller);
    }
  }

 private:
  void Note(const SDL_Event& event, std::vector<SDL_JoystickID>& removed) {
    switch (event.type) {
      case SDL_JOYDEVICEREMOVED:
        removed.push_back(event.jdevice.which);
        break;
      case SDL_CONTROLLERBUTTONDOWN:
        last_input_ = event.cbutton.which;
        break;
      case SDL_CONTROLLERAXISMOTION:
        if (std::abs(event.caxis.value) >= kAxisInputThreshold) last_input_ = event.caxis.which;
        break;
      case SDL_CONTROLLERTOUCHPADDOWN:
        last_input_ = event.ctouchpad.which;
        break;
      // Plain joysticks only: a game controller reports the same input as controller events,
      // and its raw axes rest at odd values (a trigger at -32768).
      case SDL_JOYBUTTONDOWN:
        if (!IsGameController(event.jbutton.which)) last_input_ = event.jbutton.which;
        break;
      case SDL_JOYHATMOTION:
        if (event.jhat.value != SDL_HAT_CENTERED && !IsGameController(event.jhat.which)) {
          last_input_ = event.jhat.which;
        }
        break;
      default:
        break;
    }
  }

  bool Known(SDL_JoystickID id) const {
    return std::any_of(controllers_.begin(), controllers_.end(),
                       [id](const auto& c) { return c->id() == id; });
  }

  bool IsGameController(SDL_JoystickID id) const {
    return std::any_of(controllers_.begin(), controllers_.end(),
                       [id](const auto& c) { return c->id() == id && c->has_extended_gamepad(); });
  }

  SdlBackendOptions options_;
  std::shared_ptr<SdlSession> session_;  // started on the first call
  std::vector<std::shared_ptr<SdlController>> controllers_;
  std::set<SDL_JoystickID> unopenable_;
  SDL_JoystickID last_input_ = -1;
  DisconnectHandler on_disconnect_;
};

}  // namespace

std::unique_ptr<ControllerBackend> MakeSdlControllerBackend(SdlBackendOptions options) {
  return std::make_unique<SdlControllerBackend>(std::move(options));
}

std::unique_ptr<ControllerBackend> MakeSdlControllerBackend() {
  return MakeSdlControllerBackend(SdlBackendOptions());
}

}  // namespace corvane::gamepad
