// The engine connection inside a Flutter build: flutter_linux's FlBinaryMessenger. A handler per
// channel the host serves is installed on the messenger and removed with the service's; each
// message gets exactly one response (the empty one is Flutter's not-implemented), and host
// messages to Dart leave from the main thread. Codec bytes pass through unchanged.
#pragma once

#include <memory>
#include <set>
#include <string>

#include "engine/engine.h"

typedef struct _FlBinaryMessenger FlBinaryMessenger;
typedef struct _FlBinaryMessengerResponseHandle FlBinaryMessengerResponseHandle;
typedef struct _GBytes GBytes;

namespace corvane::flutter {

class FlutterLinuxEngine : public engine::Engine {
 public:
  FlutterLinuxEngine() = default;
  // Detaches: the messenger's handlers go, so Dart's later messages get Flutter's own
  // not-implemented response.
  ~FlutterLinuxEngine() override;

  // The messenger exists once the view (or headless engine) does, after the host has been
  // made. Handlers set before are installed now. Main thread; once.
  void Attach(FlBinaryMessenger* messenger);
  void Detach();
  bool attached() const { return messenger_ != nullptr; }

 protected:
  void Transmit(const std::string& channel, engine::Bytes message, ReplyHandler on_reply) override;
  void HandlerChanged(const std::string& channel, bool installed) override;

 private:
  static void OnMessage(FlBinaryMessenger* messenger, const char* channel, GBytes* message,
                        FlBinaryMessengerResponseHandle* handle, void* self);
  void Install(const std::string& channel);
  void Uninstall(const std::string& channel);

  // Handler changes applied later on the main thread check that this engine still exists.
  std::shared_ptr<int> alive_ = std::make_shared<int>(0);
  FlBinaryMessenger* messenger_ = nullptr;
  // Channels whose handler is installed on the messenger; main thread only.
  std::set<std::string> installed_;
};

}  // namespace corvane::flutter
