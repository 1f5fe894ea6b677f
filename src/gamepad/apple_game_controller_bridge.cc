#include "gamepad/apple_game_controller_bridge.h"

#include <algorithm>
#include <cmath>

#include "channel/args.h"
#include "channel/log.h"
#include "dispatch/queue.h"

namespace corvane::gamepad {

namespace {

using channel::Args;
using channel::MethodResult;
using channel::Value;
using channel::ValueList;
using channel::ValueMap;

constexpr const char* kLogDomain = "corvane-gamepad";

// -1.0 stands for "no battery" and for a level that is not a number; everything else is
// clamped into 0 ... 1.
double BatteryLevel(const std::optional<Battery>& battery) {
  if (!battery || !std::isfinite(battery->level)) return -1.0;
  if (battery->level <= 0) return 0.0;
  return std::min(battery->level, 1.0);
}

const char* BatteryStateName(const std::optional<Battery>& battery) {
  if (!battery) return "unknown";
  switch (battery->state) {
    case BatteryState::kDischarging:
      return "discharging";
    case BatteryState::kCharging:
      return "charging";
    case BatteryState::kFull:
      return "full";
    default:
      return "unknown";
  }
}

ValueMap Entry(const GameController& controller, bool current) {
  const std::optional<Battery> battery = controller.battery();
  const std::optional<std::string> vendor = controller.vendor_name();
  ValueMap entry;
  entry.reserve(7);
  entry.Append(Value("name"), Value(DisplayName(controller)));
  entry.Append(Value("productCategory"), Value(controller.product_category()));
  entry.Append(Value("batteryLevel"), Value(BatteryLevel(battery)));
  entry.Append(Value("batteryState"), Value(BatteryStateName(battery)));
  entry.Append(Value("haptics"), Value(UsableLocality(controller).has_value()));
  entry.Append(Value("current"), Value(current));
  if (vendor) entry.Append(Value("vendorName"), Value(*vendor));
  return entry;
}

void Debug(const std::string& message) {
  channel::Log(channel::LogLevel::kDebug, kLogDomain, message);
}

}  // namespace

std::string DisplayName(const GameController& controller) {
  const std::optional<std::string> vendor = controller.vendor_name();
  if (!vendor) return controller.product_category();
  return *vendor + " - " + controller.product_category();
}

std::optional<HapticsLocality> UsableLocality(const GameController& controller) {
  const auto localities = controller.haptic_localities();
  if (!localities) return std::nullopt;
  for (HapticsLocality wanted : {HapticsLocality::kDefault, HapticsLocality::kHandles}) {
    if (std::find(localities->begin(), localities->end(), wanted) != localities->end()) {
      return wanted;
    }
  }
  return std::nullopt;
}

std::shared_ptr<AppleGameControllerBridge> AppleGameControllerBridge::Create(
    channel::BinaryMessenger& messenger, std::unique_ptr<ControllerBackend> backend) {
  std::shared_ptr<AppleGameControllerBridge> bridge(
      new AppleGameControllerBridge(std::move(backend)));
  bridge->backend_->SetDisconnectHandler(
      [weak = std::weak_ptr(bridge)](const std::shared_ptr<GameController>& controller) {
        if (auto self = weak.lock()) self->DropEngine(controller);
      });
  bridge->Open(messenger);
  return bridge;
}

std::shared_ptr<AppleGameControllerBridge> AppleGameControllerBridge::Create(
    channel::BinaryMessenger& messenger) {
  return Create(messenger, MakeSdlControllerBackend());
}

AppleGameControllerBridge::AppleGameControllerBridge(std::unique_ptr<ControllerBackend> backend)
    : backend_(std::move(backend)) {}

AppleGameControllerBridge::~AppleGameControllerBridge() {
  channel_.reset();
  backend_->SetDisconnectHandler(nullptr);
  auto engines = std::move(engines_);
  engines_.clear();
  for (auto& [controller, engine] : engines) engine->engine->Stop();
}

void AppleGameControllerBridge::Open(channel::BinaryMessenger& messenger) {
  channel_ = std::make_unique<channel::MethodChannel>(messenger, kMethodChannel);
  channel_->SetMethodCallHandler(
      [this](const channel::MethodCall& call, std::unique_ptr<MethodResult> result) {
        HandleCall(call, std::move(result));
      });
}

void AppleGameControllerBridge::HandleCall(const channel::MethodCall& call,
                                           std::unique_ptr<MethodResult> result) {
  if (call.method == "controllers") return Controllers(std::move(result));
  if (call.method == "haptic") return Haptic(call.arguments, std::move(result));
  result->NotImplemented();
}

std::vector<std::shared_ptr<GameController>> AppleGameControllerBridge::Gamepads() {
  std::vector<std::shared_ptr<GameController>> gamepads = backend_->Controllers();
  std::erase_if(gamepads, [](const auto& c) { return !c || !c->has_extended_gamepad(); });
  return gamepads;
}

void AppleGameControllerBridge::Controllers(std::unique_ptr<MethodResult> result) {
  backend_->Update();
  const std::shared_ptr<GameController> current = backend_->Current();
  ValueList list;
  for (const auto& controller : Gamepads()) {
    list.emplace_back(Entry(*controller, controller == current));
  }
  result->Success(Value(std::move(list)));
}

std::shared_ptr<GameController> AppleGameControllerBridge::FindController(const std::string* name) {
  const auto gamepads = Gamepads();
  if (name) {
    for (const auto& controller : gamepads) {
      if (DisplayName(*controller) == *name) return controller;
    }
  }
  if (auto current = backend_->Current()) return current;
  if (gamepads.size() == 1) return gamepads.front();
  return nullptr;
}

void AppleGameControllerBridge::Haptic(const Value& arguments,
                                       std::unique_ptr<MethodResult> result) {
  Args args(arguments);
  const std::optional<HapticPattern> pattern = ParsePulses(args.value("pulses"));
  if (!pattern) {
    Debug("haptic: the pulse list is not 1 to 32 valid pulses");
    return result->Success(Value(false));
  }
  backend_->Update();
  const std::shared_ptr<GameController> controller = FindController(args.string("name"));
  if (!controller) {
    Debug("haptic: no controller to play on");
    return result->Success(Value(false));
  }
  result->Success(Value(Play(controller, *pattern)));
}

bool AppleGameControllerBridge::Play(const std::shared_ptr<GameController>& controller,
                                     const HapticPattern& pattern) {
  // The second attempt always gets a fresh engine: whatever broke the first may be the engine.
  for (int attempt = 0; attempt < 2; ++attempt) {
    HapticEngine* engine = EngineFor(controller);
    if (attempt > 0 || !engine || !engine->running) {
      if (engine) DropEngine(controller);
      if (!MakeEngine(controller)) return false;
      engine = EngineFor(controller);
      if (!engine) return false;
    }
    if (engine->engine->Play(pattern)) return true;
    Debug("haptic: the pattern did not start (attempt " + std::to_string(attempt + 1) + ")");
    engine->running = false;
  }
  DropEngine(controller);
  return false;
}

bool AppleGameControllerBridge::MakeEngine(const std::shared_ptr<GameController>& controller) {
  const std::optional<HapticsLocality> locality = UsableLocality(*controller);
  if (!locality) return false;
  std::unique_ptr<HapticDevice> device = controller->CreateHapticEngine(*locality);
  if (!device) return false;
  auto engine = std::make_shared<HapticEngine>(std::move(device));

  // The handlers may run on any thread; they act on the main thread, and only if this engine
  // is still the one kept for the controller by then.
  using Action =
      void (*)(AppleGameControllerBridge&, const std::shared_ptr<GameController>&, HapticEngine&);
  auto on_main = [weak_bridge = weak_from_this(), weak_engine = std::weak_ptr(engine),
                  controller](Action act) {
    return [=] {
      dispatch::MainQueue().Async([=] {
        auto bridge = weak_bridge.lock();
        auto kept = weak_engine.lock();
        if (!bridge || !kept || bridge->EngineFor(controller) != kept.get()) return;
        act(*bridge, controller, *kept);
      });
    };
  };
  // Stopped by the system: forget it, so the next call makes a new one.
  engine->engine->SetStoppedHandler(
      on_main([](AppleGameControllerBridge& bridge,
                 const std::shared_ptr<GameController>& stopped_controller,
                 HapticEngine&) { bridge.engines_.erase(stopped_controller); }));
  // A reset engine is restarted in place; if that fails the next call replaces it.
  engine->engine->SetResetHandler(
      on_main([](AppleGameControllerBridge&, const std::shared_ptr<GameController>&,
                 HapticEngine& reset) { reset.running = reset.engine->Start(); }));

  if (!engine->engine->Start()) {
    Debug("haptic: the engine did not start");
    return false;
  }
  engine->running = true;
  engines_[controller] = std::move(engine);
  return true;
}

void AppleGameControllerBridge::DropEngine(const std::shared_ptr<GameController>& controller) {
  auto it = engines_.find(controller);
  if (it == engines_.end()) return;
  std::shared_ptr<HapticEngine> engine = std::move(it->second);
  engines_.erase(it);
  engine->engine->Stop();
}

HapticEngine* AppleGameControllerBridge::EngineFor(
    const std::shared_ptr<GameController>& controller) const {
  auto it = engines_.find(controller);
  return it == engines_.end() ? nullptr : it->second.get();
}

bool AppleGameControllerBridge::HasEngine(const std::shared_ptr<GameController>& controller) const {
  return EngineFor(controller) != nullptr;
}

bool AppleGameControllerBridge::EngineRunning(
    const std::shared_ptr<GameController>& controller) const {
  const HapticEngine* engine = EngineFor(controller);
  return engine && engine->running;
}

}  // namespace corvane::gamepad
