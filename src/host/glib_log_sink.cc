#include "host/glib_log_sink.h"

#include <glib.h>

#include <cstring>
#include <string>
#include <vector>

#include "channel/log.h"

namespace corvane::host {

namespace {

GLogLevelFlags ToGLib(channel::LogLevel level) {
  switch (level) {
    case channel::LogLevel::kDebug:
      return G_LOG_LEVEL_DEBUG;
    case channel::LogLevel::kInfo:
      return G_LOG_LEVEL_INFO;
    case channel::LogLevel::kWarning:
      return G_LOG_LEVEL_WARNING;
  }
  return G_LOG_LEVEL_WARNING;
}

// Services that log through GLib directly get the same bound on a line as the channel layer.
GLogWriterOutput WriteCut(GLogLevelFlags level, const GLogField* fields, gsize count, gpointer) {
  std::vector<GLogField> copy(fields, fields + count);
  std::string storage;
  for (GLogField& field : copy) {
    if (std::strcmp(field.key, "MESSAGE") != 0 || !field.value) continue;
    const auto* text = static_cast<const char*>(field.value);
    const std::string_view message(text, field.length < 0 ? std::strlen(text) : field.length);
    const std::string_view cut = channel::CutLogLine(message, storage);
    if (cut.data() != message.data()) {
      field.value = storage.c_str();
      field.length = -1;
    }
  }
  return g_log_writer_default(level, copy.data(), copy.size(), nullptr);
}

}  // namespace

void RouteChannelLogToGLib() {
  g_log_set_writer_func(WriteCut, nullptr, nullptr);
  channel::SetLogSink(
      [](channel::LogLevel level, std::string_view domain, std::string_view message) {
        const GLogLevelFlags glib_level = ToGLib(level);
        // The level as syslog priority text, which the default writer expects in PRIORITY.
        const char* priority = glib_level == G_LOG_LEVEL_DEBUG  ? "7"
                               : glib_level == G_LOG_LEVEL_INFO ? "6"
                                                                : "4";
        // GLib's writers read these fields as C strings whatever length is given.
        const std::string domain_text(domain);
        const std::string message_text(message);
        const GLogField fields[] = {
            {"GLIB_DOMAIN", domain_text.c_str(), -1},
            {"MESSAGE", message_text.c_str(), -1},
            {"PRIORITY", priority, -1},
        };
        g_log_structured_array(glib_level, fields, G_N_ELEMENTS(fields));
      });
}

}  // namespace corvane::host
