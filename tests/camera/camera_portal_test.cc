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

// Answers AccessCamera as xdg-desktop-portal does: the request's path first, the user's answer
// (`response`) later as that request's Response signal.
void OnAccessCamera(GDBusConnection* bus, const char* sender, const char*, const char*, const char*,
                    GVariant* parameters, GDBusMethodInvocation* invocation, gpointer response) {
  const char* token = "t";
  g_autoptr(GVariant) options = g_variant_get_child_value(parameters, 0);
  g_variant_lookup(options, "handle_token", "&s", &token);
  std::string who = sender + 1;
  for (char& c : who) c = c == '.' ? '_' : c;
  const std::string path = "/org/freedesktop/portal/desktop/request/" + who + "/" + token;
  g_dbus_method_invocation_return_value(invocation, g_variant_new("(o)", path.c_str()));
  g_dbus_connection_emit_signal(bus, sender, path.c_str(), "org.freedesktop.portal.Request",
                                "Response",
                                g_variant_new("(u@a{sv})", GPOINTER_TO_UINT(response),
                                              g_variant_new_array(G_VARIANT_TYPE("{sv}"), 0, 0)),
                                nullptr);
}

TEST(CameraPortal, TheUsersAnswerDecidesAndNoPortalLeavesItToTheDevices) {
  GTestDBus* session = g_test_dbus_new(G_TEST_DBUS_NONE);
  g_test_dbus_up(session);
  auto ask = [] {
    std::optional<bool> answer;
    RequestPortalCameraAccess([&](bool granted) { answer = granted; });
    dispatch::RunMainUntil([&] { return answer.has_value(); }, std::chrono::seconds(10));
    return answer;
  };
  g_autoptr(GDBusNodeInfo) node = g_dbus_node_info_new_for_xml(
      "<node><interface name='org.freedesktop.portal.Camera'><method name='AccessCamera'>"
      "<arg type='a{sv}' direction='in'/><arg type='o' direction='out'/>"
      "</method></interface></node>",
      nullptr);
  const GDBusInterfaceVTable vtable = {OnAccessCamera, nullptr, nullptr, {}};
  for (guint response : {0u, 1u, 2u}) {  // granted, cancelled, refused
    GDBusConnection* bus = g_dbus_connection_new_for_address_sync(
        g_test_dbus_get_bus_address(session),
        GDBusConnectionFlags(G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT |
                             G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION),
        nullptr, nullptr, nullptr);
    g_dbus_connection_register_object(bus, "/org/freedesktop/portal/desktop", node->interfaces[0],
                                      &vtable, GUINT_TO_POINTER(response), nullptr, nullptr);
    g_autoptr(GVariant) owned = g_dbus_connection_call_sync(
        bus, "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus", "RequestName",
        g_variant_new("(su)", "org.freedesktop.portal.Desktop", 0u), nullptr,
        G_DBUS_CALL_FLAGS_NONE, -1, nullptr, nullptr);
    EXPECT_EQ(ask(), std::optional<bool>(response == 0)) << response;
    g_dbus_connection_close_sync(bus, nullptr, nullptr);
    g_object_unref(bus);
  }
  EXPECT_EQ(ask(), std::optional<bool>(true)) << "no portal on the bus";
  g_test_dbus_down(session);
  g_object_unref(session);
}

}  // namespace
}  // namespace corvane::camera
