// How a pattern of transient pulses plays on a controller's two rumble motors: each pulse is a
// short burst whose strength follows its intensity; sharpness moves it from the heavy
// low-frequency motor to the light high-frequency one. A motor cannot render pulses closer
// together than its resolution, so those merge into one.
#pragma once

#include <cstdint>
#include <vector>

#include "gamepad/controller_backend.h"

namespace corvane::gamepad {

// How long one transient keeps the motors on.
inline constexpr uint32_t kPulseMs = 40;
// Pulses that start within this of each other merge into one, at the stronger of each motor.
inline constexpr uint32_t kMotorResolutionMs = 15;

// Set both motors at `at_ms` from the start of the pattern; 0/0 is a stop.
struct RumbleStep {
  uint32_t at_ms = 0;
  uint16_t low = 0;
  uint16_t high = 0;
  friend bool operator==(const RumbleStep&, const RumbleStep&) = default;
};

// The motor settings for one pulse.
RumbleStep RumbleFor(const HapticPulse& pulse);

// Steps in time order: each (merged) pulse's start, and a stop after it unless the next pulse
// starts first. The last step is always a stop.
std::vector<RumbleStep> ScheduleRumble(const HapticPattern& pattern);

}  // namespace corvane::gamepad
