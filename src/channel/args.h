// Reading method-call arguments key by key. A missing key and a key holding the wrong type
// read alike (absent), so every service validates the same way.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "channel/value.h"

namespace corvane::channel {

class Args {
 public:
  explicit Args(const Value& arguments) : map_(arguments.map_if()) {}

  bool is_map() const { return map_ != nullptr; }
  const ValueMap* map() const { return map_; }

  const Value* value(std::string_view key) const { return map_ ? map_->Find(key) : nullptr; }
  const std::string* string(std::string_view key) const;
  // A string that is present and not empty.
  const std::string* non_empty_string(std::string_view key) const;
  std::optional<bool> boolean(std::string_view key) const;
  // int32 or int64, whichever width it travelled in.
  std::optional<int64_t> integer(std::string_view key) const;
  std::optional<int64_t> int_in(std::string_view key, int64_t min, int64_t max) const;
  // A float64, or an integer read as one: Dart sends 3.0 as a double but 3 as an int.
  std::optional<double> number(std::string_view key) const;
  const Bytes* bytes(std::string_view key) const;
  const ValueList* list(std::string_view key) const;
  const ValueMap* map(std::string_view key) const;

 private:
  const ValueMap* map_;
};

}  // namespace corvane::channel
