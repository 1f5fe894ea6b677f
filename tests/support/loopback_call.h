// A method call sent as the engine would send it, through the loopback engine.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "channel/standard_codec.h"
#include "engine/loopback_engine.h"

namespace corvane::testing {

// The list fills with the call's replies as the main loop runs; it outlives a reply that comes
// late, and more than one reply in it is a fault the tests look for.
using CallReplies = std::shared_ptr<std::vector<channel::MethodReply>>;

inline CallReplies StartCall(engine::LoopbackEngine& engine, const std::string& channel,
                             const std::string& method, channel::Value args) {
  auto replies = std::make_shared<std::vector<channel::MethodReply>>();
  engine.SendFromEngine(
      channel, channel::EncodeMethodCall({method, std::move(args)}),
      [replies](channel::Bytes bytes) {
        replies->push_back(channel::DecodeEnvelope(bytes).value.value_or(channel::MethodReply()));
      });
  return replies;
}

}  // namespace corvane::testing
