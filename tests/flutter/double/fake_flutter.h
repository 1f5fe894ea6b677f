// Controls of the flutter_linux test double: the test plays Dart.
#pragma once

#include <flutter_linux/flutter_linux.h>

#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace fake_flutter {

using Bytes = std::vector<uint8_t>;
using Response = std::optional<Bytes>;  // nullopt: the empty (not-implemented) response
struct HostMessage {
  std::string channel;
  Bytes message;
  bool wants_reply;
  bool operator==(const HostMessage&) const = default;
};

// Dart sends `message` on `channel`; with no handler there the double answers empty at once.
void DartSend(FlBinaryMessenger*, const std::string& channel, const Bytes& message,
              std::function<void(Response)> on_response);
bool HasHandler(FlBinaryMessenger*, const std::string& channel);
// Messages the host sent to Dart, in order, each taken once. Dart answers those that want a
// reply with `responder` (by default the empty response).
std::vector<HostMessage> TakeHostMessages(FlBinaryMessenger*);
void SetDartResponder(FlBinaryMessenger*, std::function<Response(const HostMessage&)> responder);
// Process-wide count of what flutter_linux objects to: handles finalised without a response,
// repeated responses, sends off the thread that made the engine.
int faults();

}  // namespace fake_flutter
