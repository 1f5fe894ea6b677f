// Routes the channel layer's log lines into GLib's structured log, each under its own domain, so
// G_MESSAGES_DEBUG=corvane-udp (and the like) selects them.
#pragma once

namespace corvane::host {

void RouteChannelLogToGLib();

}  // namespace corvane::host
