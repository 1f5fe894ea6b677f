// The engine connection inside a Flutter build: flutter_linux's FlBinaryMessenger. A handler per
// channel the host serves is installed on the messenger and removed with the service's; each
// message gets exactly one response (the empty one is Flutter's not-implemented), and host
// messages to Dart leave from the main thread. Codec bytes pass through unchanged. When the
// Flutter engine goes, replies still awaited from Dart are answered empty: flutter_linux never
// calls back for them.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <set>
#include <string>

#include "engine/engine.h"

typedef struct _FlBinaryMessenger FlBinaryMessenger;
typedef struct _FlEngine FlEngine;
typedef struct _GObject GObject;
typedef struct _FlBinaryMessengerResponseHandle FlBinaryMessengerResponseHandle;
typedef struct _GBytes GBytes;

namespace corvane::flutter {

class FlutterLinuxEngine : public engine::Engine {
 public:
  FlutterLinuxEngine() = default;
  // Detaches: the messenger's handlers go, so Dart's later messages get Flutter's own
  // not-implemented response.
  ~FlutterLinuxEngine() override;

  // The engine exists once the view does, after the host has been made. Handlers set before
  // are installed on its messenger now. Main thread; once.
  void Attach(FlEngine* engine);
  void Detach();
  bool attached() const { return engine_ != nullptr; }

 protected:
  void Transmit(const std::string& channel, engine::Bytes message, ReplyHandler on_reply) override;
  void HandlerChanged(const std::string& channel, bool installed) override;

 private:
  static void OnMessage(FlBinaryMessenger* messenger, const char* channel, GBytes* message,
                        FlBinaryMessengerResponseHandle* handle, void* self);
  static void OnEngineGone(void* self, GObject* engine);
  void Install(const std::string& channel);
  void Uninstall(const std::string& channel);
  void AnswerPendingReplies();
  void DeliverReply(uint64_t id, engine::Bytes reply);

  // Handler changes applied later on the main thread check that this engine still exists.
  std::shared_ptr<int> alive_ = std::make_shared<int>(0);
  FlEngine* engine_ = nullptr;  // weak: the view owns it
  FlBinaryMessenger* messenger_ = nullptr;
  // Host messages awaiting Dart's reply, by id; main thread only.
  std::map<uint64_t, ReplyHandler> pending_;
  uint64_t next_id_ = 0;
  // Channels whose handler is installed on the messenger; main thread only.
  std::set<std::string> installed_;
};

}  // namespace corvane::flutter
