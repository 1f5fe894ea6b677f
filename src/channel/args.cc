#include "channel/args.h"

namespace corvane::channel {

const std::string* Args::string(std::string_view key) const {
  const Value* v = value(key);
  return v ? v->string_if() : nullptr;
}

const std::string* Args::non_empty_string(std::string_view key) const {
  const std::string* s = string(key);
  return s && !s->empty() ? s : nullptr;
}

std::optional<bool> Args::boolean(std::string_view key) const {
  const Value* v = value(key);
  if (!v || !v->bool_if()) return std::nullopt;
  return *v->bool_if();
}

std::optional<int64_t> Args::integer(std::string_view key) const {
  const Value* v = value(key);
  return v ? v->integer() : std::nullopt;
}

std::optional<int64_t> Args::int_in(std::string_view key, int64_t min, int64_t max) const {
  std::optional<int64_t> i = integer(key);
  if (!i || *i < min || *i > max) return std::nullopt;
  return i;
}

std::optional<double> Args::number(std::string_view key) const {
  const Value* v = value(key);
  if (!v) return std::nullopt;
  if (const double* d = v->float64_if()) return *d;
  if (auto i = v->integer()) return static_cast<double>(*i);
  return std::nullopt;
}

const Bytes* Args::bytes(std::string_view key) const {
  const Value* v = value(key);
  return v ? v->bytes_if() : nullptr;
}

const ValueList* Args::list(std::string_view key) const {
  const Value* v = value(key);
  return v ? v->list_if() : nullptr;
}

const ValueMap* Args::map(std::string_view key) const {
  const Value* v = value(key);
  return v ? v->map_if() : nullptr;
}

}  // namespace corvane::channel
