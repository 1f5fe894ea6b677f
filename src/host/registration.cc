#include "host/registration.h"

#include <algorithm>

#include "channel/log.h"
#include "host/window_content.h"

namespace corvane::host {

namespace {

constexpr const char* kLogDomain = "corvane-host";

WindowCreatedHook g_window_created_hook = nullptr;
WindowContent* g_window_content = nullptr;

// One line per plug-in, so a missing one shows in the log of any start.
void RegisterPlugin(PluginRegistry& registry, const std::string& registrar_name,
                    const std::string& package, const std::string& service) {
  Registrar& registrar = registry.RegistrarForPlugin(registrar_name);
  WindowContent* content = window_content();
  const bool linked = content && content->RegisterPlugin(registry, package);
  channel::Log(channel::LogLevel::kInfo, kLogDomain,
               "plug-in " + registrar_name + " (" + package +
                   "): " + (linked ? "registered" : "not part of this app"));
  registry.Record(registrar, service, {},
                  linked ? RegistrationStatus::kRegistered : RegistrationStatus::kNotLinked);
}

void RegisterRow(PluginRegistry& registry, const StartupRow& row) {
  if (registry.IsRecorded(row.registrar)) return;
  if (!row.factory) {
    // An own service without a factory is not part of this build yet: it is not registered and
    // its channels stay unanswered.
    if (row.kind == StartupRow::Kind::kStandardPlugin) {
      RegisterPlugin(registry, row.registrar, row.package, row.service);
    }
    return;
  }
  Registrar& registrar = registry.RegistrarForPlugin(row.registrar);
  std::shared_ptr<void> service = row.factory(registrar);
  if (!service) {
    channel::Log(channel::LogLevel::kWarning, kLogDomain,
                 "the factory of " + row.service + " made nothing; not registered");
    return;
  }
  registry.Record(registrar, row.service, row.channels, RegistrationStatus::kRegistered,
                  std::move(service));
}

}  // namespace

void RegisterMainWindowServices(PluginRegistry& registry, const std::vector<StartupRow>& table) {
  for (const StartupRow& row : table) RegisterRow(registry, row);
  // The app's other native plug-ins come after the table, in the Flutter tool's order.
  WindowContent* content = window_content();
  if (!content) return;
  const auto& done = registry.registrations();
  for (const AppPlugin& plugin : content->AppPlugins()) {
    const bool in_table = std::any_of(table.begin(), table.end(), [&](const StartupRow& row) {
      return row.kind == StartupRow::Kind::kStandardPlugin && row.package == plugin.package;
    });
    if (in_table || std::any_of(done.begin(), done.end(), [&](const Registration& r) {
          return r.service == plugin.package;
        })) {
      continue;
    }
    // A registrar name the table already uses would hide the plug-in: it goes by its package.
    const bool taken = registry.IsRecorded(plugin.registrar);
    RegisterPlugin(registry, taken ? plugin.package : plugin.registrar, plugin.package,
                   plugin.package);
  }
}

void RegisterMainWindowServices(PluginRegistry& registry) {
  RegisterMainWindowServices(registry, StartupTable());
}

void RegisterSecondaryWindowServices(PluginRegistry& registry,
                                     const std::vector<StartupRow>& table) {
  for (const std::string& name : SecondaryWindowRegistrars()) {
    auto row = std::find_if(table.begin(), table.end(),
                            [&](const StartupRow& r) { return r.registrar == name; });
    if (row != table.end()) RegisterRow(registry, *row);
  }
}

void RegisterSecondaryWindowServices(PluginRegistry& registry) {
  RegisterSecondaryWindowServices(registry, StartupTable());
}

void SetWindowContent(WindowContent* content) { g_window_content = content; }

WindowContent* window_content() { return g_window_content; }

void SetWindowCreatedHook(WindowCreatedHook hook) { g_window_created_hook = hook; }

WindowCreatedHook window_created_hook() { return g_window_created_hook; }

}  // namespace corvane::host
