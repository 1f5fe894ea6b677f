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

// Dart sends; with no handler on the channel the double answers empty at once.
void DartSend(FlBinaryMessenger*, const std::string& channel, const Bytes& message,
              std::function<void(Response)> on_response);
bool HasHandler(FlBinaryMessenger*, const std::string& channel);
// Messages the host sent to Dart, each taken once; Dart answers with `responder` (or empty).
std::vector<HostMessage> TakeHostMessages(FlBinaryMessenger*);
void SetDartResponder(FlBinaryMessenger*, std::function<Response(const HostMessage&)> responder);
// Response handles finalised unanswered and repeated responses, process-wide.
int faults();

}  // namespace fake_flutter
