// Method and event channels as the engine sees them, through the loopback engine.
#include <gtest/gtest.h>

#include <thread>

#include "channel/event_channel.h"
#include "channel/method_channel.h"
#include "dispatch/queue.h"
#include "engine/loopback_engine.h"

namespace corvane::channel {
namespace {

using namespace std::chrono_literals;

class ChannelsTest : public ::testing::Test {
 protected:
  // Sends a method call as the engine and waits for its one reply.
  MethodReply Call(const std::string& channel, const std::string& method, Value args = Value()) {
    replies_ = 0;
    std::optional<Bytes> reply;
    engine_.SendFromEngine(channel, EncodeMethodCall({method, std::move(args)}), [&](Bytes b) {
      ++replies_;
      reply = std::move(b);
    });
    dispatch::RunMainUntil([&] { return reply.has_value(); }, 5s);
    EXPECT_TRUE(reply.has_value()) << "no reply to " << method;
    Decoded<MethodReply> decoded = DecodeEnvelope(reply.value_or(Bytes()));
    EXPECT_TRUE(decoded) << decoded.error;
    return decoded.value.value_or(MethodReply());
  }

  // Events received on `channel`, decoded.
  std::vector<Value> Events(const std::string& channel) {
    std::vector<Value> events;
    for (const auto& m : engine_.received()) {
      if (m.channel != channel) continue;
      Decoded<MethodReply> e = DecodeEnvelope(m.payload);
      if (e && e.value->kind == MethodReply::Kind::kSuccess) events.push_back(e.value->value);
    }
    return events;
  }

  void Drain() {
    dispatch::RunMainUntil([] { return false; }, 50ms);
  }

