// The pieces of a real DNS-SD setup the benchmark drives: the private bus and avahi-daemon
// started by scripts/avahi-test-daemon.sh, and avahi-publish / avahi-browse as child processes.
#pragma once

#include <string>
#include <vector>

typedef struct _GSubprocess GSubprocess;

namespace corvane::discovery::testing {

// Runs the daemon script with `command` ("start", "stop", "stop-avahi", "status") for the pair
// kept in `dir`; true when it succeeded.
bool RunDaemonScript(const std::string& script, const std::string& dir, const std::string& command);

// The bus address of the pair kept in `dir`.
std::string BusAddress(const std::string& dir);

// A child process with its output discarded or captured line by line; killed (SIGTERM) and
// reaped when destroyed.
class Child {
 public:
  explicit Child(const std::vector<std::string>& argv, bool capture_stdout = false);
  Child(const Child&) = delete;
  Child& operator=(const Child&) = delete;
  ~Child();

  // Sends SIGTERM and waits for the process to end.
  void Stop();
  // The next complete line of its standard output, waiting up to `timeout_ms`; false on time-out
  // or end of output.
  bool ReadLine(std::string& line, int timeout_ms);

 private:
  GSubprocess* process_ = nullptr;
  std::string buffer_;
};

// `avahi-publish -s NAME TYPE PORT` until stopped.
inline std::vector<std::string> PublishCommand(const std::string& name, const std::string& type,
                                               int port) {
  return {"avahi-publish", "-s", name, type, std::to_string(port)};
}

}  // namespace corvane::discovery::testing
