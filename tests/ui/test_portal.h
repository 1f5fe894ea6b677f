// A desktop portal on the test's private session bus that serves only the appearance colour
// scheme, as org.freedesktop.portal.Settings does.
#pragma once

#include <gio/gio.h>
#include <gtest/gtest.h>

#include <chrono>
#include <string>

#include "dispatch/queue.h"

namespace corvane::ui::testing {

class TestPortal {
 public:
  // `version1`: a portal that knows "Read" only, as before "ReadOne" existed.
  TestPortal(const std::string& address, uint32_t scheme, bool version1 = false)
      : scheme_(scheme), version1_(version1) {
    GError* error = nullptr;
    connection_ = g_dbus_connection_new_for_address_sync(
        address.c_str(),
        static_cast<GDBusConnectionFlags>(G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT |
                                          G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION),
        nullptr, nullptr, &error);
    if (!connection_) {
      ADD_FAILURE() << error->message;
      g_error_free(error);
      return;
    }
    const std::string read_method =
        "<arg type='s' direction='in'/><arg type='s' direction='in'/><arg type='v' "
        "direction='out'/></method>";
    const std::string xml =
        "<node><interface name='org.freedesktop.portal.Settings'><method name='Read'>" +
        read_method + (version1_ ? "" : "<method name='ReadOne'>" + read_method) +
        "<signal name='SettingChanged'><arg type='s'/><arg type='s'/><arg type='v'/></signal>"
        "</interface></node>";
    GDBusNodeInfo* node = g_dbus_node_info_new_for_xml(xml.c_str(), nullptr);
    static const GDBusInterfaceVTable vtable = {&TestPortal::OnCall, nullptr, nullptr, {}};
    object_ = g_dbus_connection_register_object(connection_, kPath, node->interfaces[0], &vtable,
                                                this, nullptr, nullptr);
    g_dbus_node_info_unref(node);
    owner_ = g_bus_own_name_on_connection(
        connection_, kName, G_BUS_NAME_OWNER_FLAGS_NONE,
        +[](GDBusConnection*, const gchar*, gpointer self) {
          static_cast<TestPortal*>(self)->owned_ = true;
        },
        nullptr, this, nullptr);
    EXPECT_TRUE(dispatch::RunMainUntil([&] { return owned_; }, std::chrono::seconds(10)))
        << "the portal did not get its name";
  }
  ~TestPortal() {
    if (!connection_) return;
    g_bus_unown_name(owner_);
    g_dbus_connection_unregister_object(connection_, object_);
    g_dbus_connection_flush_sync(connection_, nullptr, nullptr);
    g_dbus_connection_close_sync(connection_, nullptr, nullptr);
    g_object_unref(connection_);
  }
  TestPortal(const TestPortal&) = delete;
  TestPortal& operator=(const TestPortal&) = delete;

  // The desktop's preference changes: the portal says so.
  void Change(uint32_t scheme) {
    scheme_ = scheme;
    g_dbus_connection_emit_signal(connection_, nullptr, kPath, kInterface, "SettingChanged",
                                  g_variant_new("(ssv)", "org.freedesktop.appearance",
                                                "color-scheme", g_variant_new_uint32(scheme)),
                                  nullptr);
    g_dbus_connection_flush_sync(connection_, nullptr, nullptr);
  }

  int reads() const { return reads_; }

 private:
  static constexpr const char* kName = "org.freedesktop.portal.Desktop";
  static constexpr const char* kPath = "/org/freedesktop/portal/desktop";
  static constexpr const char* kInterface = "org.freedesktop.portal.Settings";

  static void OnCall(GDBusConnection*, const gchar*, const gchar*, const gchar*,
                     const gchar* method, GVariant* parameters, GDBusMethodInvocation* invocation,
                     gpointer data) {
    auto* self = static_cast<TestPortal*>(data);
    const gchar* ns = nullptr;
    const gchar* key = nullptr;
    g_variant_get(parameters, "(&s&s)", &ns, &key);
    if (g_strcmp0(ns, "org.freedesktop.appearance") != 0 || g_strcmp0(key, "color-scheme") != 0) {
      g_dbus_method_invocation_return_dbus_error(
          invocation, "org.freedesktop.portal.Error.NotFound", "Requested setting not found");
      return;
    }
    ++self->reads_;
    GVariant* value = g_variant_new_uint32(self->scheme_);
    // "Read" answers with the value wrapped in one more variant.
    if (g_str_equal(method, "Read")) value = g_variant_new_variant(value);
    g_dbus_method_invocation_return_value(invocation, g_variant_new("(v)", value));
  }

  uint32_t scheme_;
  bool version1_;
  GDBusConnection* connection_ = nullptr;
  unsigned object_ = 0;
  unsigned owner_ = 0;
  bool owned_ = false;
  int reads_ = 0;
};

}  // namespace corvane::ui::testing
