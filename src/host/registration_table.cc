#include "host/registration_table.h"

#include "cloud/icloud_bridge.h"
#include "discovery/bonjour_bridge.h"
#include "gamepad/apple_game_controller_bridge.h"
#include "host/camera_registration.h"
#include "host/plugin_registry.h"
#include "host/project_opening_row.h"
#include "legacy/legacy_swiftui_bridge.h"
#include "udp/local_network_permission.h"
#include "udp/udp_bridge.h"
#include "ui/apple_context_menu.h"
#include "ui/mac_window_appearance.h"
#include "ui/native_system_symbols.h"

namespace corvane::host {

namespace {

StartupRow Own(std::string name, std::vector<std::string> channels, ServiceFactory factory) {
  return StartupRow{StartupRow::Kind::kOwnService, name, name, std::move(channels), factory, {}};
}

StartupRow Plugin(std::string name, std::string package) {
  return StartupRow{StartupRow::Kind::kStandardPlugin, name, name, {}, nullptr, std::move(package)};
}

std::shared_ptr<void> MakeBonjourBridge(Registrar& registrar) {
  return std::make_shared<discovery::BonjourBridge>(registrar.messenger());
}

std::shared_ptr<void> MakeGameControllerBridge(Registrar& registrar) {
  return gamepad::AppleGameControllerBridge::Create(registrar.messenger());
}

std::shared_ptr<void> MakeICloudBridge(Registrar& registrar) {
  cloud::ICloudBridge::Options options;
  options.container_key = registrar.info().Get(kICloudContainerKey);
  return cloud::ICloudBridge::Create(registrar.messenger(), std::move(options));
}

std::shared_ptr<void> MakeLegacySwiftUIBridge(Registrar& registrar) {
  // The bundle identifier decides whether this is the earlier edition itself.
  return legacy::LegacySwiftUIBridge::Create(
      registrar.messenger(),
      legacy::LegacyEnvironment::Current(registrar.info().Get(kBundleIdentifierKey).value_or("")));
}

std::shared_ptr<void> MakeUdpBridge(Registrar& registrar) {
  return udp::UdpBridge::Create(registrar.messenger());
}

std::shared_ptr<void> MakeNativeSystemSymbols(Registrar& registrar) {
  return ui::NativeSystemSymbols::Create(registrar.messenger());
}

std::shared_ptr<void> MakeMacWindowAppearance(Registrar& registrar) {
  return ui::MacWindowAppearance::Create(registrar.messenger(), registrar.view());
}

std::shared_ptr<void> MakeAppleContextMenu(Registrar& registrar) {
  return ui::AppleContextMenu::Create(registrar.messenger(), registrar.view());
}

void TriggerLocalNetworkPermission() { udp::LocalNetworkPermission::Shared().Trigger(); }

}  // namespace

const LaunchStep kTriggerLocalNetworkPermission = TriggerLocalNetworkPermission;

const std::vector<StartupRow>& StartupTable() {
  // The document hand-off comes first so it can answer before any other channel exists. The
  // standard plug-ins follow in their generated order (alphabetical by package), each with the
  // Flutter package that implements it on Linux. Only some of those have a native part; the
  // others are Dart-only here, and in_app_review has no Linux implementation at all.
  static const std::vector<StartupRow> table = {
      Own("MacProjectOpening", {"io.corvane/open_projects"}, MakeMacProjectOpening),
      Plugin("AudioplayersDarwinPlugin", "audioplayers_linux"),
      Plugin("FlutterMultiWindowPlugin", "desktop_multi_window"),
      Plugin("DeviceInfoPlusMacosPlugin", "device_info_plus"),
      Plugin("FilePickerPlugin", "file_picker"),
      Plugin("FileSelectorPlugin", "file_selector_linux"),
      Plugin("FlutterLibserialportPlugin", "flutter_libserialport"),
      Plugin("GamepadsDarwinPlugin", "gamepads_linux"),
      Plugin("InAppReviewPlugin", "in_app_review"),
      Plugin("FPPPackageInfoPlusPlugin", "package_info_plus"),
      Plugin("PathProviderPlugin", "path_provider_linux"),
      Plugin("ScreenRetrieverMacosPlugin", "screen_retriever_linux"),
      Plugin("SharePlusMacosPlugin", "share_plus"),
      Plugin("SharedPreferencesPlugin", "shared_preferences_linux"),
      Plugin("SwiftThermionFlutterPlugin", "thermion_flutter"),
      Plugin("UrlLauncherPlugin", "url_launcher_linux"),
      Plugin("WindowManagerPlugin", "window_manager"),
      Own("NativeSystemSymbols", {"corvane/system_symbols"}, MakeNativeSystemSymbols),
      Own("MacWindowAppearance", {"io.corvane/window_appearance"}, MakeMacWindowAppearance),
      Own("AppleUsbCamera", {"io.corvane/apple_usb_camera"}, MakeAppleUsbCamera),
      Own("AppleGameControllerBridge", {"io.corvane/gamepad"}, MakeGameControllerBridge),
      Own("LegacySwiftUIBridge", {"io.corvane/legacy_swiftui"}, MakeLegacySwiftUIBridge),
      Own("ICloudBridge", {"io.corvane/icloud", "io.corvane/icloud/events"}, MakeICloudBridge),
      Own("AppleContextMenu", {"io.corvane/context_menu"}, MakeAppleContextMenu),
      Own("UdpBridge", {"corvane/udp", "corvane/udp_events"}, MakeUdpBridge),
      Own("BonjourBridge", {"corvane/bonjour", "corvane/bonjour_events"}, MakeBonjourBridge),
  };
  return table;
}

const std::vector<std::string>& SecondaryWindowRegistrars() {
  // Only what a window needs for itself; documents, network, cloud, camera, controllers, legacy
  // data and context menus belong to the main window's engine alone.
  static const std::vector<std::string> names = {"ScreenRetrieverMacosPlugin",
                                                 "WindowManagerPlugin", "NativeSystemSymbols",
                                                 "MacWindowAppearance"};
  return names;
}

}  // namespace corvane::host
