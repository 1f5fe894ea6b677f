#include "host/plugin_registry.h"

#include <algorithm>

#include "channel/log.h"

namespace corvane::host {

namespace {
constexpr const char* kLogDomain = "corvane-host";
}  // namespace

const char* RegistrationStatusName(RegistrationStatus status) {
  switch (status) {
    case RegistrationStatus::kRegistered:
      return "registered";
    case RegistrationStatus::kNotLinked:
      return "not linked";
  }
  return "?";
}

channel::BinaryMessenger& Registrar::messenger() const { return registry_.messenger_; }
GtkWidget* Registrar::view() const { return registry_.view_; }
const InfoDictionary& Registrar::info() const { return registry_.info_; }

void Registrar::AddApplicationDelegate(std::weak_ptr<ApplicationDelegate> delegate) {
  registry_.delegates_.push_back(std::move(delegate));
}

PluginRegistry::PluginRegistry(channel::BinaryMessenger& messenger, GtkWidget* view,
                               const InfoDictionary& info)
    : messenger_(messenger), view_(view), info_(info) {}

PluginRegistry::~PluginRegistry() {
  // Later services may use earlier ones while they wind down, never the other way round.
  while (!services_.empty()) services_.pop_back();
}

Registrar& PluginRegistry::RegistrarForPlugin(const std::string& name) {
  auto& slot = registrars_[name];
  if (!slot) slot.reset(new Registrar(*this, name));
  return *slot;
}

bool PluginRegistry::Record(const Registrar& registrar, std::string service,
                            std::vector<std::string> channels, RegistrationStatus status,
                            std::shared_ptr<void> service_object) {
  if (IsRecorded(registrar.name())) {
    channel::Log(
        channel::LogLevel::kWarning, kLogDomain,
        "registrar " + registrar.name() + " already registered a service; " + service + " ignored");
    return false;
  }
  registrations_.push_back(
      Registration{registrar.name(), std::move(service), std::move(channels), status});
  if (service_object) services_.push_back(std::move(service_object));
  return true;
}

bool PluginRegistry::IsRecorded(const std::string& registrar) const {
  return std::any_of(registrations_.begin(), registrations_.end(),
                     [&](const Registration& r) { return r.registrar == registrar; });
}

std::vector<std::shared_ptr<ApplicationDelegate>> PluginRegistry::application_delegates() const {
  std::vector<std::shared_ptr<ApplicationDelegate>> alive;
  for (const auto& weak : delegates_) {
    if (auto delegate = weak.lock()) alive.push_back(std::move(delegate));
  }
  return alive;
}

}  // namespace corvane::host
