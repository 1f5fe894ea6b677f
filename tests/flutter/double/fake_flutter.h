// Controls of the flutter_linux test double: the test plays Dart.
#pragma once

#include <flutter_linux/flutter_linux.h>

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace fake_flutter {

using Bytes = std::vector<uint8_t>;

// Dart sends `message` on `channel`. `on_response` receives the host's response: nullopt for the
// empty (not-implemented) response. With no handler on the channel the double answers empty at
// once, as the engine does.
void DartSend(FlBinaryMessenger* messenger, const std::string& channel, const Bytes& message,
              std::function<void(std::optional<Bytes>)> on_response);

bool HasHandler(FlBinaryMessenger* messenger, const std::string& channel);

struct HostMessage {
  std::string channel;
  Bytes message;
  bool wants_reply;
};
// Messages the host sent to Dart, in order, each taken once.
std::vector<HostMessage> TakeHostMessages(FlBinaryMessenger* messenger);

// How Dart answers host-to-Dart messages; by default with the empty response.
void SetDartResponder(FlBinaryMessenger* messenger,
                      std::function<std::optional<Bytes>(const HostMessage&)> responder);

// Response handles finalised without a response (a critical in flutter_linux), and responses
// refused because the handle had answered already. Process-wide counters.
int unanswered_handles();
int repeated_responses();
// send_response or send_on_channel called off the thread that owns the default main context.
int off_main_thread_calls();
void ResetCounters();

}  // namespace fake_flutter
