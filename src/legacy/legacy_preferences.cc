#include "legacy/legacy_preferences.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <bit>
#include <cerrno>
#include <unordered_map>

#include "channel/utf8.h"

namespace corvane::legacy {

namespace {

using channel::Value;
using channel::ValueList;
using channel::ValueMap;

constexpr const char* kLanguagesKey = "AppleLanguages";
constexpr const char* kDemoKey = "corvane.demo.isEnabled";
constexpr const char* kICloudKey = "z21.icloud.enabled";
constexpr const char* kLanguageOverrideKey = "z21.appLanguageOverride";
constexpr int64_t kMacEpochOffset = 978307200;  // 2001-01-01 in Unix seconds

// The Flutter side refuses malformed UTF-8, and a property list can hold anything: each bad
// byte becomes U+FFFD.
std::string ValidUtf8(const char* s, size_t n) {
  const auto* p = reinterpret_cast<const unsigned char*>(s);
  if (channel::IsValidUtf8(p, n)) return std::string(s, n);
  std::string out;
  out.reserve(n + 8);
  for (size_t i = 0; i < n;) {
    const size_t len = channel::Utf8SequenceLength(p + i, n - i);
    if (len == 0) {
      out += "\xEF\xBF\xBD";
      ++i;
    } else {
      out.append(s + i, len);
      i += len;
    }
  }
  return out;
}

std::string_view KeyView(const char* key) { return key ? std::string_view(key) : ""; }

bool StartsWith(std::string_view s, std::string_view prefix) { return s.starts_with(prefix); }

// Walks a dictionary's items in order with their keys as valid UTF-8. A key that appears twice
// keeps its first place and its last value, as a dictionary built from the file would.
template <typename Accept>
std::vector<std::pair<std::string, plist_t>> DictionaryItems(plist_t dict, Accept accept) {
  std::vector<std::pair<std::string, plist_t>> items;
  const uint32_t count = plist_dict_get_size(dict);
  items.reserve(count);
  // Most maps in a store are small: a scan finds a repeated key faster than hashing would.
  // Large ones index the keys where they are kept: `items` never reallocates (reserved), so
  // the views stay valid.
  constexpr uint32_t kScanLimit = 16;
  std::unordered_map<std::string_view, size_t> seen;
  if (count > kScanLimit) seen.reserve(count);
  auto find = [&](const std::string& key) -> std::pair<size_t, bool> {
    if (count <= kScanLimit) {
      for (size_t i = 0; i < items.size(); ++i) {
        if (items[i].first == key) return {i, false};
      }
      return {items.size(), true};
    }
    auto pos = seen.find(key);
    return pos == seen.end() ? std::pair{items.size(), true} : std::pair{pos->second, false};
  };
  plist_dict_iter it = nullptr;
  plist_dict_new_iter(dict, &it);
  if (!it) return items;
  for (;;) {
    char* raw = nullptr;
    plist_t value = nullptr;
    plist_dict_next_item(dict, it, &raw, &value);
    if (!value) {
      free(raw);
      break;
    }
    const std::string_view key = KeyView(raw);
    if (accept(key)) {
      std::string clean = ValidUtf8(key.data(), key.size());
      const auto [index, fresh] = find(clean);
      if (fresh && items.size() < count) {
        items.emplace_back(std::move(clean), value);
        if (count > kScanLimit) seen.emplace(items.back().first, index);
      } else if (!fresh) {
        items[index].second = value;
      }
    }
    free(raw);
  }
  free(it);
  return items;
}

// A copy whose strings are all valid UTF-8: libplist's binary writer crashes on malformed ones,
// and readers of the backup refuse them. Depth is bounded by parsing.
plist_t CleanCopy(plist_t node) {
  switch (plist_get_node_type(node)) {
    case PLIST_STRING: {
      uint64_t n = 0;
      const char* s = plist_get_string_ptr(node, &n);
      return plist_new_string(s ? ValidUtf8(s, n).c_str() : "");
    }
    case PLIST_ARRAY: {
      plist_t copy = plist_new_array();
      const uint32_t n = plist_array_get_size(node);
      for (uint32_t i = 0; i < n; ++i) {
        plist_array_append_item(copy, CleanCopy(plist_array_get_item(node, i)));
      }
      return copy;
    }
    case PLIST_DICT: {
      plist_t copy = plist_new_dict();
      for (const auto& [key, value] :
           DictionaryItems(node, [](std::string_view) { return true; })) {
        plist_dict_set_item(copy, key.c_str(), CleanCopy(value));
      }
      return copy;
    }
    default:
      return plist_copy(node);
  }
}

// Seconds since 2001 as stored. plist_get_date_val truncates them to 32 bits and drops the sign
// of the fraction, so the date is read back from its own binary form: after the "bplist00"
// header comes its one object, marker 0x33 and a big-endian double.
double DateSeconds(plist_t node) {
  const std::vector<uint8_t> bin = SerializeBinary(node);
  constexpr size_t kObject = 8;
  if (bin.size() >= kObject + 9 && bin[kObject] == 0x33) {
    uint64_t bits = 0;
    for (size_t i = 1; i <= 8; ++i) bits = bits << 8 | bin[kObject + i];
    return std::bit_cast<double>(bits);
  }
  int32_t sec = 0, usec = 0;
  plist_get_date_val(node, &sec, &usec);
  return sec + usec / 1e6;
}

bool ReadWholeFile(const std::string& path, std::vector<uint8_t>& out) {
  // Non-blocking, so a FIFO planted at the path cannot hold the queue.
  const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY);
  if (fd < 0) return false;
  struct stat st {};
  bool ok = fstat(fd, &st) == 0 && S_ISREG(st.st_mode) && st.st_size > 0 &&
            static_cast<uint64_t>(st.st_size) <= kMaxPropertyListBytes;
  if (ok) {
    out.resize(static_cast<size_t>(st.st_size));
    size_t done = 0;
    while (done < out.size()) {
      const ssize_t n = read(fd, out.data() + done, out.size() - done);
      if (n < 0 && errno == EINTR) continue;
      if (n <= 0) break;
      done += static_cast<size_t>(n);
    }
    out.resize(done);  // a file that shrank meanwhile reads as what was there
    ok = done > 0;
  }
  close(fd);
  return ok;
}

}  // namespace

