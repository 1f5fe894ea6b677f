// JSON text to codec values. A recursive-descent reader that builds values directly; the
// depth of lists and maps is bounded, so recursion is too.
#include <charconv>
#include <cmath>
#include <limits>

#include "channel/standard_codec.h"
#include "json/hex.h"
#include "json/json_internal.h"
#include "json/json_mapping.h"

namespace corvane::json {

namespace {

using channel::Value;
using channel::ValueList;
using channel::ValueMap;

// The codec's own limit, so whatever is read here can also be sent and decoded again.
constexpr int kMaxDepth = channel::kMaxNestingDepth;

// A number as it stands in the text: conversion waits until the target type is known, so a
// float32 list element is rounded once, from its digits, and not through a double.
struct Number {
  std::string_view text;
  size_t offset = 0;
  bool integer = false;  // no fraction and no exponent
};

bool IsDigit(char c) { return c >= '0' && c <= '9'; }

void AppendUtf8(uint32_t cp, std::string& out) {
  if (cp < 0x80) {
    out += static_cast<char>(cp);
  } else if (cp < 0x800) {
    out += static_cast<char>(0xc0 | cp >> 6);
    out += static_cast<char>(0x80 | (cp & 0x3f));
  } else if (cp < 0x10000) {
    out += static_cast<char>(0xe0 | cp >> 12);
    out += static_cast<char>(0x80 | (cp >> 6 & 0x3f));
    out += static_cast<char>(0x80 | (cp & 0x3f));
  } else {
    out += static_cast<char>(0xf0 | cp >> 18);
    out += static_cast<char>(0x80 | (cp >> 12 & 0x3f));
    out += static_cast<char>(0x80 | (cp >> 6 & 0x3f));
    out += static_cast<char>(0x80 | (cp & 0x3f));
  }
}

class Reader {
 public:
  explicit Reader(std::string_view text) : s_(text) {}

  bool Document(Value& out) {
    if (!ParseValue(out, 0)) return false;
    SkipSpace();
    if (!AtEnd()) return Fail("unexpected characters after the value");
    return true;
  }

  const std::string& error() const { return error_; }

 private:
  bool FailAt(size_t offset, std::string_view what) {
    if (error_.empty()) error_ = std::string(what) + " at offset " + std::to_string(offset);
    return false;
  }
  bool Fail(std::string_view what) { return FailAt(pos_, what); }

  bool AtEnd() const { return pos_ >= s_.size(); }
  char Peek() const { return AtEnd() ? '\0' : s_[pos_]; }

  void SkipSpace() {
    while (!AtEnd()) {
      const char c = s_[pos_];
      if (c != ' ' && c != '\t' && c != '\n' && c != '\r') return;
      ++pos_;
    }
  }

  bool Consume(char c, std::string_view what) {
    SkipSpace();
    if (Peek() != c) return Fail(what);
    ++pos_;
    return true;
  }

  bool CheckDepth(int depth) {
    if (depth < kMaxDepth) return true;
    return Fail("lists and maps nested deeper than " + std::to_string(kMaxDepth) + " levels");
  }

  // '[' element (',' element)* ']' or '[' ']'; `element` reads one item at the current position.
  template <typename F>
  bool Elements(F&& element) {
    if (!Consume('[', "expected '['")) return false;
    SkipSpace();
    if (Peek() == ']') {
      ++pos_;
      return true;
    }
    for (;;) {
      SkipSpace();
      if (!element()) return false;
      SkipSpace();
      if (Peek() == ',') {
        ++pos_;
      } else if (Peek() == ']') {
        ++pos_;
        return true;
      } else {
        return Fail("expected ',' or ']'");
      }
    }
  }

  bool ParseValue(Value& out, int depth) {
    SkipSpace();
    if (AtEnd()) return Fail("unexpected end of input");
    switch (s_[pos_]) {
      case '{':
        return ParseObject(out, depth);
      case '[':
        return ParseList(out, depth);
      case '"': {
        std::string s;
        if (!ParseString(s)) return false;
        out = Value(std::move(s));
        return true;
      }
      case 't':
        return Literal("true", Value(true), out);
      case 'f':
        return Literal("false", Value(false), out);
      case 'n':
        return Literal("null", Value(), out);
      default: {
        Number n;
        return ParseNumber(n) && NumberValue(n, out);
      }
    }
  }

