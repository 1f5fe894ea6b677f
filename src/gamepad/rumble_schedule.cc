#include "gamepad/rumble_schedule.h"

#include <algorithm>
#include <cmath>

namespace corvane::gamepad {

namespace {

uint16_t MotorStrength(double fraction) {
  return static_cast<uint16_t>(std::lround(std::clamp(fraction, 0.0, 1.0) * 0xFFFF));
}

uint32_t OffsetMs(const HapticPulse& pulse) {
  return static_cast<uint32_t>(std::lround(std::max(pulse.time_s, 0.0) * 1000.0));
}

}  // namespace

RumbleStep RumbleFor(const HapticPulse& pulse) {
  // A cross-fade that keeps the peak: at sharpness 0.5 both motors run at full intensity, at
  // 0 only the low-frequency one, at 1 only the high-frequency one.
  const double sharpness = std::clamp(static_cast<double>(pulse.sharpness), 0.0, 1.0);
  const double intensity = std::clamp(static_cast<double>(pulse.intensity), 0.0, 1.0);
  return RumbleStep{OffsetMs(pulse), MotorStrength(intensity * std::min(1.0, 2 * (1 - sharpness))),
                    MotorStrength(intensity * std::min(1.0, 2 * sharpness))};
}

std::vector<RumbleStep> ScheduleRumble(const HapticPattern& pattern) {
  std::vector<RumbleStep> pulses;
  pulses.reserve(pattern.size());
  for (const HapticPulse& pulse : pattern) pulses.push_back(RumbleFor(pulse));
  std::stable_sort(pulses.begin(), pulses.end(),
                   [](const RumbleStep& a, const RumbleStep& b) { return a.at_ms < b.at_ms; });

  std::vector<RumbleStep> merged;
  for (const RumbleStep& pulse : pulses) {
    if (!merged.empty() && pulse.at_ms - merged.back().at_ms < kMotorResolutionMs) {
      merged.back().low = std::max(merged.back().low, pulse.low);
      merged.back().high = std::max(merged.back().high, pulse.high);
    } else {
      merged.push_back(pulse);
    }
  }

  std::vector<RumbleStep> steps;
  steps.reserve(merged.size() * 2);
  for (size_t i = 0; i < merged.size(); ++i) {
    steps.push_back(merged[i]);
    const uint32_t end = merged[i].at_ms + kPulseMs;
    if (i + 1 == merged.size() || merged[i + 1].at_ms > end) steps.push_back(RumbleStep{end, 0, 0});
  }
  return steps;
}

}  // namespace corvane::gamepad
