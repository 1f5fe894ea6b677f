// The host without its window: one engine connection, the main window's plug-in registry and the
// service objects registered on it. The GTK application builds one around the socket engine;
// tests build one around a loopback engine, with or without a window.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "engine/engine.h"
#include "host/info_dictionary.h"
#include "host/plugin_registry.h"
#include "host/registration_table.h"

typedef struct _GtkWidget GtkWidget;

namespace corvane::host {

class Host {
 public:
  Host(std::unique_ptr<engine::Engine> engine, InfoDictionary info);
  Host(const Host&) = delete;
  Host& operator=(const Host&) = delete;
  ~Host();  // the services go before the engine they talk through

  engine::Engine& engine() const { return *engine_; }
  const InfoDictionary& info() const { return info_; }

  // Registers the start-up table on the main window's registry and returns it. `view` stands in
  // for the Flutter view: the main window's content, null when headless. Only the first call
  // registers; later ones return the same registry. Tests may pass a table of their own.
  PluginRegistry& RegisterMainWindowServices(GtkWidget* view);
  PluginRegistry& RegisterMainWindowServices(GtkWidget* view, const std::vector<StartupRow>& table);
  // Null until RegisterMainWindowServices.
  PluginRegistry* registry() const { return registry_.get(); }

  // Launching has finished: the local-network permission question is provoked, then every
  // application delegate hears of it. Once; later calls do nothing.
  void DidFinishLaunching();
  // Hands URIs the desktop asked us to open to the application delegates; true when one took
  // them.
  bool OpenUris(const std::vector<std::string>& uris);
  // Tells the application delegates that the application ends. Once.
  void WillTerminate();

 private:
  std::unique_ptr<engine::Engine> engine_;
  InfoDictionary info_;
  std::unique_ptr<PluginRegistry> registry_;
  bool launched_ = false;
  bool terminated_ = false;
};

}  // namespace corvane::host
