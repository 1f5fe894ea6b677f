#include "value_equivalence.h"

#include <cmath>
#include <cstring>

namespace corvane::fuzz {

namespace {

using channel::Value;

template <typename F>
bool SameFloat(F a, F b) {
  if (std::isnan(a) && std::isnan(b)) return true;
  return std::memcmp(&a, &b, sizeof a) == 0;
}

template <typename F>
bool SameFloats(const std::vector<F>& a, const std::vector<F>& b) {
  if (a.size() != b.size()) return false;
  for (size_t i = 0; i < a.size(); ++i) {
    if (!SameFloat(a[i], b[i])) return false;
  }
  return true;
}

}  // namespace

bool Equivalent(const Value& a, const Value& b, Equivalence how) {
  if (how.integers_by_value && a.integer() && b.integer()) return *a.integer() == *b.integer();
  if (a.type() != b.type()) return false;
  switch (a.type()) {
    case Value::Type::kFloat64:
      return SameFloat(*a.float64_if(), *b.float64_if());
    case Value::Type::kFloat32List:
      return SameFloats(*a.float32_list_if(), *b.float32_list_if());
    case Value::Type::kFloat64List:
      return SameFloats(*a.float64_list_if(), *b.float64_list_if());
    case Value::Type::kList: {
      const auto& x = *a.list_if();
      const auto& y = *b.list_if();
      if (x.size() != y.size()) return false;
      for (size_t i = 0; i < x.size(); ++i) {
        if (!Equivalent(x[i], y[i], how)) return false;
      }
      return true;
    }
    case Value::Type::kMap: {
      const auto& x = a.map_if()->entries();
      const auto& y = b.map_if()->entries();
      if (x.size() != y.size()) return false;
      for (size_t i = 0; i < x.size(); ++i) {
        if (!Equivalent(x[i].key, y[i].key, how) || !Equivalent(x[i].value, y[i].value, how)) {
          return false;
        }
      }
      return true;
    }
    default:
      return a == b;
  }
}

}  // namespace corvane::fuzz
