#include "gamepad/haptic_engine.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <type_traits>

namespace corvane::gamepad {

namespace {

using channel::Value;

// The first three elements of a pulse as numbers. Dart sends whole numbers as integers, and a
// typed numeric list is as much a list of numbers as a plain one.
std::optional<std::array<double, 3>> FirstThreeNumbers(const Value& pulse) {
  std::array<double, 3> numbers{};
  auto take = [&numbers](const auto& list) -> bool {
    if (list.size() < numbers.size()) return false;
    for (size_t i = 0; i < numbers.size(); ++i) {
      using Element = std::decay_t<decltype(list[i])>;
      if constexpr (std::is_same_v<Element, Value>) {
        if (const double* d = list[i].float64_if()) {
          numbers[i] = *d;
        } else if (auto n = list[i].integer()) {
          numbers[i] = static_cast<double>(*n);
        } else {
          return false;
        }
      } else {
        numbers[i] = static_cast<double>(list[i]);
      }
    }
    return true;
  };
  bool ok = false;
  if (const auto* l = pulse.list_if()) {
    ok = take(*l);
  } else if (const auto* f = pulse.float64_list_if()) {
    ok = take(*f);
  } else if (const auto* f32 = pulse.float32_list_if()) {
    ok = take(*f32);
  } else if (const auto* i32 = pulse.int32_list_if()) {
    ok = take(*i32);
  } else if (const auto* i64 = pulse.int64_list_if()) {
    ok = take(*i64);
  }
  if (!ok) return std::nullopt;
  return numbers;
}

float Clamp01(double v) { return static_cast<float>(std::clamp(v, 0.0, 1.0)); }

}  // namespace

std::optional<HapticPattern> ParsePulses(const Value* pulses) {
  // Anything that is not a list counts as no pulses at all.
  const channel::ValueList* list = pulses ? pulses->list_if() : nullptr;
  if (!list || list->empty() || list->size() > kMaxPulses) return std::nullopt;
  HapticPattern pattern;
  pattern.reserve(list->size());
  for (const Value& pulse : *list) {
    auto numbers = FirstThreeNumbers(pulse);
    if (!numbers) return std::nullopt;
    const auto [offset_ms, intensity, sharpness] = *numbers;
    if (!std::isfinite(offset_ms) || !std::isfinite(intensity) || !std::isfinite(sharpness)) {
      return std::nullopt;
    }
    if (offset_ms < 0 || offset_ms > kMaxPulseOffsetMs) return std::nullopt;
    pattern.push_back(HapticPulse{offset_ms / 1000.0, Clamp01(intensity), Clamp01(sharpness)});
  }
  return pattern;
}

}  // namespace corvane::gamepad
