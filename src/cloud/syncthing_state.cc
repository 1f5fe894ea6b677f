#include "cloud/syncthing_state.h"

#include <arpa/inet.h>
#include <glib.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>

#include "json/json_mapping.h"

namespace corvane::cloud {

namespace {

using channel::Value;
using channel::ValueMap;

constexpr int kTimeoutMs = 1000;
constexpr size_t kMaxAnswerBytes = 8 * 1024 * 1024;

std::string UriEscape(const std::string& text) {
  gchar* escaped = g_uri_escape_string(text.c_str(), nullptr, false);
  std::string result(escaped);
  g_free(escaped);
  return result;
}

const ValueMap* MapAt(const ValueMap* map, const char* key) {
  const Value* v = map ? map->Find(key) : nullptr;
  return v ? v->map_if() : nullptr;
}

// Only a loopback listener gets the API key: it must never leave the machine.
bool LoopbackAddress(const std::string& address, sockaddr_in* out) {
  const size_t colon = address.rfind(':');
  if (colon == std::string::npos) return false;
  std::string host = address.substr(0, colon);
  // A listener on every address is reachable on loopback too.
  if (host == "localhost" || host == "0.0.0.0" || host.empty()) host = "127.0.0.1";
  const long port = std::strtol(address.c_str() + colon + 1, nullptr, 10);
  sockaddr_in a{};
  a.sin_family = AF_INET;
  a.sin_port = htons(static_cast<uint16_t>(port));
  if (port <= 0 || port > 65535 || inet_pton(AF_INET, host.c_str(), &a.sin_addr) != 1) {
    return false;
  }
  if ((ntohl(a.sin_addr.s_addr) >> 24) != 127) return false;
  *out = a;
  return true;
}

bool WaitFor(int fd, short events, std::chrono::steady_clock::time_point deadline) {
  const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
      deadline - std::chrono::steady_clock::now());
  if (left.count() <= 0) return false;
  pollfd p{fd, events, 0};
  return poll(&p, 1, static_cast<int>(left.count())) == 1;
}

}  // namespace

SyncthingState::SyncthingState(SyncthingSetup setup, std::string folder_id, std::string root)
    : setup_(std::move(setup)), folder_id_(std::move(folder_id)), root_(std::move(root)) {}

std::optional<std::string> SyncthingState::Get(const std::string& target) const {
  sockaddr_in address;
  if (setup_.api_tls || !LoopbackAddress(setup_.api_address, &address)) return std::nullopt;
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(kTimeoutMs);
  const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
  if (fd < 0) return std::nullopt;
  std::optional<std::string> body;
  const std::string request = "GET " + target + " HTTP/1.0\r\nHost: " + setup_.api_address +
                              "\r\nX-API-Key: " + setup_.api_key + "\r\n\r\n";
  std::string answer;
  bool ok = connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0 ||
            (errno == EINPROGRESS && WaitFor(fd, POLLOUT, deadline));
  size_t sent = 0;
  while (ok && sent < request.size()) {
    const ssize_t n = send(fd, request.data() + sent, request.size() - sent, MSG_NOSIGNAL);
    if (n > 0)
      sent += static_cast<size_t>(n);
    else
      ok = n < 0 && errno == EAGAIN && WaitFor(fd, POLLOUT, deadline);
  }
  char buffer[16384];
  while (ok && WaitFor(fd, POLLIN, deadline)) {
    const ssize_t n = recv(fd, buffer, sizeof buffer, 0);
    if (n == 0) break;
    if (n < 0)
      ok = errno == EAGAIN;
    else
      answer.append(buffer, static_cast<size_t>(n));
    if (answer.size() > kMaxAnswerBytes) ok = false;
  }
  close(fd);
  const size_t header_end = answer.find("\r\n\r\n");
  if (ok && header_end != std::string::npos && answer.compare(0, 7, "HTTP/1.") == 0 &&
      answer.compare(8, 5, " 200 ") == 0) {
    body = answer.substr(header_end + 4);
  }
  return body;
}

std::string SyncthingState::Relative(const std::string& path) const {
  return path.size() > root_.size() ? path.substr(root_.size() + 1) : "";
}

std::optional<ItemState> SyncthingState::FileState(const std::string& path) const {
  const std::string relative = Relative(path);
  if (relative.empty()) return std::nullopt;
  auto body = Get("/rest/db/file?folder=" + UriEscape(folder_id_) + "&file=" + UriEscape(relative));
  if (!body) return std::nullopt;
  auto parsed = json::ParseJsonValue(*body);
  const ValueMap* answer = parsed.value ? parsed.value->map_if() : nullptr;
  const ValueMap* local = MapAt(answer, "local");
  const ValueMap* global = MapAt(answer, "global");
  if (!local || !global) return std::nullopt;
  ItemState state;
  const Value* local_version = local->Find("version");
  const Value* global_version = global->Find("version");
  if (local_version && global_version && !(*local_version == *global_version)) {
    // The index holds a newer version than this side has: it is still to come.
    state.downloaded = false;
    const Value* availability = answer->Find("availability");
    state.downloading =
        availability && availability->list_if() && !availability->list_if()->empty();
  }
  const Value* invalid = local->Find("invalid");
  if (invalid && invalid->bool_if() && *invalid->bool_if()) {
    state.error = "Syncthing cannot sync this file";
  }
  return state;
}

std::map<std::string, ItemState> SyncthingState::FolderStates(const std::string& folder) const {
  std::map<std::string, ItemState> states;
  auto body = Get("/rest/db/need?folder=" + UriEscape(folder_id_) + "&perpage=100000");
  if (!body) return states;
  auto parsed = json::ParseJsonValue(*body);
  const ValueMap* answer = parsed.value ? parsed.value->map_if() : nullptr;
  for (const char* group : {"progress", "queued", "rest"}) {
    const Value* list = answer ? answer->Find(group) : nullptr;
    if (!list || !list->list_if()) continue;
    for (const Value& entry : *list->list_if()) {
      const ValueMap* file = entry.map_if();
      const Value* name = file ? file->Find("name") : nullptr;
      if (!name || !name->string_if()) continue;
      const std::string path = root_ + "/" + *name->string_if();
      if (path.compare(0, folder.size() + 1, folder + "/") != 0) continue;
      ItemState state;
      state.downloaded = false;
      state.downloading = std::string(group) == "progress";
      states[path] = state;
    }
  }
  return states;
}

}  // namespace corvane::cloud
