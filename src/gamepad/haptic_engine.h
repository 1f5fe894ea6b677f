// One controller's haptic engine as the bridge keeps it, and the reading of a "haptic" call's
// pulse list into a pattern.
#pragma once

#include <memory>
#include <optional>

#include "channel/value.h"
#include "gamepad/controller_backend.h"

namespace corvane::gamepad {

// Kept per controller between calls. `running` turns false after a failed play or a failed
// restart; the next call then replaces the engine rather than trying it again.
class HapticEngine {
 public:
  explicit HapticEngine(std::unique_ptr<HapticDevice> device) : engine(std::move(device)) {}

  std::unique_ptr<HapticDevice> engine;
  bool running = false;
};

inline constexpr size_t kMaxPulses = 32;
inline constexpr double kMaxPulseOffsetMs = 10000;

// The pattern for a "pulses" argument: 1 to 32 pulses, each a list of at least three finite
// numbers [offset ms, intensity, sharpness]; offsets 0 ... 10000 ms, intensity and sharpness
// clamped to 0 ... 1. Nothing when any pulse is bad: one bad pulse rejects the whole call.
std::optional<HapticPattern> ParsePulses(const channel::Value* pulses);

}  // namespace corvane::gamepad
