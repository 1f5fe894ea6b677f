// Start-up registration: the order of the start-up table, the secondary-window set, registrar
// identity, and the launch hand-off to application delegates. Driven through a Host on a
// loopback engine, with the engine side answering as Flutter would.
#include "host/registration.h"

#include <gtest/gtest.h>

#include <algorithm>

#include "channel/method_channel.h"
#include "engine/loopback_engine.h"
#include "host/host.h"

namespace corvane::host {
namespace {

using channel::MethodReply;

const std::vector<std::string> kStandardPlugins = {
    "AudioplayersDarwinPlugin", "FlutterMultiWindowPlugin",   "DeviceInfoPlusMacosPlugin",
    "FilePickerPlugin",         "FileSelectorPlugin",         "FlutterLibserialportPlugin",
    "GamepadsDarwinPlugin",     "InAppReviewPlugin",          "FPPPackageInfoPlusPlugin",
    "PathProviderPlugin",       "ScreenRetrieverMacosPlugin", "SharePlusMacosPlugin",
    "SharedPreferencesPlugin",  "SwiftThermionFlutterPlugin", "UrlLauncherPlugin",
    "WindowManagerPlugin"};

std::vector<std::string> RegistrarsOf(const PluginRegistry& registry) {
  std::vector<std::string> names;
  for (const auto& r : registry.registrations()) names.push_back(r.registrar);
  return names;
}

// What the engine gets back for a call on `channel`: decoded reply, or not-implemented when
// nobody answers.
MethodReply Call(engine::LoopbackEngine& engine, const std::string& channel) {
  std::optional<channel::Bytes> reply;
  engine.SendFromEngine(channel, channel::EncodeMethodCall({"ping", channel::Value()}),
                        [&](channel::Bytes bytes) { reply = std::move(bytes); });
  EXPECT_TRUE(reply.has_value()) << channel;
  auto decoded = channel::DecodeEnvelope(reply.value_or(channel::Bytes()));
  return decoded.value.value_or(MethodReply());
}

// A table like the real one, but with every row made by a stand-in service that answers
// "ping" on its row's channels with its registrar name, and notes when it was made.
std::vector<std::string> g_made;
std::vector<StartupRow> g_full_table;

struct StandInService : ApplicationDelegate {
  std::vector<std::unique_ptr<channel::MethodChannel>> channels;
  std::vector<std::string> heard;
  void HandleDidFinishLaunching() override { heard.push_back("launched"); }
  void HandleWillTerminate() override { heard.push_back("terminating"); }
  bool HandleOpenUris(const std::vector<std::string>& uris) override {
    heard.push_back("open " + uris.front());
    return true;
  }
};

// Weak: the service must die with its host, before the engine its channels are on.
std::weak_ptr<StandInService> g_last_document_service;

std::shared_ptr<void> MakeStandIn(Registrar& registrar) {
  g_made.push_back(registrar.name());
  auto service = std::make_shared<StandInService>();
  auto row = std::find_if(g_full_table.begin(), g_full_table.end(),
                          [&](const StartupRow& r) { return r.registrar == registrar.name(); });
  for (const std::string& name : row->channels) {
    auto method_channel = std::make_unique<channel::MethodChannel>(registrar.messenger(), name);
    method_channel->SetMethodCallHandler(
        [who = registrar.name()](const channel::MethodCall&,
                                 std::unique_ptr<channel::MethodResult> result) {
          result->Success(channel::Value(who));
        });
    service->channels.push_back(std::move(method_channel));
  }
  if (registrar.name() == "MacProjectOpening") {
    registrar.AddApplicationDelegate(service);
    g_last_document_service = service;
  }
  return service;
}

class RegistrationTest : public ::testing::Test {
 protected:
  void SetUp() override {
    g_made.clear();
    g_full_table = StartupTable();
    for (auto& row : g_full_table) row.factory = &MakeStandIn;
  }

