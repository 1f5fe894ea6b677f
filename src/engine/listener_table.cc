#include "engine/listener_table.h"

#include <cstring>

#include "channel/standard_codec.h"

namespace corvane::engine {

ListenerTable::StreamCall ListenerTable::Classify(std::span<const uint8_t> message) {
  // A method call starts with its name as a codec string: type 7, length, bytes. Both names
  // have six letters, so most messages are told apart by three byte comparisons.
  if (message.size() < 8 || message[0] != 7 || message[1] != 6) return StreamCall::kNone;
  const char* name = reinterpret_cast<const char*>(message.data() + 2);
  StreamCall kind = StreamCall::kNone;
  if (std::memcmp(name, "listen", 6) == 0) kind = StreamCall::kListen;
  if (std::memcmp(name, "cancel", 6) == 0) kind = StreamCall::kCancel;
  // A call whose arguments do not decode is the service's to answer (it does so as it would for
  // any malformed message), so it is not treated as a stream call here.
  if (kind != StreamCall::kNone && !channel::DecodeMethodCall(message)) return StreamCall::kNone;
  return kind;
}

ListenerTable::Action ListenerTable::OnListen(const std::string& channel, ClientId client) {
  Entry& entry = channels_[channel];
  const bool alone = entry.listeners.empty() ||
                     (entry.listeners.size() == 1 && entry.listeners.count(client) != 0);
  // Counted as listening before the service answers, so that events the service sends from
  // inside its listen handler reach this client.
  entry.listeners.insert(client);
  return alone ? Action::kForward : Action::kAnswerSuccess;
}

void ListenerTable::ListenAnswered(const std::string& channel, ClientId client, bool accepted) {
  auto it = channels_.find(channel);
  if (it == channels_.end()) return;
  Entry& entry = it->second;
  if (accepted) {
    entry.accepted = true;
    return;
  }
  // A refused listen leaves the service without a sink, whoever held it before.
  entry.listeners.erase(client);
  if (!entry.accepted && entry.listeners.empty()) channels_.erase(it);
}

ListenerTable::Action ListenerTable::OnCancel(const std::string& channel, ClientId client) {
  auto it = channels_.find(channel);
  if (it == channels_.end() || it->second.listeners.empty()) return Action::kForward;
  Entry& entry = it->second;
  if (entry.listeners.erase(client) == 0) return Action::kAnswerNoStream;
  return entry.listeners.empty() ? Action::kForward : Action::kAnswerSuccess;
}

void ListenerTable::EndOfStream(const std::string& channel) {
  auto it = channels_.find(channel);
  if (it != channels_.end()) it->second.listeners.clear();
}

std::vector<std::string> ListenerTable::RemoveClient(ClientId client) {
  std::vector<std::string> silenced;
  for (auto it = channels_.begin(); it != channels_.end();) {
    Entry& entry = it->second;
    if (entry.listeners.erase(client) != 0 && entry.listeners.empty()) {
      if (entry.accepted) {
        silenced.push_back(it->first);
      } else {
        it = channels_.erase(it);
        continue;
      }
    }
    ++it;
  }
  return silenced;
}

const std::set<ListenerTable::ClientId>* ListenerTable::Listeners(
    const std::string& channel) const {
  auto it = channels_.find(channel);
  if (it == channels_.end()) return nullptr;
  if (!it->second.accepted && it->second.listeners.empty()) return nullptr;
  return &it->second.listeners;
}

}  // namespace corvane::engine
