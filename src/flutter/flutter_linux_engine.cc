#include "flutter/flutter_linux_engine.h"

#include <flutter_linux/flutter_linux.h>

#include <algorithm>
#include <memory>
#include <utility>

#include "channel/log.h"
#include "dispatch/queue.h"

namespace corvane::flutter {

namespace {

constexpr const char* kLogDomain = "corvane-engine";

GBytes* ToGBytes(const engine::Bytes& bytes) {
  // Null is the empty response and the empty message alike.
  return bytes.empty() ? nullptr : g_bytes_new(bytes.data(), bytes.size());
}

engine::Bytes FromGBytes(GBytes* bytes) {
  if (!bytes) return {};
  gsize size = 0;
  const auto* data = static_cast<const uint8_t*>(g_bytes_get_data(bytes, &size));
  return size ? engine::Bytes(data, data + size) : engine::Bytes();
}

}  // namespace

FlutterLinuxEngine::~FlutterLinuxEngine() { Detach(); }

void FlutterLinuxEngine::Attach(FlEngine* engine) {
  if (engine_ || !engine) return;
  engine_ = engine;
  g_object_weak_ref(G_OBJECT(engine), &OnEngineGone, this);
  messenger_ = FL_BINARY_MESSENGER(g_object_ref(fl_engine_get_binary_messenger(engine)));
  for (const std::string& channel : HandledChannels()) Install(channel);
}

void FlutterLinuxEngine::Detach() {
  if (engine_) {
    g_object_weak_unref(G_OBJECT(engine_), &OnEngineGone, this);
    for (const std::string& channel : std::set<std::string>(installed_)) Uninstall(channel);
    engine_ = nullptr;
  }
  g_clear_object(&messenger_);
  AnswerPendingReplies();
}

void FlutterLinuxEngine::OnEngineGone(void* self, GObject* /*engine*/) {
  auto* engine = static_cast<FlutterLinuxEngine*>(self);
  // The messenger dropped every handler with its engine.
  engine->engine_ = nullptr;
  engine->installed_.clear();
  channel::Log(channel::LogLevel::kInfo, kLogDomain, "the Flutter engine is gone");
  engine->AnswerPendingReplies();
}

void FlutterLinuxEngine::AnswerPendingReplies() {
  // Empty is what a channel without a Dart handler answers; nobody waits forever.
  auto pending = std::exchange(pending_, {});
  for (auto& [id, on_reply] : pending) on_reply(engine::Bytes());
}

void FlutterLinuxEngine::HandlerChanged(const std::string& channel, bool /*installed*/) {
  // flutter_linux's messenger belongs to the main thread; the table says what is current when
  // the change is applied there.
  auto apply = [alive = std::weak_ptr<int>(alive_), this, channel] {
    if (!alive.lock() || !engine_) return;
    const auto handled = HandledChannels();
    if (std::binary_search(handled.begin(), handled.end(), channel)) {
      Install(channel);
    } else {
      Uninstall(channel);
    }
  };
  if (dispatch::IsMainThread()) {
    apply();
  } else {
    dispatch::MainQueue().Async(apply);
  }
}

void FlutterLinuxEngine::Install(const std::string& channel) {
  if (!installed_.insert(channel).second) return;
  fl_binary_messenger_set_message_handler_on_channel(messenger_, channel.c_str(), &OnMessage, this,
                                                     nullptr);
}

void FlutterLinuxEngine::Uninstall(const std::string& channel) {
  if (installed_.erase(channel) == 0) return;
  fl_binary_messenger_set_message_handler_on_channel(messenger_, channel.c_str(), nullptr, nullptr,
                                                     nullptr);
}

void FlutterLinuxEngine::OnMessage(FlBinaryMessenger* messenger, const char* channel,
                                   GBytes* message, FlBinaryMessengerResponseHandle* handle,
                                   void* self) {
  // The response may come later, from a service's queue: keep the handle and the messenger
  // until then, whatever happens to this engine object meanwhile.
  g_object_ref(messenger);
  g_object_ref(handle);
  auto deliver = [messenger, handle](engine::Bytes reply) {
    GBytes* bytes = ToGBytes(reply);
    GError* error = nullptr;
    if (!fl_binary_messenger_send_response(messenger, handle, bytes, &error)) {
      channel::Log(channel::LogLevel::kWarning, kLogDomain,
                   std::string("response not sent: ") + (error ? error->message : "unknown"));
      g_clear_error(&error);
    }
    if (bytes) g_bytes_unref(bytes);
    g_object_unref(handle);
    g_object_unref(messenger);
  };
  static_cast<FlutterLinuxEngine*>(self)->Dispatch(channel, FromGBytes(message), deliver);
}

void FlutterLinuxEngine::DeliverReply(uint64_t id, engine::Bytes reply) {
  // Gone when the engine's going answered it already.
  auto it = pending_.find(id);
  if (it == pending_.end()) return;
  ReplyHandler on_reply = std::move(it->second);
  pending_.erase(it);
  on_reply(std::move(reply));
}

void FlutterLinuxEngine::Transmit(const std::string& channel, engine::Bytes message,
                                  ReplyHandler on_reply) {
  if (!engine_) {
    channel::Log(channel::LogLevel::kWarning, kLogDomain,
                 "no Flutter engine; message on " + channel + " dropped");
    if (on_reply) on_reply(engine::Bytes());
    return;
  }
  GBytes* bytes = ToGBytes(message);
  if (!on_reply) {
    fl_binary_messenger_send_on_channel(messenger_, channel.c_str(), bytes, nullptr, nullptr,
                                        nullptr);
  } else {
    const uint64_t id = next_id_++;
    pending_.emplace(id, std::move(on_reply));
    // The reply may come after this object or its engine has gone: it finds its handler by id.
    struct Pending {
      std::weak_ptr<int> alive;
      FlutterLinuxEngine* self;
      uint64_t id;
    };
    fl_binary_messenger_send_on_channel(
        messenger_, channel.c_str(), bytes, nullptr,
        +[](GObject* source, GAsyncResult* result, gpointer data) {
          std::unique_ptr<Pending> pending(static_cast<Pending*>(data));
          GError* error = nullptr;
          GBytes* reply = fl_binary_messenger_send_on_channel_finish(FL_BINARY_MESSENGER(source),
                                                                     result, &error);
          if (error) {
            channel::Log(channel::LogLevel::kInfo, kLogDomain,
                         std::string("no reply from Dart: ") + error->message);
            g_error_free(error);
          }
          if (pending->alive.lock()) pending->self->DeliverReply(pending->id, FromGBytes(reply));
          if (reply) g_bytes_unref(reply);
        },
        new Pending{alive_, this, id});
  }
  if (bytes) g_bytes_unref(bytes);
}

}  // namespace corvane::flutter
