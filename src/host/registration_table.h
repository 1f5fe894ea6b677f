// The start-up registration table, as data: which service is registered under which registrar
// name, the channels it opens, and the function that makes it. Rows are in registration order.
// A service arrives in this build by setting its row's factory; a row without one is skipped
// (own services) or registered through the window content when the app has its plug-in
// (standard plug-ins), else recorded as not linked.
#pragma once

#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace corvane::host {

class Registrar;

// Creates the service, opens its channels on registrar.messenger() and returns the object the
// registry keeps alive.
using ServiceFactory = std::shared_ptr<void> (*)(Registrar& registrar);

struct StartupRow {
  enum class Kind { kOwnService, kStandardPlugin };
  Kind kind;
  std::string registrar;
  std::string service;
  std::vector<std::string> channels;  // empty for standard plug-ins: they choose their own
  ServiceFactory factory;
  std::string package;  // standard plug-ins: the Flutter package that implements it on Linux
};

const std::vector<StartupRow>& StartupTable();

// Registrar names registered in every secondary window, in order.
const std::vector<std::string>& SecondaryWindowRegistrars();

// Provokes the desktop's local-network permission question once, when launching has finished.
// Null until the UDP transport provides it.
using LaunchStep = void (*)();
extern const LaunchStep kTriggerLocalNetworkPermission;

}  // namespace corvane::host
