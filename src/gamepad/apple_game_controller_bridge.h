// AppleGameControllerBridge: the attached game controllers and their haptics for the Flutter
// side, on `io.corvane/gamepad`.
//
// Everything happens on the main thread: the method calls, the disconnect handler and the
// engines' stopped and reset handlers (which hop there), so `engines_` needs no lock. The
// service never answers with an error: "haptic" says false for every kind of failure.
#pragma once

#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "channel/method_channel.h"
#include "gamepad/controller_backend.h"
#include "gamepad/haptic_engine.h"

namespace corvane::gamepad {

inline constexpr const char* kMethodChannel = "io.corvane/gamepad";

class AppleGameControllerBridge : public std::enable_shared_from_this<AppleGameControllerBridge> {
 public:
  // Opens the channel on `messenger` and starts observing disconnects (main thread).
  static std::shared_ptr<AppleGameControllerBridge> Create(
      channel::BinaryMessenger& messenger, std::unique_ptr<ControllerBackend> backend);
  // On the SDL backend.
  static std::shared_ptr<AppleGameControllerBridge> Create(channel::BinaryMessenger& messenger);
  ~AppleGameControllerBridge();

  AppleGameControllerBridge(const AppleGameControllerBridge&) = delete;
  AppleGameControllerBridge& operator=(const AppleGameControllerBridge&) = delete;

  // The controller a name addresses: the first gamepad with that display name; else (no name,
  // or no match) the current controller, even one that is not a gamepad; else the only gamepad.
  // Answers from what the backend learnt at the start of the last call.
  std::shared_ptr<GameController> FindController(const std::string* name);

  // Whether an engine is kept for `controller`, and whether it is running.
  bool HasEngine(const std::shared_ptr<GameController>& controller) const;
  bool EngineRunning(const std::shared_ptr<GameController>& controller) const;

 private:
  explicit AppleGameControllerBridge(std::unique_ptr<ControllerBackend> backend);
  void Open(channel::BinaryMessenger& messenger);

  void HandleCall(const channel::MethodCall& call, std::unique_ptr<channel::MethodResult> result);
  void Controllers(std::unique_ptr<channel::MethodResult> result);
  void Haptic(const channel::Value& arguments, std::unique_ptr<channel::MethodResult> result);

  std::vector<std::shared_ptr<GameController>> Gamepads();
  bool Play(const std::shared_ptr<GameController>& controller, const HapticPattern& pattern);
  bool MakeEngine(const std::shared_ptr<GameController>& controller);
  // Forgets the controller's engine and stops it without waiting.
  void DropEngine(const std::shared_ptr<GameController>& controller);
  HapticEngine* EngineFor(const std::shared_ptr<GameController>& controller) const;

  // Keyed by controller identity; an entry keeps its controller alive until it is removed.
  std::map<std::shared_ptr<GameController>, std::shared_ptr<HapticEngine>, std::owner_less<>>
      engines_;
  // Holds the disconnect observer; there is deliberately no connect observer: the list is read
  // afresh on every call.
  std::unique_ptr<ControllerBackend> backend_;
  std::unique_ptr<channel::MethodChannel> channel_;
};

// The name the Flutter side addresses a controller by: "<vendor> - <product category>", or the
// category alone when the controller reports no vendor.
std::string DisplayName(const GameController& controller);

// The locality a controller's haptics are used with: default, else handles; none when neither.
std::optional<HapticsLocality> UsableLocality(const GameController& controller);

}  // namespace corvane::gamepad
