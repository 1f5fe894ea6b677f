// The windowed application: a GtkApplication that starts the engine socket in the primary
// instance, builds the main window, and quits when the last window closes. A second launch is
// forwarded to the primary over D-Bus (where there is a session bus), documents included.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "host/command_line.h"
#include "host/host.h"
#include "host/info_dictionary.h"

typedef struct _GtkApplication GtkApplication;
typedef struct _GApplication GApplication;
typedef struct _GFile GFile;

namespace corvane::host {

class AppDelegate {
 public:
  AppDelegate(HostOptions options, InfoDictionary info);
  AppDelegate(const AppDelegate&) = delete;
  AppDelegate& operator=(const AppDelegate&) = delete;
  ~AppDelegate();

  // Runs until the last window closes or SIGINT/SIGTERM; returns the exit status.
  int Run(const std::string& program_name);

 private:
  static void OnStartup(GApplication* application, void* self);
  static void OnActivate(GApplication* application, void* self);
  static void OnOpen(GApplication* application, GFile** files, int n_files, const char* hint,
                     void* self);
  static void OnShutdown(GApplication* application, void* self);
  static int OnTerminationSignal(void* self);

  void ShowMainWindow();
  // The window is up and every service registered: the local-network permission question is
  // provoked and the launch is handed to the document hand-off (through the host's application
  // delegates). Once.
  void DidFinishLaunching();

  HostOptions options_;
  std::unique_ptr<InfoDictionary> info_;  // until the host takes it
  GtkApplication* application_ = nullptr;
  std::unique_ptr<Host> host_;
  std::string socket_path_;
  bool window_created_ = false;
  int exit_status_ = kExitOk;
};

}  // namespace corvane::host
