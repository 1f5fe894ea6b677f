// Codec values to JSON text, in the shortest form that the reader maps back to the same value.
#include <charconv>
#include <cmath>
#include <limits>
#include <unordered_set>

#include "json/hex.h"
#include "json/json_internal.h"
#include "json/json_mapping.h"

namespace corvane::json {

namespace {

using channel::Value;
using channel::ValueMap;

// Beyond this many keys, uniqueness is checked with a set instead of pairwise.
constexpr size_t kPairwiseKeyCheck = 16;

void AppendString(std::string_view s, std::string& out) {
  static constexpr char kHex[] = "0123456789abcdef";
  out += '"';
  const auto* p = reinterpret_cast<const unsigned char*>(s.data());
  const size_t n = s.size();
  size_t run = 0;
  for (size_t i = 0; i < n;) {
    const unsigned char c = p[i];
    if (c >= 0x20 && c < 0x80 && c != '"' && c != '\\') {
      ++i;
      continue;
    }
    out.append(s.data() + run, i - run);
    if (c >= 0x80) {
      // Codec strings are valid UTF-8 when they come off the wire; a value built in code might
      // not be, and the output must stay valid JSON either way.
      const size_t len = Utf8SequenceLength(p + i, n - i);
      if (len) {
        out.append(s.data() + i, len);
        i += len;
      } else {
        out += "\\ufffd";
        ++i;
      }
      run = i;
      continue;
    }
    switch (c) {
      case '"':
        out += "\\\"";
        break;
      case '\\':
        out += "\\\\";
        break;
      case '\b':
        out += "\\b";
        break;
      case '\f':
        out += "\\f";
        break;
      case '\n':
        out += "\\n";
        break;
      case '\r':
        out += "\\r";
        break;
      case '\t':
        out += "\\t";
        break;
      default:
        out += "\\u00";
        out += kHex[c >> 4];
        out += kHex[c & 15];
    }
    ++i;
    run = i;
  }
  out.append(s.data() + run, n - run);
  out += '"';
}

// Shortest digits that read back as the same T. With `mark_float`, a whole number gets ".0" so
// that it reads back as a float64 rather than an integer.
template <typename T>
void AppendFloat(T v, std::string& out, bool mark_float) {
  if (std::isnan(v)) {
    out += "\"NaN\"";
    return;
  }
  if (std::isinf(v)) {
    out += v > 0 ? "\"Infinity\"" : "\"-Infinity\"";
    return;
  }
  char buf[64];
  const auto r = std::to_chars(buf, buf + sizeof buf, v);
  const std::string_view text(buf, static_cast<size_t>(r.ptr - buf));
  out += text;
  if (mark_float && text.find_first_of(".e") == std::string_view::npos) out += ".0";
}

template <typename T>
void AppendInteger(T v, std::string& out) {
  char buf[24];
  const auto r = std::to_chars(buf, buf + sizeof buf, v);
  out.append(buf, r.ptr);
}

template <typename T, typename F>
void AppendTaggedList(std::string_view tag, const std::vector<T>& list, std::string& out,
                      F&& element) {
  out += "{\"";
  out += tag;
  out += "\":[";
  for (size_t i = 0; i < list.size(); ++i) {
    if (i) out += ',';
    element(list[i]);
  }
  out += "]}";
}

// A map prints as a plain object only if the reader would read that object back as the same
// map: string keys, no repeats, and not a lone "$" key, which would read as a tag.
bool IsPlainObject(const ValueMap& map) {
  if (map.size() == 1) {
    const std::string* key = map.begin()->key.string_if();
    return key && (key->empty() || (*key)[0] != '$');
  }
  const auto& entries = map.entries();
  for (const auto& e : entries) {
    if (!e.key.string_if()) return false;
  }
  if (entries.size() <= kPairwiseKeyCheck) {
    for (size_t i = 0; i < entries.size(); ++i) {
      for (size_t j = i + 1; j < entries.size(); ++j) {
        if (*entries[i].key.string_if() == *entries[j].key.string_if()) return false;
      }
    }
    return true;
  }
  std::unordered_set<std::string_view> seen;
  seen.reserve(entries.size());
  for (const auto& e : entries) {
    if (!seen.insert(*e.key.string_if()).second) return false;
  }
  return true;
}

}  // namespace

void AppendJson(const Value& value, std::string& out) {
  switch (value.type()) {
    case Value::Type::kNull:
      out += "null";
      return;
    case Value::Type::kBool:
      out += *value.bool_if() ? "true" : "false";
      return;
    case Value::Type::kInt32:
      AppendInteger(*value.integer(), out);
      return;
    case Value::Type::kInt64: {
      // A plain number that fits int32 would read back as int32: keep the width visible.
      const int64_t i = *value.integer();
      const bool fits32 =
          i >= std::numeric_limits<int32_t>::min() && i <= std::numeric_limits<int32_t>::max();
      if (fits32) out += "{\"$int64\":";
      AppendInteger(i, out);
      if (fits32) out += '}';
      return;
    }
    case Value::Type::kFloat64: {
      const double d = *value.float64_if();
      const bool finite = std::isfinite(d);
      if (!finite) out += "{\"$float64\":";
      AppendFloat(d, out, true);
      if (!finite) out += '}';
      return;
    }
    case Value::Type::kString:
      AppendString(*value.string_if(), out);
      return;
    case Value::Type::kBytes:
      out += "{\"$bytes\":\"";
      AppendHex(*value.bytes_if(), out);
      out += "\"}";
      return;
    case Value::Type::kInt32List:
      AppendTaggedList(tags::kInt32List, *value.int32_list_if(), out,
                       [&](int32_t v) { AppendInteger(v, out); });
      return;
    case Value::Type::kInt64List:
      AppendTaggedList(tags::kInt64List, *value.int64_list_if(), out,
                       [&](int64_t v) { AppendInteger(v, out); });
      return;
    case Value::Type::kFloat32List:
      AppendTaggedList(tags::kFloat32List, *value.float32_list_if(), out,
                       [&](float v) { AppendFloat(v, out, false); });
      return;
    case Value::Type::kFloat64List:
      AppendTaggedList(tags::kFloat64List, *value.float64_list_if(), out,
                       [&](double v) { AppendFloat(v, out, false); });
      return;
    case Value::Type::kList: {
      out += '[';
      bool first = true;
      for (const Value& item : *value.list_if()) {
        if (!first) out += ',';
        first = false;
        AppendJson(item, out);
      }
      out += ']';
      return;
    }
    case Value::Type::kMap: {
      const ValueMap& map = *value.map_if();
      if (IsPlainObject(map)) {
        out += '{';
        bool first = true;
        for (const auto& e : map) {
          if (!first) out += ',';
          first = false;
          AppendString(*e.key.string_if(), out);
          out += ':';
          AppendJson(e.value, out);
        }
        out += '}';
        return;
      }
      out += "{\"$map\":[";
      bool first = true;
      for (const auto& e : map) {
        if (!first) out += ',';
        first = false;
        out += '[';
        AppendJson(e.key, out);
        out += ',';
        AppendJson(e.value, out);
        out += ']';
      }
      out += "]}";
      return;
    }
  }
}

std::string ToJson(const Value& value) {
  std::string out;
  AppendJson(value, out);
  return out;
}

}  // namespace corvane::json
