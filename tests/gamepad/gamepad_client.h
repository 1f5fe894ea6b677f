// Plays the Flutter side of the game-controller channel through the loopback engine.
#pragma once

#include <gtest/gtest.h>

#include <chrono>
#include <optional>
#include <string>
#include <vector>

#include "channel/standard_codec.h"
#include "dispatch/queue.h"
#include "engine/loopback_engine.h"
#include "gamepad/apple_game_controller_bridge.h"

namespace corvane::gamepad::testing {

using channel::MethodReply;
using channel::Value;
using channel::ValueList;
using channel::ValueMap;
using namespace std::chrono_literals;

class GamepadClient {
 public:
  engine::LoopbackEngine& engine() { return engine_; }

  MethodReply Call(const std::string& method, Value args = Value()) {
    std::optional<MethodReply> reply;
    int replies = 0;
    engine_.SendFromEngine(gamepad::kMethodChannel,
                           channel::EncodeMethodCall({method, std::move(args)}),
                           [&](channel::Bytes bytes) {
                             ++replies;
                             reply = channel::DecodeEnvelope(bytes).value.value_or(MethodReply());
                           });
    dispatch::RunMainUntil([&] { return reply.has_value(); }, 5s);
    EXPECT_EQ(replies, 1) << method;
    return reply.value_or(MethodReply());
  }

  // The entries of "controllers"; empty (and a test failure) if the reply is not a list.
  std::vector<ValueMap> Controllers() {
    MethodReply reply = Call("controllers");
    EXPECT_EQ(reply.kind, MethodReply::Kind::kSuccess);
    std::vector<ValueMap> entries;
    const ValueList* list = reply.value.list_if();
    EXPECT_NE(list, nullptr);
    if (!list) return entries;
    for (const Value& v : *list) {
      EXPECT_NE(v.map_if(), nullptr);
      if (v.map_if()) entries.push_back(*v.map_if());
    }
    return entries;
  }

  // "haptic"'s answer, which must be a boolean.
  Value Haptic(Value args) {
    MethodReply reply = Call("haptic", std::move(args));
    EXPECT_EQ(reply.kind, MethodReply::Kind::kSuccess);
    EXPECT_NE(reply.value.bool_if(), nullptr);
    return reply.value;
  }
  Value Haptic(std::optional<std::string> name, Value pulses) {
    ValueMap args;
    if (name) args.Set("name", Value(*name));
    args.Set("pulses", std::move(pulses));
    return Haptic(Value(std::move(args)));
  }

 private:
  engine::LoopbackEngine engine_;
};

// A pulse list from [offset ms, intensity, sharpness] triples.
inline Value Pulses(std::initializer_list<std::initializer_list<double>> pulses) {
  ValueList list;
  for (const auto& pulse : pulses) {
    ValueList numbers;
    for (double n : pulse) numbers.emplace_back(n);
    list.emplace_back(std::move(numbers));
  }
  return Value(std::move(list));
}

}  // namespace corvane::gamepad::testing
