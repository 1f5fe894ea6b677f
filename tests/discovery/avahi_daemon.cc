#include "discovery/avahi_daemon.h"

#include <glib.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>

namespace corvane::discovery::testing {

namespace {

// GLib's spawn, because these tests have threads running: it forks and execs safely.
std::vector<char*> Argv(std::vector<std::string>& argv) {
  std::vector<char*> out;
  for (std::string& a : argv) out.push_back(a.data());
  out.push_back(nullptr);
  return out;
}

bool RunQuietly(std::vector<std::string> argv, const char* env_name = nullptr,
                const std::string& env_value = "") {
  gchar** env = g_get_environ();
  if (env_name != nullptr) env = g_environ_setenv(env, env_name, env_value.c_str(), TRUE);
  std::vector<char*> args = Argv(argv);
  gint status = 0;
  GError* error = nullptr;
  const bool ran =
      g_spawn_sync(nullptr, args.data(), env,
                   static_cast<GSpawnFlags>(G_SPAWN_SEARCH_PATH | G_SPAWN_STDOUT_TO_DEV_NULL),
                   nullptr, nullptr, nullptr, nullptr, &status, &error);
  g_strfreev(env);
  if (!ran) {
    g_printerr("cannot run %s: %s\n", argv[0].c_str(), error->message);
    g_error_free(error);
    return false;
  }
  return g_spawn_check_wait_status(status, nullptr);
}

}  // namespace

bool RunDaemonScript(const std::string& script, const std::string& dir,
                     const std::string& command) {
  return RunQuietly({script, command}, "AVAHI_CI_DIR", dir);
}

std::string BusAddress(const std::string& dir) { return "unix:path=" + dir + "/system_bus_socket"; }

bool DaemonAnswers() {
  return RunQuietly({"dbus-send", "--system", "--print-reply", "--reply-timeout=2000",
                     "--dest=org.freedesktop.Avahi", "/",
                     "org.freedesktop.Avahi.Server.GetVersionString"});
}

Child::Child(std::vector<std::string> argv, bool capture_stdout) {
  std::vector<char*> args = Argv(argv);
  GError* error = nullptr;
  GPid pid = 0;
  const int flags = G_SPAWN_SEARCH_PATH | G_SPAWN_DO_NOT_REAP_CHILD | G_SPAWN_STDERR_TO_DEV_NULL |
                    (capture_stdout ? 0 : G_SPAWN_STDOUT_TO_DEV_NULL);
  if (!g_spawn_async_with_pipes(nullptr, args.data(), nullptr, static_cast<GSpawnFlags>(flags),
                                nullptr, nullptr, &pid, nullptr, capture_stdout ? &out_ : nullptr,
                                nullptr, &error)) {
    g_printerr("cannot run %s: %s\n", argv[0].c_str(), error->message);
    g_error_free(error);
    return;
  }
  pid_ = pid;
}

Child::~Child() {
  Stop();
  if (out_ >= 0) close(out_);
}

void Child::Stop() {
  if (pid_ <= 0) return;
  kill(pid_, SIGTERM);
  int status = 0;
  while (waitpid(pid_, &status, 0) < 0 && errno == EINTR) {
  }
  pid_ = -1;
}

bool Child::ReadLine(std::string& line, int timeout_ms) {
  for (;;) {
    size_t nl = buffer_.find('\n');
    if (nl != std::string::npos) {
      line = buffer_.substr(0, nl);
      buffer_.erase(0, nl + 1);
      return true;
    }
    if (out_ < 0) return false;
    pollfd p{out_, POLLIN, 0};
    if (poll(&p, 1, timeout_ms) <= 0) return false;
    char chunk[4096];
    ssize_t n = read(out_, chunk, sizeof chunk);
    if (n <= 0) return false;
    buffer_.append(chunk, static_cast<size_t>(n));
  }
}

}  // namespace corvane::discovery::testing
