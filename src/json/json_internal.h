// What the JSON mapping's reader and writer share: tag names and UTF-8 checking.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

#include "channel/utf8.h"

namespace corvane::json {
namespace tags {

inline constexpr std::string_view kInt32 = "$int32";
inline constexpr std::string_view kInt64 = "$int64";
inline constexpr std::string_view kFloat64 = "$float64";
inline constexpr std::string_view kBytes = "$bytes";
inline constexpr std::string_view kInt32List = "$int32list";
inline constexpr std::string_view kInt64List = "$int64list";
inline constexpr std::string_view kFloat32List = "$float32list";
inline constexpr std::string_view kFloat64List = "$float64list";
inline constexpr std::string_view kMap = "$map";

// Spellings of the non-finite floats, which JSON numbers cannot carry.
inline constexpr std::string_view kNaN = "NaN";
inline constexpr std::string_view kInfinity = "Infinity";
inline constexpr std::string_view kMinusInfinity = "-Infinity";

}  // namespace tags

using channel::Utf8SequenceLength;

}  // namespace corvane::json
