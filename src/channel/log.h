// Logging for the channel layer, which has no framework of its own: the host installs a sink
// (GLib's structured log); without one, lines go to standard error.
#pragma once

#include <functional>
#include <string_view>

namespace corvane::channel {

enum class LogLevel { kDebug, kInfo, kWarning };

using LogSink = std::function<void(LogLevel, std::string_view domain, std::string_view message)>;

void SetLogSink(LogSink sink);
void Log(LogLevel level, std::string_view domain, std::string_view message);

}  // namespace corvane::channel