  engine::LoopbackEngine engine_;
  int replies_ = 0;
};

TEST_F(ChannelsTest, EveryCallIsAnsweredExactlyOnce) {
  EXPECT_EQ(Call("nobody/here", "x").kind, MethodReply::Kind::kNotImplemented);
  MethodChannel channel(engine_, "test/methods");
  int handled = 0;
  channel.SetMethodCallHandler([&](const MethodCall& call, std::unique_ptr<MethodResult> r) {
    ++handled;
    if (call.method == "twice") {
      r->Success(Value(int32_t{1}));
      r->Error("late", "second answer");
    } else if (call.method == "drop") {
      // Destroyed unanswered: the caller still gets an answer.
    } else {
      r->NotImplemented();
    }
  });
  // A string that claims five bytes and has one: the empty reply, and no handler runs.
  std::optional<Bytes> reply;
  engine_.SendFromEngine("test/methods", Bytes{0x07, 0x05, 'a'}, [&](Bytes b) { reply = b; });
  dispatch::RunMainUntil([&] { return reply.has_value(); }, 5s);
  EXPECT_TRUE(reply && reply->empty());
  EXPECT_EQ(handled, 0);

  MethodReply twice = Call("test/methods", "twice");
  Drain();
  EXPECT_EQ(replies_, 1);
  EXPECT_EQ(twice.kind, MethodReply::Kind::kSuccess);
  EXPECT_EQ(twice.value, Value(int32_t{1}));

  MethodReply dropped = Call("test/methods", "drop");
  EXPECT_EQ(dropped.kind, MethodReply::Kind::kError);
  EXPECT_EQ(dropped.error.code, MethodResult::kUnansweredCode);

  EXPECT_EQ(Call("test/methods", "TWICE").kind, MethodReply::Kind::kNotImplemented);
}

// A result dropped on a worker answers the call too, from the main thread. (Results answered
// on workers are checked by every service's fixture.)
TEST_F(ChannelsTest, AResultDroppedOnAWorkerAnswersFromTheMainThread) {
  dispatch::SerialQueue worker("test.worker");
  MethodChannel channel(engine_, "test/methods");
  channel.SetMethodCallHandler([&](const MethodCall&, std::unique_ptr<MethodResult> r) {
    worker.Async([r = std::move(r)]() mutable { r.reset(); });
  });
  EXPECT_EQ(Call("test/methods", "go").error.code, MethodResult::kUnansweredCode);
  EXPECT_EQ(engine_.off_main_thread_deliveries(), 0);
}

// A service that keeps at most one sink, as every service with events does.
struct SinkHolder {
  std::unique_ptr<EventSink> sink;
  int cancels = 0;
  std::unique_ptr<StreamHandler> Handler() {
    return std::make_unique<FunctionStreamHandler>(
        [this](const Value&, std::unique_ptr<EventSink> s) -> std::optional<MethodError> {
          sink = std::move(s);
          return std::nullopt;
        },
        [this](const Value&) -> std::optional<MethodError> {
          ++cancels;
          sink.reset();
          return std::nullopt;
        });
  }
};

// A listen while listening cancels the first; a sink kept past a cancel and a new listen
// reaches nobody: neither what it sends afterwards nor what it sent from a worker while
// current, which the main thread handles only later. A refused listen leaves no active sink.
TEST_F(ChannelsTest, OnlyTheCurrentSinkReachesTheListener) {
  EventChannel events(engine_, "test/events");
  SinkHolder holder;
  events.SetStreamHandler(holder.Handler());
  ASSERT_EQ(Call("test/events", "listen").kind, MethodReply::Kind::kSuccess);
  std::unique_ptr<EventSink> first = std::move(holder.sink);
  first->Success(Value("one"));
  std::thread([&] { first->Success(Value("in flight")); }).join();
  Call("test/events", "listen");
  EXPECT_EQ(holder.cancels, 1);
  first->Success(Value("after cancel"));
  holder.sink->Success(Value("two"));
  Drain();
  EXPECT_EQ(Events("test/events"), (std::vector<Value>{Value("one"), Value("two")}));
  EXPECT_TRUE(!first->active() && holder.sink->active() && events.listening());
  EXPECT_EQ(engine_.off_main_thread_deliveries(), 0);

  Call("test/events", "cancel");
  EXPECT_EQ(Call("test/events", "cancel").kind, MethodReply::Kind::kError);
  EXPECT_EQ(Call("test/events", "Listen").kind, MethodReply::Kind::kNotImplemented);
  EXPECT_FALSE(events.listening());

  std::unique_ptr<EventSink> kept;
  events.SetStreamHandler(std::make_unique<FunctionStreamHandler>(
      [&](const Value&, std::unique_ptr<EventSink> s) -> std::optional<MethodError> {
        kept = std::move(s);
        return MethodError{"busy", "Not now", Value(), std::nullopt};
      },
      [](const Value&) -> std::optional<MethodError> { return std::nullopt; }));
  engine_.ClearReceived();
  EXPECT_EQ(Call("test/events", "listen").error.code, "busy");
  kept->Success(Value("x"));
  Drain();
  EXPECT_TRUE(Events("test/events").empty());
}

TEST_F(ChannelsTest, HostCallsTheEngineAndDecodesItsReply) {
  MethodChannel channel(engine_, "test/to_engine");
  engine_.SetEngineResponder([](const engine::LoopbackEngine::Message& m) {
    Decoded<MethodCall> call = DecodeMethodCall(m.payload);
    if (call && call.value->method == "known") return EncodeSuccessEnvelope(Value("ok"));
    if (call && call.value->method == "garbled") return Bytes{0x09};
    return Bytes();
  });
  std::vector<MethodReply> replies;
  channel.InvokeMethod("known", Value(), [&](const MethodReply& r) { replies.push_back(r); });
  channel.InvokeMethod("unknown", Value(), [&](const MethodReply& r) { replies.push_back(r); });
  channel.InvokeMethod("garbled", Value(), [&](const MethodReply& r) { replies.push_back(r); });
  dispatch::RunMainUntil([&] { return replies.size() == 3; }, 5s);
  ASSERT_EQ(replies.size(), 3u);
  EXPECT_EQ(replies[0].value, Value("ok"));
  EXPECT_EQ(replies[1].kind, MethodReply::Kind::kNotImplemented);
  EXPECT_EQ(replies[2].error.code, MethodChannel::kMalformedReplyCode);
}

}  // namespace
}  // namespace corvane::channel
