#include "robustness/random_values.h"

#include <limits>

namespace corvane::robustness {

using channel::Bytes;

namespace {
// Strings that mean something to some service: addresses, ids, types, paths, modes.
const std::vector<std::string> kMeaningfulStrings = {
    "",        "a",         "station-1", "127.0.0.1", "localhost", "255.255.255.255",
    "::1",     "_z21._udp.", "_http._tcp", "/tmp",     "dark",      "light",
    "system",  "x.x.x.255", "\xc3\xa9\xe2\x82\xac", std::string(300, 'q')};
}  // namespace

RandomCalls::RandomCalls(uint64_t seed, std::vector<std::string> methods,
                         std::vector<std::string> keys)
    : rng_(seed), methods_(std::move(methods)), keys_(std::move(keys)) {}

std::string RandomCalls::Pick(const std::vector<std::string>& from) {
  if (from.empty()) return "x";
  return from[rng_() % from.size()];
}

int64_t RandomCalls::Integer() {
  // Mostly small, sometimes at the edges where range checks live.
  switch (rng_() % 8) {
    case 0: return std::numeric_limits<int64_t>::max();
    case 1: return std::numeric_limits<int64_t>::min();
    case 2: return -static_cast<int64_t>(rng_() % 1000);
    case 3: return 65535 + static_cast<int64_t>(rng_() % 3);
    default: return static_cast<int64_t>(rng_() % 3000);
  }
}

std::string RandomCalls::String() {
  if (rng_() % 3 != 0) return Pick(kMeaningfulStrings);
  std::string s(rng_() % 12, ' ');
  for (char& c : s) c = static_cast<char>('a' + rng_() % 26);
  return s;
}

channel::Value RandomCalls::Value(int depth) {
  const int kinds = depth > 3 ? 11 : 13;
  switch (rng_() % kinds) {
    case 0: return channel::Value();
    case 1: return channel::Value(rng_() % 2 == 0);
    case 2: return channel::Value::Integer(Integer());
    case 3: return channel::Value(static_cast<double>(Integer()) / 7.0);
    case 4:
    case 5: return channel::Value(String());
    case 6: {
      Bytes b(rng_() % 80);
      for (auto& x : b) x = static_cast<uint8_t>(rng_());
      return channel::Value(std::move(b));
    }
    case 7: return channel::Value(channel::Int32List(rng_() % 4, 7));
    case 8: return channel::Value(channel::Int64List(rng_() % 3, -1));
    case 9: return channel::Value(channel::Float32List(rng_() % 3, 0.5f));
    case 10: return channel::Value(channel::Float64List(rng_() % 3, 1e300));
    case 11: {
      channel::ValueList list(rng_() % 4);
      for (auto& item : list) item = Value(depth + 1);
      return channel::Value(std::move(list));
    }
    default: {
      channel::ValueMap map;
      const size_t n = rng_() % 6;
      for (size_t i = 0; i < n; ++i) {
        if (rng_() % 10 == 0) {
          map.Append(Value(depth + 1), Value(depth + 1));  // a key of any type
        } else {
          map.Set(rng_() % 4 == 0 ? String() : Pick(keys_), Value(depth + 1));
        }
      }
      return channel::Value(std::move(map));
    }
  }
}

channel::MethodCall RandomCalls::Call() {
  std::string method;
  switch (rng_() % 6) {
    case 0: method = String(); break;
    case 1: {  // a real name with one letter's case flipped
      method = Pick(methods_);
      if (!method.empty()) method[0] = static_cast<char>(method[0] ^ 0x20);
      break;
    }
    default: method = Pick(methods_);
  }
  // Most calls carry a map of real keys, the shape services expect.
  channel::Value args = rng_() % 4 == 0 ? Value() : Value(3);
  if (rng_() % 4 != 0) {
    channel::ValueMap map;
    const size_t n = 1 + rng_() % 6;
    for (size_t i = 0; i < n; ++i) map.Set(Pick(keys_), Value(2));
    args = channel::Value(std::move(map));
  }
  return channel::MethodCall{std::move(method), std::move(args)};
}

Bytes RandomCalls::Malformed() {
  Bytes good = channel::EncodeMethodCall(Call());
  switch (rng_() % 4) {
    case 0: {  // cut short
      good.resize(rng_() % good.size());
      return good;
    }
    case 1: {  // a byte flipped
      good[rng_() % good.size()] ^= static_cast<uint8_t>(1 + rng_() % 255);
      return good;
    }
    case 2: {  // trailing bytes
      good.push_back(static_cast<uint8_t>(rng_()));
      return good;
    }
    default: {  // garbage
      Bytes b(rng_() % 40);
      for (auto& x : b) x = static_cast<uint8_t>(rng_());
      return b;
    }
  }
}

}  // namespace corvane::robustness
