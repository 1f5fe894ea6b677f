// The messages the codec benchmarks carry, shared by the timed benchmark and the instruction
// counter so both measure the same bytes:
//   send_call  a UDP "send" method call: a session id and a 64-byte datagram
//   listing    a device listing: 100 maps of seven mixed-type entries
//   bytes_1mib one 1 MiB byte array (a camera frame's worth)
#pragma once

#include <random>
#include <string>

#include "channel/standard_codec.h"

namespace corvane::bench {

inline channel::Bytes RandomBytes(size_t n, uint32_t seed) {
  std::mt19937 rng(seed);
  channel::Bytes b(n);
  for (auto& byte : b) byte = static_cast<uint8_t>(rng());
  return b;
}

inline channel::MethodCall SendCall() {
  using channel::Value;
  return channel::MethodCall{"send", Value(channel::ValueMap{
                                         {Value("sessionId"), Value("z21")},
                                         {Value("data"), Value(RandomBytes(64, 1))},
                                     })};
}

// What a camera listing looks like: string, int, double, bool, 16 bytes, null, small list.
inline channel::Value Listing() {
  using channel::Value;
  channel::ValueList cameras;
  cameras.reserve(100);
  for (int i = 0; i < 100; ++i) {
    cameras.emplace_back(channel::ValueMap{
        {Value("name"), Value("USB Camera (046d:0825) #" + std::to_string(i))},
        {Value("index"), Value::Integer(i)},
        {Value("frameRate"), Value(29.97)},
        {Value("connected"), Value(i % 3 != 0)},
        {Value("uniqueId"), Value(RandomBytes(16, static_cast<uint32_t>(i)))},
        {Value("location"), Value()},
        {Value("resolution"), Value(channel::ValueList{Value::Integer(1280), Value::Integer(720)})},
    });
  }
  return Value(std::move(cameras));
}

inline channel::Value Frame() { return channel::Value(RandomBytes(1u << 20, 3)); }

}  // namespace corvane::bench
