// The application: one GApplication per engine socket, windowed (a GtkApplication that builds
// the main window and quits when the last window closes) or headless (a plain GApplication that
// runs until SIGINT or SIGTERM). The primary instance starts the engine socket and the services;
// a second launch for the same socket hands its documents (or just an activation) to the
// primary over the session bus and exits 0. Without a session bus every launch is a primary.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "host/command_line.h"
#include "host/host.h"
#include "host/info_dictionary.h"

typedef struct _GApplication GApplication;
typedef struct _GFile GFile;
typedef struct _GApplicationCommandLine GApplicationCommandLine;

namespace corvane::host {

// The application id a host is found by on the session bus: `base_id` for the default engine
// socket, else `base_id` plus ".socket_" and a digest of the socket's absolute path, so a test
// host beside the real one is an instance of its own. An empty `socket_path` is the default.
std::string InstanceApplicationId(const std::string& base_id, const std::string& socket_path);

class AppDelegate {
 public:
  AppDelegate(HostOptions options, InfoDictionary info);
  AppDelegate(const AppDelegate&) = delete;
  AppDelegate& operator=(const AppDelegate&) = delete;
  ~AppDelegate();

  // Runs until the last window closes (headless: until SIGINT/SIGTERM), or hands over to the
  // running instance; returns the exit status.
  int Run(const std::string& program_name);

 private:
  static void OnStartup(GApplication* application, void* self);
  static void OnActivate(GApplication* application, void* self);
  static void OnOpen(GApplication* application, GFile** files, int n_files, const char* hint,
                     void* self);
  // Documents given on a command line, this launch's or a second one's, as written there.
  static int OnCommandLine(GApplication* application, GApplicationCommandLine* command_line,
                           void* self);
  static void OnShutdown(GApplication* application, void* self);
  static int OnTerminationSignal(void* self);

  // Builds the main window (registering the services) unless it exists; whether it did.
  bool EnsureMainWindow();
  void OpenDocuments(const std::vector<std::string>& urls);
  // The window is up (or, headless, the services are) and every service registered: the
  // local-network permission question is provoked and the launch is handed to the document
  // hand-off (through the host's application delegates). Once.
  void DidFinishLaunching();

  HostOptions options_;
  std::unique_ptr<InfoDictionary> info_;  // until the host takes it
  GApplication* application_ = nullptr;
  std::unique_ptr<Host> host_;
  std::string socket_path_;
  bool window_created_ = false;
  int exit_status_ = kExitOk;
};

}  // namespace corvane::host
