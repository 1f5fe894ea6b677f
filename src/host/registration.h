// The registration routines: the main window's full start-up order, and the reduced set that
// every secondary window gets.
#pragma once

#include <vector>

#include "host/plugin_registry.h"
#include "host/registration_table.h"

namespace corvane::host {

// Registers the rows of `table` in order. A row already recorded on `registry` is left alone.
void RegisterMainWindowServices(PluginRegistry& registry, const std::vector<StartupRow>& table);
void RegisterMainWindowServices(PluginRegistry& registry);

// Registers, in order, the rows of `table` named by SecondaryWindowRegistrars(): each window
// gets fresh service objects on its own messenger.
void RegisterSecondaryWindowServices(PluginRegistry& registry,
                                     const std::vector<StartupRow>& table);
void RegisterSecondaryWindowServices(PluginRegistry& registry);

// Called by the multi-window plug-in with the registry of each window it creates. The main
// window installs RegisterSecondaryWindowServices; null before that.
using WindowCreatedHook = void (*)(PluginRegistry& registry);
void SetWindowCreatedHook(WindowCreatedHook hook);
WindowCreatedHook window_created_hook();

}  // namespace corvane::host
