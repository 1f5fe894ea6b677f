#include "channel/log.h"

#include <cstdio>
#include <mutex>
#include <string>

namespace corvane::channel {
namespace {
std::mutex g_mutex;
LogSink& Sink() {
  static LogSink sink;
  return sink;
}
}  // namespace

void SetLogSink(LogSink sink) {
  std::lock_guard lock(g_mutex);
  Sink() = std::move(sink);
}

std::string_view CutLogLine(std::string_view message, std::string& storage) {
  if (message.size() <= kMaxLogLine) return message;
  size_t end = kMaxLogLine - 32;  // room for the length note
  while (end > 0 && (static_cast<unsigned char>(message[end]) & 0xc0) == 0x80) --end;
  storage.assign(message.substr(0, end))
      .append("... (")
      .append(std::to_string(message.size()))
      .append(" bytes)");
  return storage;
}

void Log(LogLevel level, std::string_view domain, std::string_view message) {
  std::string cut;
  message = CutLogLine(message, cut);
  LogSink sink;
  {
    std::lock_guard lock(g_mutex);
    sink = Sink();
  }
  if (sink) {
    sink(level, domain, message);
    return;
  }
  if (level == LogLevel::kDebug) return;
  std::fprintf(stderr, "%.*s: %.*s\n", static_cast<int>(domain.size()), domain.data(),
               static_cast<int>(message.size()), message.data());
}

}  // namespace corvane::channel
