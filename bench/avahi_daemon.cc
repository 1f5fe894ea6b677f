#include "avahi_daemon.h"

#include <gio/gio.h>
#include <gio/gunixinputstream.h>
#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <unistd.h>

namespace corvane::discovery::testing {

// GIO's subprocesses, because these tests have threads running: they fork and exec safely.
// This process owns the pair: the script's watcher stops it once this process is gone.
bool RunDaemonScript(const std::string& script, const std::string& dir,
                     const std::string& command) {
  GSubprocessLauncher* launcher = g_subprocess_launcher_new(G_SUBPROCESS_FLAGS_STDOUT_SILENCE);
  g_subprocess_launcher_setenv(launcher, "AVAHI_CI_DIR", dir.c_str(), TRUE);
  g_subprocess_launcher_setenv(launcher, "AVAHI_CI_OWNER", std::to_string(getpid()).c_str(), TRUE);
  GError* error = nullptr;
  GSubprocess* process =
      g_subprocess_launcher_spawn(launcher, &error, script.c_str(), command.c_str(), nullptr);
  g_object_unref(launcher);
  const bool ok = process != nullptr && g_subprocess_wait_check(process, nullptr, &error);
  if (error != nullptr) {
    g_printerr("%s %s: %s\n", script.c_str(), command.c_str(), error->message);
    g_error_free(error);
  }
  if (process != nullptr) g_object_unref(process);
  return ok;
}

std::string BusAddress(const std::string& dir) { return "unix:path=" + dir + "/system_bus_socket"; }

Child::Child(const std::vector<std::string>& argv, bool capture_stdout) {
  std::vector<const char*> args;
  for (const std::string& a : argv) args.push_back(a.c_str());
  args.push_back(nullptr);
  GError* error = nullptr;
  GSubprocessLauncher* launcher = g_subprocess_launcher_new(static_cast<GSubprocessFlags>(
      G_SUBPROCESS_FLAGS_STDERR_SILENCE |
      (capture_stdout ? G_SUBPROCESS_FLAGS_STDOUT_PIPE : G_SUBPROCESS_FLAGS_STDOUT_SILENCE)));
  // Killed with this process, even when that is killed outright.
  g_subprocess_launcher_set_child_setup(
      launcher, +[](gpointer) { prctl(PR_SET_PDEATHSIG, SIGKILL); }, nullptr, nullptr);
  process_ = g_subprocess_launcher_spawnv(launcher, args.data(), &error);
  g_object_unref(launcher);
  if (process_ == nullptr) {
    g_printerr("cannot run %s: %s\n", args[0], error->message);
    g_error_free(error);
  }
}

Child::~Child() { Stop(); }

void Child::Stop() {
  if (process_ == nullptr) return;
  g_subprocess_send_signal(process_, SIGTERM);
  g_subprocess_wait(process_, nullptr, nullptr);
  g_clear_object(&process_);
}

bool Child::ReadLine(std::string& line, int timeout_ms) {
  for (;;) {
    if (size_t nl = buffer_.find('\n'); nl != std::string::npos) {
      line = buffer_.substr(0, nl);
      buffer_.erase(0, nl + 1);
      return true;
    }
    GInputStream* out = process_ ? g_subprocess_get_stdout_pipe(process_) : nullptr;
    if (out == nullptr) return false;
    pollfd p{g_unix_input_stream_get_fd(G_UNIX_INPUT_STREAM(out)), POLLIN, 0};
    char chunk[4096];
    const ssize_t n = poll(&p, 1, timeout_ms) > 0 ? read(p.fd, chunk, sizeof chunk) : 0;
    if (n <= 0) return false;
    buffer_.append(chunk, static_cast<size_t>(n));
  }
}

}  // namespace corvane::discovery::testing