  Host MakeHost() {
    auto engine = std::make_unique<engine::LoopbackEngine>();
    engine_ = engine.get();
    return Host(std::move(engine), InfoDictionary::Default());
  }

  engine::LoopbackEngine* engine_ = nullptr;
};

TEST_F(RegistrationTest, TableFollowsTheStartUpOrder) {
  std::vector<std::string> expected = {"MacProjectOpening"};
  expected.insert(expected.end(), kStandardPlugins.begin(), kStandardPlugins.end());
  for (const char* own :
       {"NativeSystemSymbols", "MacWindowAppearance", "AppleUsbCamera", "AppleGameControllerBridge",
        "LegacySwiftUIBridge", "ICloudBridge", "AppleContextMenu", "UdpBridge", "BonjourBridge"}) {
    expected.push_back(own);
  }
  std::vector<std::string> table_order;
  for (const auto& row : StartupTable()) table_order.push_back(row.registrar);
  EXPECT_EQ(table_order, expected);

  auto channels_of = [](const std::string& name) {
    for (const auto& row : StartupTable())
      if (row.registrar == name) return row.channels;
    return std::vector<std::string>{};
  };
  EXPECT_EQ(channels_of("MacProjectOpening"), std::vector<std::string>{"io.corvane/open_projects"});
  EXPECT_EQ(channels_of("ICloudBridge"),
            (std::vector<std::string>{"io.corvane/icloud", "io.corvane/icloud/events"}));
  EXPECT_EQ(channels_of("UdpBridge"),
            (std::vector<std::string>{"corvane/udp", "corvane/udp_events"}));
  EXPECT_EQ(channels_of("BonjourBridge"),
            (std::vector<std::string>{"corvane/bonjour", "corvane/bonjour_events"}));
  EXPECT_EQ(channels_of("NativeSystemSymbols"), std::vector<std::string>{"corvane/system_symbols"});
}

TEST_F(RegistrationTest, ThisBuildRecordsOnlyTheStandardPluginsAsNotLinked) {
  Host host = MakeHost();
  const PluginRegistry& registry = host.RegisterMainWindowServices(nullptr);
  EXPECT_EQ(RegistrarsOf(registry), kStandardPlugins);
  for (const auto& r : registry.registrations()) {
    EXPECT_EQ(r.status, RegistrationStatus::kNotLinked) << r.registrar;
    EXPECT_EQ(r.service, r.registrar);
  }
  // Own services without a factory open nothing: their channels get the empty reply.
  for (const auto& row : StartupTable()) {
    if (row.factory || row.kind != StartupRow::Kind::kOwnService) continue;
    for (const auto& name : row.channels) {
      EXPECT_EQ(Call(*engine_, name).kind, MethodReply::Kind::kNotImplemented) << name;
    }
  }
  EXPECT_TRUE(host.engine().HandledChannels().empty());
}

TEST_F(RegistrationTest, EveryRowWithAFactoryIsRegisteredInTableOrder) {
  Host host = MakeHost();
  PluginRegistry& registry = host.RegisterMainWindowServices(nullptr, g_full_table);
  PluginRegistry* again = &host.RegisterMainWindowServices(nullptr, g_full_table);

  std::vector<std::string> table_order;
  for (const auto& row : g_full_table) table_order.push_back(row.registrar);
  EXPECT_EQ(g_made, table_order) << "services made out of order, or made twice";
  EXPECT_EQ(RegistrarsOf(registry), table_order);
  EXPECT_EQ(again, &registry);
  for (size_t i = 0; i < g_full_table.size(); ++i) {
    EXPECT_EQ(registry.registrations()[i].status, RegistrationStatus::kRegistered);
    EXPECT_EQ(registry.registrations()[i].channels, g_full_table[i].channels);
  }
  EXPECT_EQ(Call(*engine_, "corvane/udp").value, channel::Value("UdpBridge"));
  EXPECT_EQ(Call(*engine_, "io.corvane/icloud/events").value, channel::Value("ICloudBridge"));
}

TEST_F(RegistrationTest, ARegistrarIsMadeOnceAndRecordsOnce) {
  Host host = MakeHost();
  PluginRegistry& registry = host.RegisterMainWindowServices(nullptr, g_full_table);
  const size_t before = registry.registrations().size();

  Registrar& first = registry.RegistrarForPlugin("UdpBridge");
  Registrar& second = registry.RegistrarForPlugin("UdpBridge");
  EXPECT_EQ(&first, &second);
  EXPECT_EQ(&registry.RegistrarForPlugin("Fresh"), &registry.RegistrarForPlugin("Fresh"));
  EXPECT_EQ(registry.registrations().size(), before);

  EXPECT_FALSE(registry.Record(first, "Other", {}, RegistrationStatus::kRegistered));
  EXPECT_EQ(registry.registrations().size(), before);
  EXPECT_TRUE(registry.Record(registry.RegistrarForPlugin("Fresh"), "Fresh", {},
                              RegistrationStatus::kRegistered));
  EXPECT_EQ(registry.registrations().back().registrar, "Fresh");

  // Running the routine again over an existing registry makes nothing new.
  g_made.clear();
  RegisterMainWindowServices(registry, g_full_table);
  EXPECT_TRUE(g_made.empty());
}

TEST_F(RegistrationTest, SecondaryWindowsGetOnlyTheirReducedSet) {
  Host host = MakeHost();
  host.RegisterMainWindowServices(nullptr, g_full_table);

  engine::LoopbackEngine window_engine;
  PluginRegistry window_registry(window_engine, nullptr, host.info());
  g_made.clear();
  RegisterSecondaryWindowServices(window_registry, g_full_table);

  const std::vector<std::string> reduced = {"ScreenRetrieverMacosPlugin", "WindowManagerPlugin",
                                            "NativeSystemSymbols", "MacWindowAppearance"};
  EXPECT_EQ(RegistrarsOf(window_registry), reduced);
  EXPECT_EQ(g_made, reduced) << "fresh service objects, in order";
  EXPECT_EQ(window_engine.HandledChannels(),
            (std::vector<std::string>{"corvane/system_symbols", "io.corvane/window_appearance"}));
  EXPECT_EQ(Call(window_engine, "corvane/system_symbols").kind, MethodReply::Kind::kSuccess);
  for (const char* main_only :
       {"io.corvane/open_projects", "corvane/udp", "corvane/bonjour", "io.corvane/icloud",
        "io.corvane/apple_usb_camera", "io.corvane/gamepad", "io.corvane/legacy_swiftui",
        "io.corvane/context_menu"}) {
    EXPECT_EQ(Call(window_engine, main_only).kind, MethodReply::Kind::kNotImplemented) << main_only;
  }

  // With this build's table the window gets the two plug-ins, not linked, and nothing else.
  engine::LoopbackEngine bare_engine;
  PluginRegistry bare(bare_engine, nullptr, host.info());
  RegisterSecondaryWindowServices(bare);
  EXPECT_EQ(RegistrarsOf(bare),
            (std::vector<std::string>{"ScreenRetrieverMacosPlugin", "WindowManagerPlugin"}));
  EXPECT_TRUE(bare_engine.HandledChannels().empty());
}

TEST_F(RegistrationTest, LaunchAndTerminationReachApplicationDelegatesOnce) {
  Host host = MakeHost();
  host.RegisterMainWindowServices(nullptr, g_full_table);
  auto service = g_last_document_service.lock();
  ASSERT_TRUE(service);

  EXPECT_TRUE(host.OpenUris({"file:///a/b.corvane"}));
  host.DidFinishLaunching();
  host.DidFinishLaunching();
  host.WillTerminate();
  host.WillTerminate();
  EXPECT_EQ(service->heard,
            (std::vector<std::string>{"open file:///a/b.corvane", "launched", "terminating"}));
}

}  // namespace
}  // namespace corvane::host