  bool Literal(std::string_view word, Value value, Value& out) {
    if (s_.substr(pos_, word.size()) != word) return Fail("invalid literal");
    pos_ += word.size();
    out = std::move(value);
    return true;
  }

  bool ParseNumber(Number& n) {
    const size_t start = pos_;
    if (Peek() == '-') ++pos_;
    if (Peek() == '0') {
      ++pos_;
    } else if (IsDigit(Peek())) {
      while (IsDigit(Peek())) ++pos_;
    } else {
      return FailAt(start, "unexpected character");
    }
    n.integer = true;
    if (Peek() == '.') {
      ++pos_;
      if (!IsDigit(Peek())) return Fail("expected a digit after the decimal point");
      while (IsDigit(Peek())) ++pos_;
      n.integer = false;
    }
    if (Peek() == 'e' || Peek() == 'E') {
      ++pos_;
      if (Peek() == '+' || Peek() == '-') ++pos_;
      if (!IsDigit(Peek())) return Fail("expected a digit in the exponent");
      while (IsDigit(Peek())) ++pos_;
      n.integer = false;
    }
    n.text = s_.substr(start, pos_ - start);
    n.offset = start;
    return true;
  }

  bool ToInt64(const Number& n, int64_t& out) {
    if (!n.integer) return FailAt(n.offset, "expected an integer");
    const auto r = std::from_chars(n.text.data(), n.text.data() + n.text.size(), out);
    if (r.ec != std::errc()) return FailAt(n.offset, "integer outside the int64 range");
    return true;
  }

  // Float32 and float64 both come straight from the digits. A number too large for the type
  // is an error rather than a silent infinity; the tags spell infinities out.
  template <typename T>
  bool ToFloat(const Number& n, T& out) {
    const auto r = std::from_chars(n.text.data(), n.text.data() + n.text.size(), out);
    if (r.ec == std::errc::result_out_of_range) {
      return FailAt(n.offset, std::is_same_v<T, float> ? "number outside the float32 range"
                                                       : "number outside the float64 range");
    }
    if (r.ec != std::errc()) return FailAt(n.offset, "invalid number");
    return true;
  }

  bool NumberValue(const Number& n, Value& out) {
    if (n.integer) {
      int64_t i;
      if (!ToInt64(n, i)) return false;
      out = Value::Integer(i);
      return true;
    }
    double d;
    if (!ToFloat(n, d)) return false;
    out = Value(d);
    return true;
  }

  bool ParseString(std::string& out) {
    if (Peek() != '"') return Fail("expected a string");
    ++pos_;
    for (;;) {
      const size_t run = pos_;
      while (!AtEnd()) {
        const auto c = static_cast<unsigned char>(s_[pos_]);
        if (c == '"' || c == '\\' || c < 0x20 || c >= 0x80) break;
        ++pos_;
      }
      out.append(s_.data() + run, pos_ - run);
      if (AtEnd()) return Fail("unterminated string");
      const auto c = static_cast<unsigned char>(s_[pos_]);
      if (c == '"') {
        ++pos_;
        return true;
      }
      if (c == '\\') {
        if (!ParseEscape(out)) return false;
        continue;
      }
      if (c < 0x20) return Fail("control character in a string");
      const size_t len = Utf8SequenceLength(
          reinterpret_cast<const unsigned char*>(s_.data()) + pos_, s_.size() - pos_);
      if (len == 0) return Fail("invalid UTF-8 in a string");
      out.append(s_.data() + pos_, len);
      pos_ += len;
    }
  }

  bool Hex4(uint32_t& out) {
    if (s_.size() - pos_ < 4) return Fail("truncated \\u escape");
    out = 0;
    for (int i = 0; i < 4; ++i) {
      const char c = s_[pos_ + i];
      uint32_t v;
      if (IsDigit(c)) {
        v = c - '0';
      } else if (c >= 'a' && c <= 'f') {
        v = c - 'a' + 10;
      } else if (c >= 'A' && c <= 'F') {
        v = c - 'A' + 10;
      } else {
        return Fail("bad hex digit in a \\u escape");
      }
      out = out << 4 | v;
    }
    pos_ += 4;
    return true;
  }

