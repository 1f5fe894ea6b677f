#include "cloud/desktop_client_state.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <chrono>
#include <cstring>

namespace corvane::cloud {

namespace {

constexpr std::chrono::milliseconds kTimeout{1000};
constexpr size_t kMaxLine = 64 * 1024;

}  // namespace

std::optional<ItemState> DesktopClientState::FromStatus(const std::string& word) {
  // "+SWM" marks a file shared with the user; it says nothing about its transfer.
  const std::string status = word.substr(0, word.find('+'));
  ItemState state;
  if (status == "OK") return state;
  if (status == "SYNC") {
    state.uploaded = false;
    state.uploading = true;
    return state;
  }
  if (status == "NEW") {
    state.uploaded = false;
    return state;
  }
  if (status == "ERROR") {
    state.uploaded = false;
    state.error = "The desktop client could not sync this file";
    return state;
  }
  return std::nullopt;  // NOP, IGNORE and anything newer: not a synced file
}

std::map<std::string, ItemState> DesktopClientState::States(
    const std::vector<std::string>& paths) const {
  std::map<std::string, ItemState> states;
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  if (paths.empty() || socket_.size() >= sizeof address.sun_path) return states;
  std::memcpy(address.sun_path, socket_.c_str(), socket_.size() + 1);
  const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd < 0) return states;
  if (connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
    close(fd);
    return states;
  }
  const auto deadline = std::chrono::steady_clock::now() + kTimeout;
  auto wait = [&](short events) {
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
        deadline - std::chrono::steady_clock::now());
    pollfd p{fd, events, 0};
    return left.count() > 0 && poll(&p, 1, static_cast<int>(left.count())) == 1;
  };
  std::string requests;
  for (const auto& path : paths) {
    if (path.find('\n') == std::string::npos) requests += "RETRIEVE_FILE_STATUS:" + path + "\n";
  }
  size_t sent = 0;
  std::string input;
  size_t answered = 0;
  char buffer[16384];
  // Requests and answers interleave: the client may answer before it has read them all.
  while (answered < paths.size()) {
    const short events = POLLIN | (sent < requests.size() ? POLLOUT : 0);
    if (!wait(events)) break;
    if (sent < requests.size()) {
      const ssize_t n =
          send(fd, requests.data() + sent, requests.size() - sent, MSG_NOSIGNAL | MSG_DONTWAIT);
      if (n > 0) sent += static_cast<size_t>(n);
    }
    const ssize_t n = recv(fd, buffer, sizeof buffer, MSG_DONTWAIT);
    if (n == 0) break;
    if (n > 0) input.append(buffer, static_cast<size_t>(n));
    size_t newline;
    while ((newline = input.find('\n')) != std::string::npos) {
      const std::string line = input.substr(0, newline);
      input.erase(0, newline + 1);
      // STATUS:<state>:<path>; the client also announces its folders (REGISTER_PATH:...).
      if (line.rfind("STATUS:", 0) != 0) continue;
      const size_t colon = line.find(':', 7);
      if (colon == std::string::npos) continue;
      ++answered;
      if (auto state = FromStatus(line.substr(7, colon - 7)))
        states[line.substr(colon + 1)] = *state;
    }
    if (input.size() > kMaxLine) break;
  }
  close(fd);
  return states;
}

}  // namespace corvane::cloud
