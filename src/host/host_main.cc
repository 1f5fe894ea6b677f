#include "host/host_main.h"

#include <glib.h>
#include <gtk/gtk.h>

#include <cstdio>
#include <string>

#include "engine/loopback_engine.h"
#include "engine/socket_engine.h"
#include "host/app_delegate.h"
#include "host/command_line.h"
#include "host/glib_log_sink.h"
#include "host/host.h"
#include "host/startup.h"

namespace corvane::host {

namespace {

constexpr const char* kLogDomain = "corvane-host";

std::string Join(const std::vector<std::string>& items, const char* separator) {
  std::string joined;
  for (const auto& item : items) {
    if (!joined.empty()) joined += separator;
    joined += item;
  }
  return joined;
}

// The registrations a start would make, made for real on an engine that goes nowhere.
int PrintRegistrations(InfoDictionary info) {
  Host host(std::make_unique<engine::LoopbackEngine>(), std::move(info));
  const PluginRegistry& registry = host.RegisterMainWindowServices(nullptr);
  for (const Registration& r : registry.registrations()) {
    const std::string channels = r.channels.empty() ? "-" : Join(r.channels, ",");
    std::printf("%s\t%s\t%s\t%s\n", r.registrar.c_str(), r.service.c_str(), channels.c_str(),
                RegistrationStatusName(r.status));
  }
  return kExitOk;
}

bool DisplayAvailable() {
  const char* x11 = g_getenv("DISPLAY");
  const char* wayland = g_getenv("WAYLAND_DISPLAY");
  if ((!x11 || !*x11) && (!wayland || !*wayland)) return false;
  return gtk_init_check(nullptr, nullptr);
}

}  // namespace

int HostMain(int argc, char** argv) {
  RouteChannelLogToGLib();

  std::string error;
  auto options = ParseCommandLine(argc, argv, &error);
  if (!options) {
    std::fprintf(stderr, "corvane-host: %s\nTry 'corvane-host --help'.\n", error.c_str());
    return kExitUsage;
  }
  if (options->help) {
    std::fputs(HelpText(engine::SocketEngine::DefaultSocketPath()).c_str(), stdout);
    return kExitOk;
  }

  std::optional<InfoDictionary> info;
  if (options->info_file) {
    info = InfoDictionary::Load(*options->info_file, &error);
    if (!info) {
      std::fprintf(stderr, "corvane-host: cannot use --info file: %s\n", error.c_str());
      return kExitUsage;
    }
  } else {
    info = InfoDictionary::Default();
  }

  if (options->print_registrations) return PrintRegistrations(std::move(*info));

  if (!options->headless && !DisplayAvailable()) {
    g_log(kLogDomain, G_LOG_LEVEL_INFO, "no display; running headless");
    options->headless = true;
  }
  AppDelegate app(std::move(*options), std::move(*info));
  return app.Run(argc > 0 ? argv[0] : "corvane-host");
}

}  // namespace corvane::host
