// Camera access through the desktop portal, against a portal played by the test on a private
// session bus (this machine has no portal).
#include "camera/camera_portal.h"

#include <gio/gio.h>
#include <gtest/gtest.h>

#include <optional>
#include <string>

#include "dispatch/queue.h"

namespace corvane::camera {
namespace {

using namespace std::chrono_literals;

constexpr const char* kIntrospection = R"(<node>
  <interface name='org.freedesktop.portal.Camera'>
    <method name='AccessCamera'>
      <arg type='a{sv}' name='options' direction='in'/>
      <arg type='o' name='handle' direction='out'/>
    </method>
  </interface>
</node>)";

// Answers AccessCamera as xdg-desktop-portal does: the request's path first, the user's
// answer later as that request's Response signal.
class FakePortal {
 public:
  FakePortal(const std::string& address, guint32 response) : response_(response) {
    bus_ = g_dbus_connection_new_for_address_sync(
        address.c_str(),
        static_cast<GDBusConnectionFlags>(G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT |
                                          G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION),
        nullptr, nullptr, nullptr);
    node_ = g_dbus_node_info_new_for_xml(kIntrospection, nullptr);
    static const GDBusInterfaceVTable vtable = {OnCall, nullptr, nullptr, {}};
    object_ =
        g_dbus_connection_register_object(bus_, "/org/freedesktop/portal/desktop",
                                          node_->interfaces[0], &vtable, this, nullptr, nullptr);
    GVariant* owned = g_dbus_connection_call_sync(
        bus_, "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus",
        "RequestName", g_variant_new("(su)", "org.freedesktop.portal.Desktop", 0u), nullptr,
        G_DBUS_CALL_FLAGS_NONE, -1, nullptr, nullptr);
    if (owned) g_variant_unref(owned);
  }
  ~FakePortal() {
    g_dbus_connection_unregister_object(bus_, object_);
    g_dbus_node_info_unref(node_);
    g_dbus_connection_close_sync(bus_, nullptr, nullptr);
    g_object_unref(bus_);
  }
  int calls = 0;

 private:
  static void OnCall(GDBusConnection* bus, const char* sender, const char*, const char*,
                     const char*, GVariant* parameters, GDBusMethodInvocation* invocation,
                     gpointer data) {
    auto* self = static_cast<FakePortal*>(data);
    ++self->calls;
    GVariant* options = g_variant_get_child_value(parameters, 0);
    const char* token = "t";
    g_variant_lookup(options, "handle_token", "&s", &token);
    std::string who = sender + 1;
    for (char& c : who) c = c == '.' ? '_' : c;
    const std::string path = "/org/freedesktop/portal/desktop/request/" + who + "/" + token;
    g_variant_unref(options);
    g_dbus_method_invocation_return_value(invocation, g_variant_new("(o)", path.c_str()));
    g_dbus_connection_emit_signal(
        bus, sender, path.c_str(), "org.freedesktop.portal.Request", "Response",
        g_variant_new("(u@a{sv})", self->response_,
                      g_variant_new_array(G_VARIANT_TYPE("{sv}"), nullptr, 0)),
        nullptr);
  }

  guint32 response_;
  GDBusConnection* bus_ = nullptr;
  GDBusNodeInfo* node_ = nullptr;
  guint object_ = 0;
};

class PortalTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    bus_ = g_test_dbus_new(G_TEST_DBUS_NONE);
    g_test_dbus_up(bus_);
  }
  static void TearDownTestSuite() {
    g_test_dbus_down(bus_);
    g_object_unref(bus_);
  }

  static std::optional<bool> Ask() {
    std::optional<bool> answer;
    RequestPortalCameraAccess([&](bool granted) { answer = granted; });
    dispatch::RunMainUntil([&] { return answer.has_value(); }, 10s);
    return answer;
  }

  static inline GTestDBus* bus_ = nullptr;
};

TEST_F(PortalTest, TheUsersAnswerDecidesAndNoPortalLeavesItToTheDevices) {
  struct Case {
    guint32 response;  // 0 granted, 1 cancelled, 2 refused
    bool granted;
  } cases[] = {{0, true}, {1, false}, {2, false}};
  for (const Case& c : cases) {
    FakePortal portal(g_test_dbus_get_bus_address(bus_), c.response);
    EXPECT_EQ(Ask(), std::optional<bool>(c.granted)) << c.response;
    EXPECT_EQ(portal.calls, 1);
  }
  EXPECT_EQ(Ask(), std::optional<bool>(true)) << "no portal on the bus";
}

}  // namespace
}  // namespace corvane::camera
