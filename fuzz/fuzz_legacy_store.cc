// The legacy preference store, read through libplist: whatever the bytes, reading ends within
// its bounds, and what comes out is a reply the codec can carry and a backup that reads back.
#include <cstddef>
#include <cstdint>

#include "channel/standard_codec.h"
#include "fuzz_check.h"
#include "legacy/legacy_preferences.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  using corvane::channel::Value;
  using corvane::legacy::LegacyPreferences;
  const LegacyPreferences prefs = LegacyPreferences::Parse(data, size);
  const corvane::channel::ValueMap values = prefs.Values();
  FUZZ_CHECK(values.size() == prefs.size());
  FUZZ_CHECK(corvane::channel::DecodeMessage(corvane::channel::EncodeMessage(Value(values))));

  const corvane::channel::ValueMap probe = prefs.Probe();
  const auto key_count = probe.Find("keyCount")->integer();
  FUZZ_CHECK(key_count && *key_count >= 0 && static_cast<size_t>(*key_count) <= prefs.size());
  FUZZ_CHECK((*probe.Find("hasLegacyData") == Value(true)) == (*key_count > 0));
  FUZZ_CHECK(corvane::channel::DecodeMessage(corvane::channel::EncodeMessage(Value(probe))));

  const std::vector<uint8_t> backup = prefs.Serialize();
  FUZZ_CHECK(!backup.empty());
  FUZZ_CHECK(LegacyPreferences::Parse(backup.data(), backup.size()).size() == prefs.size());
  return 0;
}