  bool ParseEscape(std::string& out) {
    const size_t start = pos_;
    ++pos_;  // the backslash
    if (AtEnd()) return Fail("unterminated string");
    const char e = s_[pos_++];
    switch (e) {
      case '"':
        out += '"';
        return true;
      case '\\':
        out += '\\';
        return true;
      case '/':
        out += '/';
        return true;
      case 'b':
        out += '\b';
        return true;
      case 'f':
        out += '\f';
        return true;
      case 'n':
        out += '\n';
        return true;
      case 'r':
        out += '\r';
        return true;
      case 't':
        out += '\t';
        return true;
      case 'u':
        break;
      default:
        return FailAt(start, "invalid escape");
    }
    uint32_t cp = 0;
    if (!Hex4(cp)) return false;
    // Codec strings are UTF-8, which cannot hold a lone surrogate: only a proper pair passes.
    if (cp >= 0xdc00 && cp <= 0xdfff) return FailAt(start, "unpaired low surrogate");
    if (cp >= 0xd800 && cp <= 0xdbff) {
      uint32_t low = 0;
      if (s_.substr(pos_, 2) != "\\u") return FailAt(start, "unpaired high surrogate");
      pos_ += 2;
      if (!Hex4(low)) return false;
      if (low < 0xdc00 || low > 0xdfff) return FailAt(start, "unpaired high surrogate");
      cp = 0x10000 + ((cp - 0xd800) << 10) + (low - 0xdc00);
    }
    AppendUtf8(cp, out);
    return true;
  }

  bool ParseList(Value& out, int depth) {
    if (!CheckDepth(depth)) return false;
    ValueList list;
    if (!Elements([&] {
          list.emplace_back();
          return ParseValue(list.back(), depth + 1);
        })) {
      return false;
    }
    out = Value(std::move(list));
    return true;
  }

  bool ParseKey(std::string& key) {
    SkipSpace();
    if (Peek() != '"') return Fail("expected a string key");
    return ParseString(key) && Consume(':', "expected ':'");
  }

  bool ParseObject(Value& out, int depth) {
    ++pos_;  // '{'
    SkipSpace();
    if (Peek() == '}') {
      if (!CheckDepth(depth)) return false;
      ++pos_;
      out = Value(ValueMap());
      return true;
    }
    std::string key;
    if (!ParseKey(key)) return false;
    if (!key.empty() && key[0] == '$') {
      // Only a one-key object is a tag; look past the value to see whether the object ends.
      // Nested lookaheads are bounded by the depth limit, so the cost stays linear in the
      // input times that limit even for hostile text.
      const size_t value_at = pos_;
      const bool alone = SkipValue() && (SkipSpace(), Peek() == '}');
      pos_ = value_at;
      if (alone) {
        SkipSpace();
        return ParseTagged(key, out, depth) && Consume('}', "expected '}'");
      }
    }
    if (!CheckDepth(depth)) return false;
    ValueMap map;
    for (;;) {
      Value value;
      if (!ParseValue(value, depth + 1)) return false;
      map.Append(Value(std::move(key)), std::move(value));
      SkipSpace();
      if (Peek() == '}') {
        ++pos_;
        break;
      }
      if (Peek() != ',') return Fail("expected ',' or '}'");
      ++pos_;
      key.clear();
      if (!ParseKey(key)) return false;
    }
    out = Value(std::move(map));
    return true;
  }

  // Moves past one value without building it; only used to look ahead, so it checks no more
  // than it needs to find the value's end. The real parse reports any error.
  bool SkipValue() {
    size_t depth = 0;
    do {
      SkipSpace();
      if (AtEnd()) return false;
      const char c = s_[pos_];
      if (c == '"') {
        for (++pos_; !AtEnd() && s_[pos_] != '"'; ++pos_) {
          if (s_[pos_] == '\\') ++pos_;
        }
        if (AtEnd()) return false;
        ++pos_;
      } else if (c == '[' || c == '{') {
        ++depth;
        ++pos_;
      } else if (c == ']' || c == '}') {
        if (depth == 0) return false;
        --depth;
        ++pos_;
      } else if (c == ',' || c == ':') {
        if (depth == 0) return false;
        ++pos_;
      } else {
        const size_t start = pos_;
        while (!AtEnd() &&
               std::string_view(",:[]{}\" \t\r\n").find(s_[pos_]) == std::string_view::npos) {
          ++pos_;
        }
        if (pos_ == start) return false;
      }
    } while (depth > 0);
    return true;
  }

