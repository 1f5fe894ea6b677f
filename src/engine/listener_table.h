// Which engine clients listen on which event channel. A service keeps one sink per event
// channel, so it must see the first "listen" and the last "cancel" only; this table decides,
// per client call, whether the service is asked or the engine answers for it, and to whom an
// event goes.
#pragma once

#include <cstdint>
#include <map>
#include <set>
#include <span>
#include <string>
#include <vector>

namespace corvane::engine {

class ListenerTable {
 public:
  using ClientId = uint64_t;

  enum class StreamCall { kNone, kListen, kCancel };
  // Whether a client's message is an event channel's "listen" or "cancel" call.
  static StreamCall Classify(std::span<const uint8_t> message);

  enum class Action {
    kForward,         // the service answers; tell the table its answer (ListenAnswered)
    kAnswerSuccess,   // answer success for the service, which is not told
    kAnswerNoStream,  // answer the "no active stream" error for the service
  };

  Action OnListen(const std::string& channel, ClientId client);
  // The service's answer to a forwarded listen.
  void ListenAnswered(const std::string& channel, ClientId client, bool accepted);
  Action OnCancel(const std::string& channel, ClientId client);

  // The service ended the stream: its listeners are listening no longer, and the service,
  // which considers the stream over, hears no cancel when they go.
  void EndOfStream(const std::string& channel);

  // Forgets a client that went away. Returns the channels it was the last listener of: their
  // services must hear "cancel".
  std::vector<std::string> RemoveClient(ClientId client);

  // Listeners of an event channel; null when `channel` is not known as one, in which case a
  // host message on it goes to every client.
  const std::set<ClientId>* Listeners(const std::string& channel) const;

 private:
  struct Entry {
    std::set<ClientId> listeners;
    bool accepted = false;  // the service has taken a listen: it is an event channel
  };
  std::map<std::string, Entry> channels_;
};

}  // namespace corvane::engine
