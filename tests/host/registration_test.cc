// Start-up registration through a Host on a loopback engine; every row of the real table gets a
// stand-in that answers on the row's channels with its registrar name.
#include "host/registration.h"

#include <gtest/gtest.h>

#include "engine/loopback_engine.h"
#include "host/host.h"

namespace corvane::host {
namespace {

using Names = std::vector<std::string>;

// clang-format off
const Names kStartUpOrder = {
    "MacProjectOpening", "AudioplayersDarwinPlugin", "FlutterMultiWindowPlugin",
    "DeviceInfoPlusMacosPlugin", "FilePickerPlugin", "FileSelectorPlugin",
    "FlutterLibserialportPlugin", "GamepadsDarwinPlugin", "InAppReviewPlugin",
    "FPPPackageInfoPlusPlugin", "PathProviderPlugin", "ScreenRetrieverMacosPlugin",
    "SharePlusMacosPlugin", "SharedPreferencesPlugin", "SwiftThermionFlutterPlugin",
    "UrlLauncherPlugin", "WindowManagerPlugin", "NativeSystemSymbols", "MacWindowAppearance",
    "AppleUsbCamera", "AppleGameControllerBridge", "LegacySwiftUIBridge", "ICloudBridge",
    "AppleContextMenu", "UdpBridge", "BonjourBridge"};
// clang-format on

Names RegistrarsOf(const PluginRegistry& registry) {
  Names names;
  for (const auto& r : registry.registrations()) names.push_back(r.registrar);
  return names;
}

struct StandInService : ApplicationDelegate {
  Names heard;
  void HandleDidFinishLaunching() override { heard.push_back("launched"); }
  void HandleWillTerminate() override { heard.push_back("terminating"); }
  bool HandleOpenUris(const Names& uris) override { return heard.emplace_back(uris[0]), true; }
};

Names g_made;
std::vector<StartupRow> g_table;
// Weak: the service must die with its host.
std::weak_ptr<StandInService> g_document_service;

std::shared_ptr<void> MakeStandIn(Registrar& registrar) {
  g_made.push_back(registrar.name());
  auto service = std::make_shared<StandInService>();
  if (registrar.name() == "MacProjectOpening") {
    registrar.AddApplicationDelegate(service);
    g_document_service = service;
  }
  return service;
}

class RegistrationTest : public ::testing::Test {
 protected:
  void SetUp() override {
    g_made.clear();
    g_table = StartupTable();
    for (auto& row : g_table) row.factory = &MakeStandIn;
    registry_ = &host_.RegisterMainWindowServices(nullptr, g_table);
  }

  Host host_{std::make_unique<engine::LoopbackEngine>(), InfoDictionary::Default()};
  PluginRegistry* registry_ = nullptr;
};

TEST_F(RegistrationTest, EveryRowIsMadeOnceAndRecordedInStartUpOrder) {
  EXPECT_EQ(g_made, kStartUpOrder) << "services made out of order";
  EXPECT_EQ(RegistrarsOf(*registry_), kStartUpOrder);

  // Asking again, through the host or the routine, makes and records nothing new.
  EXPECT_EQ(&host_.RegisterMainWindowServices(nullptr, g_table), registry_);
  RegisterMainWindowServices(*registry_, g_table);
  EXPECT_EQ(g_made, kStartUpOrder) << "services made twice";
  EXPECT_EQ(RegistrarsOf(*registry_), kStartUpOrder);
}

TEST_F(RegistrationTest, SecondaryWindowsGetOnlyTheirReducedSet) {
  engine::LoopbackEngine window_engine;
  PluginRegistry window(window_engine, nullptr, host_.info());
  g_made.clear();
  RegisterSecondaryWindowServices(window, g_table);
  const Names reduced = {"ScreenRetrieverMacosPlugin", "WindowManagerPlugin", "NativeSystemSymbols",
                         "MacWindowAppearance"};
  EXPECT_EQ(RegistrarsOf(window), reduced);
  EXPECT_EQ(g_made, reduced) << "fresh service objects, in order";
}

TEST_F(RegistrationTest, LaunchAndTerminationReachApplicationDelegatesOnce) {
  auto service = g_document_service.lock();
  ASSERT_TRUE(service);
  EXPECT_TRUE(host_.OpenUris({"file:///a/b.corvane"}));
  host_.DidFinishLaunching();
  host_.DidFinishLaunching();
  host_.WillTerminate();
  host_.WillTerminate();
  EXPECT_EQ(service->heard, (Names{"file:///a/b.corvane", "launched", "terminating"}));
}

}  // namespace
}  // namespace corvane::host
