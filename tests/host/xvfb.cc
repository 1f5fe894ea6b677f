#include "xvfb.h"

#include <gio/gio.h>
#include <unistd.h>

namespace corvane::testing {

XvfbServer::XvfbServer() {
  int fds[2];
  if (pipe(fds) != 0) {
    error_ = "pipe failed";
    return;
  }
  GSubprocessLauncher* launcher = g_subprocess_launcher_new(static_cast<GSubprocessFlags>(
      G_SUBPROCESS_FLAGS_STDOUT_SILENCE | G_SUBPROCESS_FLAGS_STDERR_SILENCE));
  // Xvfb writes the display number it chose to fd 3 once it accepts connections.
  g_subprocess_launcher_take_fd(launcher, fds[1], 3);
  GError* gerror = nullptr;
  process_ = g_subprocess_launcher_spawn(launcher, &gerror, "Xvfb", "-displayfd", "3", "-screen",
                                         "0", "1280x1024x24", "-nolisten", "tcp", nullptr);
  // Frees our copy of the write end, so the read below ends if Xvfb dies without a number.
  g_object_unref(launcher);
  if (!process_) {
    error_ = std::string("cannot start Xvfb: ") + gerror->message;
    g_error_free(gerror);
    close(fds[0]);
    return;
  }
  std::string number;
  char c;
  while (read(fds[0], &c, 1) == 1 && c != '\n') number += c;
  close(fds[0]);
  if (number.empty()) {
    error_ = "Xvfb ended without reporting a display";
    return;
  }
  display_ = ":" + number;
}

XvfbServer::~XvfbServer() {
  if (!process_) return;
  g_subprocess_force_exit(process_);
  g_subprocess_wait(process_, nullptr, nullptr);
  g_object_unref(process_);
}

}  // namespace corvane::testing
