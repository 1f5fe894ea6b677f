// Services and plug-ins are registered with the engine under fixed registrar names. A registry
// belongs to one window's engine (the main window's, or a secondary window's) and keeps the
// service objects registered through it, plus a record of what was registered, in order.
#pragma once

#include <map>
#include <memory>
#include <string>
#include <vector>

#include "channel/binary_messenger.h"
#include "host/application_delegate.h"
#include "host/info_dictionary.h"

typedef struct _GtkWidget GtkWidget;

namespace corvane::host {

class PluginRegistry;

enum class RegistrationStatus {
  kRegistered,  // the service object exists and has opened its channels
  kNotLinked,   // a standard plug-in whose implementation is not part of this build
};

const char* RegistrationStatusName(RegistrationStatus status);

struct Registration {
  std::string registrar;
  std::string service;
  std::vector<std::string> channels;
  RegistrationStatus status;
};

// What a service receives at registration.
class Registrar {
 public:
  Registrar(const Registrar&) = delete;
  Registrar& operator=(const Registrar&) = delete;

  const std::string& name() const { return name_; }
  channel::BinaryMessenger& messenger() const;
  // The widget standing in for the Flutter view; null when headless. It dies with its window,
  // so a service that keeps it must hold it weakly (g_object_add_weak_pointer).
  GtkWidget* view() const;
  const InfoDictionary& info() const;
  // Forwards application happenings to `delegate` for as long as it lives.
  void AddApplicationDelegate(std::weak_ptr<ApplicationDelegate> delegate);

 private:
  friend class PluginRegistry;
  Registrar(PluginRegistry& registry, std::string name) : registry_(registry), name_(name) {}

  PluginRegistry& registry_;
  std::string name_;
};

class PluginRegistry {
 public:
  PluginRegistry(channel::BinaryMessenger& messenger, GtkWidget* view, const InfoDictionary& info);
  PluginRegistry(const PluginRegistry&) = delete;
  PluginRegistry& operator=(const PluginRegistry&) = delete;
  ~PluginRegistry();  // drops the services, newest first

  // The registrar for `name`, created on first request; later requests return the same one.
  Registrar& RegistrarForPlugin(const std::string& name);

  // Records what was registered through `registrar` and keeps `service` alive with the registry.
  // One record per registrar: a second one is refused (false) and logged.
  bool Record(const Registrar& registrar, std::string service, std::vector<std::string> channels,
              RegistrationStatus status, std::shared_ptr<void> service_object = nullptr);

  bool IsRecorded(const std::string& registrar) const;
  const std::vector<Registration>& registrations() const { return registrations_; }
  // Delegates still alive, in the order added.
  std::vector<std::shared_ptr<ApplicationDelegate>> application_delegates() const;

  channel::BinaryMessenger& messenger() const { return messenger_; }
  GtkWidget* view() const { return view_; }
  const InfoDictionary& info() const { return info_; }

 private:
  friend class Registrar;

  channel::BinaryMessenger& messenger_;
  GtkWidget* view_;
  const InfoDictionary& info_;
  std::map<std::string, std::unique_ptr<Registrar>> registrars_;
  std::vector<Registration> registrations_;
  std::vector<std::shared_ptr<void>> services_;
  std::vector<std::weak_ptr<ApplicationDelegate>> delegates_;
};

}  // namespace corvane::host
