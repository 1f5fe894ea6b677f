// Logging for the channel layer, which has no framework of its own: the host installs a sink
// (GLib's structured log); without one, lines go to standard error.
#pragma once

#include <cstddef>
#include <functional>
#include <string>
#include <string_view>

namespace corvane::channel {

enum class LogLevel { kDebug, kInfo, kWarning };

// No line is longer: a longer message is cut (never inside a UTF-8 sequence) and says how long
// it was, so that a refused 16 MiB argument makes a short line, whichever service logs it.
inline constexpr size_t kMaxLogLine = 2048;

using LogSink = std::function<void(LogLevel, std::string_view domain, std::string_view message)>;

// The message itself when it fits, else its cut form, kept in `storage`.
std::string_view CutLogLine(std::string_view message, std::string& storage);

void SetLogSink(LogSink sink);
void Log(LogLevel level, std::string_view domain, std::string_view message);

}  // namespace corvane::channel
