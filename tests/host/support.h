// Fixtures shared by the tests: a private folder, child processes, and a private X server.
#pragma once

#include <gio/gio.h>
#include <gtest/gtest.h>
#include <sys/prctl.h>

#include <csignal>
#include <filesystem>
#include <string>
#include <vector>

#include "dispatch/queue.h"

namespace corvane::testing {

// A fresh folder, removed with everything in it when the object goes.
class TempDir {
 public:
  TempDir() {
    std::string pattern = std::string(g_get_tmp_dir()) + "/corvane-test-XXXXXX";
    path_ = mkdtemp(pattern.data()) ? pattern : "/nonexistent/corvane-test";
  }
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;
  ~TempDir() { std::filesystem::remove_all(path_); }

  const std::string& path() const { return path_; }
  std::string operator/(const std::string& name) const { return path_ + "/" + name; }

 private:
  std::string path_;
};

constexpr auto kAllPipes =
    static_cast<GSubprocessFlags>(G_SUBPROCESS_FLAGS_STDIN_PIPE | G_SUBPROCESS_FLAGS_STDOUT_PIPE |
                                  G_SUBPROCESS_FLAGS_STDERR_PIPE);

// In a child: the kernel kills it when this process ends, even by a crash or a time-out, so no
// child outlives its test; SIGPIPE is back to its default (dying of it is a fault to catch).
inline void OwnedChild(gpointer) {
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  signal(SIGPIPE, SIG_DFL);
}

// Starts `argv` through `launcher`, which it takes, as an owned child.
inline GSubprocess* Spawn(GSubprocessLauncher* launcher, const std::vector<std::string>& argv) {
  g_subprocess_launcher_set_child_setup(launcher, OwnedChild, nullptr, nullptr);
  std::vector<const char*> args;
  for (const std::string& a : argv) args.push_back(a.c_str());
  args.push_back(nullptr);
  GError* error = nullptr;
  GSubprocess* process = g_subprocess_launcher_spawnv(launcher, args.data(), &error);
  g_object_unref(launcher);
  EXPECT_NE(process, nullptr) << (error ? error->message : "");
  g_clear_error(&error);
  return process;
}

struct Outcome {
  int code = -1;  // the exit status, or 128 + the signal that ended it
  std::string out, err;
};

// The first line the process prints on its piped standard output; empty if it ends first.
inline std::string FirstLine(GSubprocess* process) {
  GDataInputStream* out = g_data_input_stream_new(g_subprocess_get_stdout_pipe(process));
  g_filter_input_stream_set_close_base_stream(G_FILTER_INPUT_STREAM(out), FALSE);
  gchar* line = g_data_input_stream_read_line(out, nullptr, nullptr, nullptr);
  std::string text = line ? line : "";
  g_free(line);
  g_object_unref(out);
  return text;
}

// Feeds `input` to a piped standard input and waits for the end, collecting piped output. The
// main loop turns meanwhile, so an engine in this process keeps answering.
inline Outcome Finish(GSubprocess* process, const std::string& input = {}) {
  Outcome outcome;
  if (!process) return outcome;
  struct Streams {
    bool done = false;
    GBytes* out = nullptr;
    GBytes* err = nullptr;
  } streams;
  GBytes* in =
      g_subprocess_get_stdin_pipe(process) ? g_bytes_new(input.data(), input.size()) : nullptr;
  g_subprocess_communicate_async(
      process, in, nullptr,
      [](GObject* source, GAsyncResult* async, gpointer data) {
        auto* s = static_cast<Streams*>(data);
        g_subprocess_communicate_finish(G_SUBPROCESS(source), async, &s->out, &s->err, nullptr);
        s->done = true;
      },
      &streams);
  if (in) g_bytes_unref(in);
  if (!dispatch::RunMainUntil([&] { return streams.done; }, std::chrono::seconds(60))) {
    ADD_FAILURE() << "the child did not finish";
    g_subprocess_force_exit(process);
    dispatch::RunMainUntil([&] { return streams.done; }, std::chrono::seconds(60));
  }
  for (auto [bytes, text] : {std::pair{streams.out, &outcome.out}, {streams.err, &outcome.err}}) {
    gsize size = 0;
    const auto* data = bytes ? static_cast<const char*>(g_bytes_get_data(bytes, &size)) : nullptr;
    if (data) text->assign(data, size);
    if (bytes) g_bytes_unref(bytes);
  }
  outcome.code = g_subprocess_get_if_exited(process) ? g_subprocess_get_exit_status(process)
                                                     : 128 + g_subprocess_get_term_sig(process);
  g_object_unref(process);
  return outcome;
}

// A server that prints one line once it serves (Xvfb its display, dbus-daemon its address).
class ServerProcess {
 public:
  explicit ServerProcess(const std::vector<std::string>& argv) {
    GSubprocessLauncher* launcher = g_subprocess_launcher_new(static_cast<GSubprocessFlags>(
        G_SUBPROCESS_FLAGS_STDOUT_PIPE | G_SUBPROCESS_FLAGS_STDERR_SILENCE));
    process_ = Spawn(launcher, argv);
    if (process_) line_ = FirstLine(process_);
  }
  ~ServerProcess() {
    if (!process_) return;
    g_subprocess_force_exit(process_);
    g_subprocess_wait(process_, nullptr, nullptr);
    g_object_unref(process_);
  }
  ServerProcess(const ServerProcess&) = delete;
  ServerProcess& operator=(const ServerProcess&) = delete;

  const std::string& line() const { return line_; }  // empty when it never came up

 private:
  GSubprocess* process_ = nullptr;
  std::string line_;
};

// A private X server for GTK tests.
class XvfbServer {
 public:
  bool ok() const { return !process_.line().empty(); }
  std::string display() const { return ":" + process_.line(); }

 private:
  // Xvfb prints the display number once it accepts connections.
  ServerProcess process_{
      {"Xvfb", "-displayfd", "1", "-screen", "0", "1280x1024x24", "-nolisten", "tcp"}};
};

}  // namespace corvane::testing
