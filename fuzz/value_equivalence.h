// Value comparison for round-trip properties, where operator== is too strict in two known ways:
// NaN never equals itself, and the codec may legitimately narrow an int64 that fits in 32 bits.
#pragma once

#include "channel/value.h"

namespace corvane::fuzz {

struct Equivalence {
  // Treat int32 and int64 holding the same number as equal (the codec picks width by value).
  bool integers_by_value = false;
};

// Floats compare by bit pattern, except that any NaN equals any NaN; so +0.0 and -0.0 differ.
bool Equivalent(const channel::Value& a, const channel::Value& b, Equivalence how = {});

}  // namespace corvane::fuzz
