// Plays the Flutter side of BonjourBridge through the loopback engine: calls, listens, and
// collects the events as decoded maps.
#pragma once

#include <gtest/gtest.h>

#include <chrono>
#include <optional>
#include <string>
#include <vector>

#include "channel/standard_codec.h"
#include "discovery/bonjour_bridge.h"
#include "dispatch/queue.h"
#include "engine/loopback_engine.h"

namespace corvane::discovery::testing {

using channel::MethodReply;
using channel::Value;
using channel::ValueList;
using channel::ValueMap;

struct Event {
  std::string type;  // "found" or "lost"
  std::string name;
  std::string service_type;
  std::string host;
  int64_t port = -1;
  std::vector<std::string> addresses;
};

inline std::string StringAt(const ValueMap& map, const char* key) {
  const Value* v = map.Find(key);
  return v && v->string_if() ? *v->string_if() : std::string("<missing>");
}

// The service map as a flat struct; fields absent or of the wrong type read as "<missing>"/-1.
inline Event ToEvent(const std::string& type, const Value& service) {
  Event e;
  e.type = type;
  const ValueMap* map = service.map_if();
  if (map == nullptr) return e;
  e.name = StringAt(*map, "name");
  e.service_type = StringAt(*map, "type");
  e.host = StringAt(*map, "host");
  if (const Value* port = map->Find("port"); port && port->integer()) e.port = *port->integer();
  if (const Value* list = map->Find("addresses"); list && list->list_if()) {
    for (const Value& a : *list->list_if()) {
      e.addresses.push_back(a.string_if() ? *a.string_if() : "?");
    }
  }
  return e;
}

class BridgeClient {
 public:
  engine::LoopbackEngine& engine() { return engine_; }

  MethodReply Call(const std::string& method, Value args = Value()) {
    return Send(BonjourBridge::kMethodChannel, method, std::move(args));
  }
  MethodReply Listen() { return Send(BonjourBridge::kEventChannel, "listen", Value()); }
  MethodReply Cancel() { return Send(BonjourBridge::kEventChannel, "cancel", Value()); }

  // Every event received so far, in order.
  std::vector<Event> Events() {
    std::vector<Event> events;
    for (const auto& m : engine_.received()) {
      if (m.channel != BonjourBridge::kEventChannel) continue;
      auto decoded = channel::DecodeEnvelope(m.payload);
      if (!decoded || decoded.value->kind != MethodReply::Kind::kSuccess) continue;
      const ValueMap* event = decoded.value->value.map_if();
      EXPECT_NE(event, nullptr) << "an event that is not a map";
      if (event == nullptr) continue;
      const Value* service = event->Find("service");
      events.push_back(ToEvent(StringAt(*event, "type"), service ? *service : Value()));
    }
    return events;
  }

  // Events of `type` about services named `name` (other tests may publish on the same daemon).
  std::vector<Event> EventsAbout(const std::string& type, const std::string& name) {
    std::vector<Event> out;
    for (Event& e : Events()) {
      if (e.type == type && e.name == name) out.push_back(std::move(e));
    }
    return out;
  }

  // Turns the main loop until `count` events of `type` about `name` have arrived.
  bool WaitFor(const std::string& type, const std::string& name, size_t count = 1,
               std::chrono::milliseconds timeout = std::chrono::seconds(20)) {
    return dispatch::RunMainUntil([&] { return EventsAbout(type, name).size() >= count; }, timeout);
  }

 private:
  MethodReply Send(const char* channel_name, const std::string& method, Value args) {
    std::optional<channel::Bytes> reply;
    engine_.SendFromEngine(channel_name, channel::EncodeMethodCall({method, std::move(args)}),
                           [&](channel::Bytes b) { reply = std::move(b); });
    dispatch::RunMainUntil([&] { return reply.has_value(); }, std::chrono::seconds(10));
    EXPECT_TRUE(reply.has_value()) << "no reply to " << method;
    auto decoded = channel::DecodeEnvelope(reply.value_or(channel::Bytes()));
    EXPECT_TRUE(decoded) << decoded.error;
    return decoded.value.value_or(MethodReply());
  }

  engine::LoopbackEngine engine_;
};

}  // namespace corvane::discovery::testing
