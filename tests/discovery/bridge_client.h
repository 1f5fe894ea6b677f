// Plays the Flutter side of BonjourBridge through the loopback engine: calls, listens, and
// collects the events as flat structs.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <optional>

#include "channel/standard_codec.h"
#include "discovery/bonjour_bridge.h"
#include "dispatch/queue.h"
#include "engine/loopback_engine.h"

namespace corvane::discovery::testing {

using channel::MethodReply;
using channel::Value;
using channel::ValueList;
using channel::ValueMap;

// An event; also an entry of "list", as "found". Keys absent or mistyped read as "?" and -1.
struct Event {
  std::string kind, name, type, host;
  int64_t port = -1;
  std::vector<std::string> addresses;
  friend bool operator==(const Event&, const Event&) = default;
  friend std::ostream& operator<<(std::ostream& os, const Event& e) {
    return os << e.kind << " {" << e.name << ", " << e.type << ", " << e.host << ", " << e.port
              << ", " << ::testing::PrintToString(e.addresses) << "}";
  }
};

// Arguments for "start": {"types": types}.
inline Value TypesArg(Value types) { return Value(ValueMap{{Value("types"), std::move(types)}}); }
inline Value Types(const std::vector<std::string>& types) {
  return TypesArg(Value(ValueList(types.begin(), types.end())));
}

inline std::string Text(const Value* v) { return v && v->string_if() ? *v->string_if() : "?"; }

inline Event ToEvent(std::string kind, const Value& service) {
  static const ValueMap kNoMap;
  const ValueMap& map = service.map_if() ? *service.map_if() : kNoMap;
  auto text = [&](const char* key) { return Text(map.Find(key)); };
  Event e{std::move(kind), text("name"), text("type"), text("host"), -1, {}};
  if (const Value* port = map.Find("port"); port && port->integer()) e.port = *port->integer();
  if (const Value* list = map.Find("addresses"); list && list->list_if()) {
    for (const Value& a : *list->list_if()) e.addresses.push_back(Text(&a));
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

  std::vector<Event> List() {
    MethodReply reply = Call("list");
    EXPECT_NE(reply.value.list_if(), nullptr) << "\"list\" answered no list";
    std::vector<Event> out;
    for (const Value& v : reply.value.list_if() ? *reply.value.list_if() : ValueList()) {
      out.push_back(ToEvent("found", v));
    }
    return out;
  }

  // Every event received so far, in order; only those about `name` when it is given (other
  // tests may publish on the same daemon).
  std::vector<Event> Events(const std::string& name = "") {
    EXPECT_EQ(engine_.off_main_thread_deliveries(), 0);
    std::vector<Event> events;
    for (const auto& m : engine_.received()) {
      if (m.channel != BonjourBridge::kEventChannel) continue;
      auto decoded = channel::DecodeEnvelope(m.payload);
      const ValueMap* event = decoded ? decoded.value->value.map_if() : nullptr;
      EXPECT_NE(event, nullptr) << "an event that is not a map";
      const Value* service = event ? event->Find("service") : nullptr;
      Event e = ToEvent(Text(event ? event->Find("type") : nullptr), service ? *service : Value());
      if (name.empty() || e.name == name) events.push_back(std::move(e));
    }
    return events;
  }
  size_t Count(const std::string& kind, const std::string& name) {
    const std::vector<Event> events = Events(name);
    return std::count_if(events.begin(), events.end(),
                         [&](const Event& e) { return e.kind == kind; });
  }

  // Turns the main loop until `count` events of `kind` about `name` have arrived.
  bool WaitFor(const std::string& kind, const std::string& name, size_t count = 1,
               std::chrono::milliseconds timeout = std::chrono::seconds(20)) {
    return dispatch::RunMainUntil([&] { return Count(kind, name) >= count; }, timeout);
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
