// Random codec values and method calls for the robustness harness: every codec type, nested,
// with keys and strings drawn partly from the channels' real vocabulary.
#pragma once

#include <random>
#include <string>
#include <vector>

#include "channel/standard_codec.h"

namespace corvane::robustness {

class RandomCalls {
 public:
  RandomCalls(uint64_t seed, std::vector<std::string> methods, std::vector<std::string> keys);

  channel::Value Value(int depth = 0);
  channel::MethodCall Call();
  // Bytes that are probably not a valid method call: garbage, truncations, bad tags.
  channel::Bytes Malformed();

  std::mt19937_64& rng() { return rng_; }

 private:
  int64_t Integer();
  std::string String();
  std::string Pick(const std::vector<std::string>& from);

  std::mt19937_64 rng_;
  std::vector<std::string> methods_;
  std::vector<std::string> keys_;
};

}  // namespace corvane::robustness
