#include "channel/value.h"

#include <algorithm>
#include <limits>

namespace corvane::channel {

ValueMap::ValueMap(std::initializer_list<MapEntry> entries) : entries_(entries) {}

namespace {
// Maps built entry by entry (events, results) mostly hold a handful of entries: starting at
// four skips the reallocations, each moving every entry, of growing from one.
void Grow(std::vector<MapEntry>& entries) {
  if (entries.size() == entries.capacity())
    entries.reserve(std::max<size_t>(4, entries.size() * 2));
}
}  // namespace

void ValueMap::Append(Value key, Value value) {
  Grow(entries_);
  entries_.push_back(MapEntry{std::move(key), std::move(value)});
}

void ValueMap::Set(std::string_view key, Value value) {
  for (auto& entry : entries_) {
    const std::string* s = entry.key.string_if();
    if (s && *s == key) {
      entry.value = std::move(value);
      return;
    }
  }
  Grow(entries_);
  entries_.push_back(MapEntry{Value(key), std::move(value)});
}

const Value* ValueMap::Find(std::string_view key) const {
  for (const auto& entry : entries_) {
    const std::string* s = entry.key.string_if();
    if (s && *s == key) return &entry.value;
  }
  return nullptr;
}

const Value* ValueMap::Find(const Value& key) const {
  for (const auto& entry : entries_) {
    if (entry.key == key) return &entry.value;
  }
  return nullptr;
}

bool operator==(const ValueMap& a, const ValueMap& b) { return a.entries_ == b.entries_; }

Value Value::Integer(int64_t i) {
  if (i >= std::numeric_limits<int32_t>::min() && i <= std::numeric_limits<int32_t>::max()) {
    return Value(static_cast<int32_t>(i));
  }
  return Value(i);
}

std::optional<int64_t> Value::integer() const {
  if (const auto* i = std::get_if<int32_t>(&data_)) return *i;
  if (const auto* i = std::get_if<int64_t>(&data_)) return *i;
  return std::nullopt;
}

bool operator==(const Value& a, const Value& b) { return a.data_ == b.data_; }

std::string_view TypeName(Value::Type type) {
  switch (type) {
    case Value::Type::kNull:
      return "null";
    case Value::Type::kBool:
      return "bool";
    case Value::Type::kInt32:
      return "int32";
    case Value::Type::kInt64:
      return "int64";
    case Value::Type::kFloat64:
      return "float64";
    case Value::Type::kString:
      return "string";
    case Value::Type::kBytes:
      return "bytes";
    case Value::Type::kInt32List:
      return "int32list";
    case Value::Type::kInt64List:
      return "int64list";
    case Value::Type::kFloat32List:
      return "float32list";
    case Value::Type::kFloat64List:
      return "float64list";
    case Value::Type::kList:
      return "list";
    case Value::Type::kMap:
      return "map";
  }
  return "unknown";
}

}  // namespace corvane::channel
