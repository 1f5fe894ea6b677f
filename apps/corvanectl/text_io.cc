#include <errno.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>

#include "commands.h"
#include "json/json_mapping.h"

namespace corvane::ctl {

namespace {

// Enough for the largest frame the host accepts, written as hex, with room for JSON around it.
constexpr size_t kMaxInput = 256u << 20;
constexpr size_t kReadChunk = 1u << 20;

}  // namespace

std::optional<std::string> ReadArgument(const std::string& arg, std::string* error) {
  if (arg != "-") return arg;
  std::string text;
  size_t used = 0;
  for (;;) {
    if (text.size() - used < kReadChunk) text.resize(used + kReadChunk);
    const ssize_t n = read(STDIN_FILENO, text.data() + used, text.size() - used);
    if (n > 0) {
      used += static_cast<size_t>(n);
      if (used > kMaxInput) {
        *error = "standard input is larger than " + std::to_string(kMaxInput >> 20) + " MiB";
        return std::nullopt;
      }
      continue;
    }
    if (n == 0) break;
    if (errno == EINTR) continue;
    *error = std::string("cannot read standard input: ") + std::strerror(errno);
    return std::nullopt;
  }
  text.resize(used);
  return text;
}

std::optional<channel::Value> ParseJsonArgument(const std::string& arg, const char* what) {
  std::string error;
  std::optional<std::string> text = ReadArgument(arg, &error);
  if (!text) {
    Complain(error);
    return std::nullopt;
  }
  json::ParsedJson parsed = json::ParseJsonValue(*text);
  if (!parsed.value) Complain(std::string("invalid JSON for ") + what + ": " + parsed.error);
  return std::move(parsed.value);
}

bool PrintLine(const std::string& text) {
  if (std::fwrite(text.data(), 1, text.size(), stdout) != text.size() ||
      std::fputc('\n', stdout) == EOF || std::fflush(stdout) != 0) {
    return false;
  }
  return true;
}

void Complain(const std::string& message) {
  std::fprintf(stderr, "corvanectl: %s\n", message.c_str());
}

channel::Value ErrorObject(const channel::MethodError& error) {
  channel::ValueMap map;
  map.Append(channel::Value("code"), channel::Value(error.code));
  map.Append(channel::Value("message"),
             error.message ? channel::Value(*error.message) : channel::Value());
  map.Append(channel::Value("details"), error.details);
  if (error.stacktrace) {
    map.Append(channel::Value("stacktrace"), channel::Value(*error.stacktrace));
  }
  return channel::Value(std::move(map));
}

}  // namespace corvane::ctl
