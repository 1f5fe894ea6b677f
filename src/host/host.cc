#include "host/host.h"

#include "host/registration.h"

namespace corvane::host {

Host::Host(std::unique_ptr<engine::Engine> engine, InfoDictionary info)
    : engine_(std::move(engine)), info_(std::move(info)) {}

Host::~Host() { registry_.reset(); }

PluginRegistry& Host::RegisterMainWindowServices(GtkWidget* view) {
  return RegisterMainWindowServices(view, StartupTable());
}

PluginRegistry& Host::RegisterMainWindowServices(GtkWidget* view,
                                                 const std::vector<StartupRow>& table) {
  if (!registry_) {
    registry_ = std::make_unique<PluginRegistry>(*engine_, view, info_);
    host::RegisterMainWindowServices(*registry_, table);
  }
  return *registry_;
}

void Host::DidFinishLaunching() {
  if (launched_) return;
  launched_ = true;
  // Asked early so the user answers before the first command station is contacted.
  if (kTriggerLocalNetworkPermission) kTriggerLocalNetworkPermission();
  if (!registry_) return;
  for (const auto& delegate : registry_->application_delegates()) {
    delegate->HandleDidFinishLaunching();
  }
}

bool Host::OpenUris(const std::vector<std::string>& uris) {
  if (!registry_) return false;
  bool taken = false;
  for (const auto& delegate : registry_->application_delegates()) {
    taken = delegate->HandleOpenUris(uris) || taken;
  }
  return taken;
}

void Host::WillTerminate() {
  if (terminated_) return;
  terminated_ = true;
  if (!registry_) return;
  for (const auto& delegate : registry_->application_delegates()) {
    delegate->HandleWillTerminate();
  }
}

}  // namespace corvane::host