  // NaN, Infinity and -Infinity as strings; anything else must be a number.
  template <typename T>
  bool ParseFloat(T& out) {
    if (Peek() == '"') {
      const size_t at = pos_;
      std::string s;
      if (!ParseString(s)) return false;
      if (s == tags::kNaN) {
        out = std::numeric_limits<T>::quiet_NaN();
      } else if (s == tags::kInfinity) {
        out = std::numeric_limits<T>::infinity();
      } else if (s == tags::kMinusInfinity) {
        out = -std::numeric_limits<T>::infinity();
      } else {
        return FailAt(at, "expected a number, \"NaN\", \"Infinity\" or \"-Infinity\"");
      }
      return true;
    }
    Number n;
    return ParseNumber(n) && ToFloat(n, out);
  }

  template <typename T>
  bool ParseIntList(Value& out) {
    std::vector<T> list;
    if (!Elements([&] {
          Number n;
          int64_t i;
          if (!ParseNumber(n) || !ToInt64(n, i)) return false;
          if constexpr (sizeof(T) < sizeof(int64_t)) {
            if (i < std::numeric_limits<T>::min() || i > std::numeric_limits<T>::max()) {
              return FailAt(n.offset, "integer outside the int32 range");
            }
          }
          list.push_back(static_cast<T>(i));
          return true;
        })) {
      return false;
    }
    out = Value(std::move(list));
    return true;
  }

  template <typename T>
  bool ParseFloatList(Value& out) {
    std::vector<T> list;
    if (!Elements([&] {
          list.emplace_back();
          return ParseFloat(list.back());
        })) {
      return false;
    }
    out = Value(std::move(list));
    return true;
  }

  bool ParseMapPairs(Value& out, int depth) {
    if (!CheckDepth(depth)) return false;
    ValueMap map;
    if (!Elements([&] {
          Value key;
          Value value;
          if (!Consume('[', "expected a [key, value] pair") || !ParseValue(key, depth + 1) ||
              !Consume(',', "expected ',' in a [key, value] pair") ||
              !ParseValue(value, depth + 1) || !Consume(']', "expected ']' after a map value")) {
            return false;
          }
          map.Append(std::move(key), std::move(value));
          return true;
        })) {
      return false;
    }
    out = Value(std::move(map));
    return true;
  }

  bool ParseTagged(std::string_view tag, Value& out, int depth) {
    const size_t at = pos_;
    if (tag == tags::kInt32 || tag == tags::kInt64) {
      Number n;
      int64_t i;
      if (!ParseNumber(n) || !ToInt64(n, i)) return false;
      if (tag == tags::kInt64) {
        out = Value(i);
        return true;
      }
      if (i < std::numeric_limits<int32_t>::min() || i > std::numeric_limits<int32_t>::max()) {
        return FailAt(at, "integer outside the int32 range");
      }
      out = Value(static_cast<int32_t>(i));
      return true;
    }
    if (tag == tags::kFloat64) {
      double d;
      if (!ParseFloat(d)) return false;
      out = Value(d);
      return true;
    }
    if (tag == tags::kBytes) {
      std::string hex;
      if (!ParseString(hex)) return false;
      std::string why;
      std::optional<channel::Bytes> bytes = HexDecode(hex, false, &why);
      if (!bytes) return FailAt(at, "$bytes: " + why);
      out = Value(std::move(*bytes));
      return true;
    }
    if (tag == tags::kInt32List) return ParseIntList<int32_t>(out);
    if (tag == tags::kInt64List) return ParseIntList<int64_t>(out);
    if (tag == tags::kFloat32List) return ParseFloatList<float>(out);
    if (tag == tags::kFloat64List) return ParseFloatList<double>(out);
    if (tag == tags::kMap) return ParseMapPairs(out, depth);
    return FailAt(at, "unknown tag \"" + std::string(tag) + "\"");
  }

  std::string_view s_;
  size_t pos_ = 0;
  std::string error_;
};

}  // namespace

ParsedJson ParseJsonValue(std::string_view text) {
  ParsedJson parsed;
  Reader reader(text);
  Value value;
  if (reader.Document(value)) {
    parsed.value = std::move(value);
  } else {
    parsed.error = reader.error();
  }
  return parsed;
}

}  // namespace corvane::json
