// JSON text for codec values, for corvanectl, tests and fixtures.
//
// null, booleans, strings, lists and string-keyed objects map as themselves. A JSON integer
// is an int32 when it fits, else an int64; a number with a fraction or exponent is a float64.
// Every other value is a one-key tagged object:
//
//   {"$int32":n} {"$int64":n} {"$float64":x | "NaN" | "Infinity" | "-Infinity"}
//   {"$bytes":"<hex>"} {"$int32list":[...]} {"$int64list":[...]} {"$float32list":[...]}
//   {"$float64list":[...]} {"$map":[[key,value],...]}
//
// Float list elements may also be the strings "NaN", "Infinity" and "-Infinity". An object
// with exactly one key that starts with "$" is always read as a tag, and an unknown tag is an
// error, so a typo never silently becomes a map; a real one-key map whose key starts with "$"
// is written in $map form. Objects keep their textual key order, duplicates included.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "channel/value.h"

namespace corvane::json {

struct ParsedJson {
  std::optional<channel::Value> value;
  std::string error;
};

// The whole text must be one JSON value; whitespace around it is allowed. Nesting of lists and
// maps is limited to the codec's own depth limit.
ParsedJson ParseJsonValue(std::string_view text);

// Compact, one line, no trailing newline; the shortest form that parses back to `value`.
std::string ToJson(const channel::Value& value);

// Appends the JSON text of `value` to `out`.
void AppendJson(const channel::Value& value, std::string& out);

}  // namespace corvane::json