bool IsLegacyKey(std::string_view key) {
  if (StartsWith(key, "flutter.") || StartsWith(key, "corvane.apple.")) return false;
  if (key == kLanguagesKey || key == "locoStripMaxRows" || key == "settingsLocoListLayoutMode") {
    return true;
  }
  for (std::string_view prefix : {"z21.", "corvane.", "switchboard.", "unifiedThrottle."}) {
    if (StartsWith(key, prefix)) return true;
  }
  return false;
}

Value ToCodecValue(plist_t node, int depth) {
  switch (plist_get_node_type(node)) {
    case PLIST_BOOLEAN:
      return Value(plist_bool_val_is_true(node) != 0);
    case PLIST_UINT: {
      // libplist keeps every integer as 64 bits; the stores hold signed ones.
      uint64_t v = 0;
      plist_get_uint_val(node, &v);
      return Value::Integer(static_cast<int64_t>(v));
    }
    case PLIST_REAL: {
      double v = 0;
      plist_get_real_val(node, &v);
      return Value(v);
    }
    case PLIST_STRING:
    case PLIST_KEY: {
      uint64_t n = 0;
      const char* s = plist_get_string_ptr(node, &n);
      return s ? Value(ValidUtf8(s, n)) : Value(std::string());
    }
    case PLIST_DATA: {
      uint64_t n = 0;
      const char* p = plist_get_data_ptr(node, &n);
      const auto* b = reinterpret_cast<const uint8_t*>(p);
      return Value(p ? channel::Bytes(b, b + n) : channel::Bytes());
    }
    case PLIST_DATE: {
      // A tagged map on purpose: a bare number would be indistinguishable from a setting.
      const double seconds = DateSeconds(node) + kMacEpochOffset;
      ValueMap date;
      date.Append(Value("$date"), Value(seconds));
      return Value(std::move(date));
    }
    case PLIST_ARRAY: {
      if (depth > kMaxValueDepth) return Value();
      const uint32_t n = plist_array_get_size(node);
      ValueList list;
      list.reserve(n);
      for (uint32_t i = 0; i < n; ++i) {
        list.push_back(ToCodecValue(plist_array_get_item(node, i), depth + 1));
      }
      return Value(std::move(list));
    }
    case PLIST_DICT: {
      if (depth > kMaxValueDepth) return Value();
      auto items = DictionaryItems(node, [](std::string_view) { return true; });
      ValueMap map;
      map.reserve(items.size());
      for (auto& [key, value] : items) {
        map.Append(Value(std::move(key)), ToCodecValue(value, depth + 1));
      }
      return Value(std::move(map));
    }
    default:
      return Value();
  }
}

