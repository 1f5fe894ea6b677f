// The earlier edition's preference store, narrowed to the keys that migration considers.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "channel/value.h"
#include "legacy/property_list.h"

namespace corvane::legacy {

// Whether migration considers `key`: the edition's own settings, not the new edition's
// preferences ("flutter.") nor platform-service state ("corvane.apple.").
bool IsLegacyKey(std::string_view key);

// Containers nested deeper than this read as null: the reply must stay within what the codec
// accepts, and the store's other keys still come through.
inline constexpr int kMaxValueDepth = 100;

// A property-list node as a codec value: data as bytes, dates as {"$date": seconds since 1970},
// lists and string-keyed maps element by element, anything else null. `depth` is the node's own.
channel::Value ToCodecValue(plist_t node, int depth = 1);

class LegacyPreferences {
 public:
  // No keys.
  LegacyPreferences() = default;
  // Reads the store at `path`. A missing, unreadable or malformed file, or one whose root is not
  // a dictionary, holds no legacy keys: there is then simply no legacy data.
  static LegacyPreferences Load(const std::string& path);
  static LegacyPreferences Parse(const uint8_t* data, size_t size);

  size_t size() const { return keys_.size(); }
  // Legacy keys with their values, in the store's order; from a temporary the keys are moved.
  channel::ValueMap Values() const&;
  channel::ValueMap Values() &&;
  // The summary the Flutter side decides on: counts, flags and the language override.
  channel::ValueMap Probe() const;
  // The legacy keys as one binary property list.
  std::vector<uint8_t> Serialize() const;

 private:
  plist_t Find(std::string_view key) const;

  Plist store_;
  // Keys as valid UTF-8, each with its node inside `store_`.
  std::vector<std::pair<std::string, plist_t>> keys_;
};

}  // namespace corvane::legacy