LegacyPreferences LegacyPreferences::Load(const std::string& path) {
  std::vector<uint8_t> bytes;
  if (!ReadWholeFile(path, bytes)) return {};
  return Parse(bytes.data(), bytes.size());
}

LegacyPreferences LegacyPreferences::Parse(const uint8_t* data, size_t size) {
  LegacyPreferences prefs;
  Plist root = ParsePropertyList(data, size);
  if (!root || plist_get_node_type(root.get()) != PLIST_DICT) return prefs;
  prefs.keys_ = DictionaryItems(root.get(), IsLegacyKey);
  prefs.store_ = std::move(root);
  return prefs;
}

plist_t LegacyPreferences::Find(std::string_view key) const {
  for (const auto& [k, node] : keys_) {
    if (k == key) return node;
  }
  return nullptr;
}

ValueMap LegacyPreferences::Values() const& {
  ValueMap values;
  values.reserve(keys_.size());
  for (const auto& [key, node] : keys_) values.Append(Value(key), ToCodecValue(node));
  return values;
}

ValueMap LegacyPreferences::Values() && {
  ValueMap values;
  values.reserve(keys_.size());
  for (auto& [key, node] : keys_) values.Append(Value(std::move(key)), ToCodecValue(node));
  keys_.clear();
  return values;
}

ValueMap LegacyPreferences::Probe() const {
  int64_t key_count = 0;
  int64_t byte_count = 0;
  for (const auto& [key, node] : keys_) {
    if (key != kLanguagesKey) ++key_count;
    if (plist_get_node_type(node) == PLIST_DATA) {
      uint64_t n = 0;
      plist_get_data_ptr(node, &n);
      byte_count += static_cast<int64_t>(n);
    }
  }
  auto flag = [this](const char* key) {
    plist_t node = Find(key);
    return node && plist_get_node_type(node) == PLIST_BOOLEAN && plist_bool_val_is_true(node);
  };
  ValueMap probe;
  probe.Append(Value("hasLegacyData"), Value(key_count > 0));
  probe.Append(Value("keyCount"), Value::Integer(key_count));
  probe.Append(Value("byteCount"), Value::Integer(byte_count));
  probe.Append(Value("storeDemo"), Value(flag(kDemoKey)));
  probe.Append(Value("icloudKeyValue"), Value(flag(kICloudKey)));
  plist_t language = Find(kLanguageOverrideKey);
  if (language && plist_get_node_type(language) == PLIST_STRING) {
    Value text = ToCodecValue(language);
    if (!text.string_if()->empty()) probe.Append(Value("language"), std::move(text));
  }
  return probe;
}

std::vector<uint8_t> LegacyPreferences::Serialize() const {
  Plist dict(plist_new_dict());
  for (const auto& [key, node] : keys_) {
    plist_dict_set_item(dict.get(), key.c_str(), CleanCopy(node));
  }
  return SerializeBinary(dict.get());
}

}  // namespace corvane::legacy
