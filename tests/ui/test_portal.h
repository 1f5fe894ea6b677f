// A desktop portal on the test's private session bus serving the appearance colour scheme, as
// org.freedesktop.portal.Settings does. It answers from a thread of its own, as a separate
// process would, so a caller that blocks the main thread still gets its answer.
#pragma once

#include <gio/gio.h>
#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <thread>

namespace corvane::ui::testing {

class TestPortal {
 public:
  // `version1`: knows "Read" only, as before "ReadOne" existed. `delay_ms`: answers that late.
  TestPortal(std::string address, uint32_t scheme, bool version1 = false, int delay_ms = 0)
      : scheme_(scheme), version1_(version1), delay_ms_(delay_ms) {
    thread_ = std::thread([this, address] { Run(address); });
    for (int i = 0; i < 10000 && !owned_; ++i) g_usleep(1000);
    EXPECT_TRUE(owned_) << "the portal did not get its name";
  }
  ~TestPortal() {
    g_main_loop_quit(loop_);  // from any thread
    thread_.join();
  }

  // The desktop's preference changes: the portal says so.
  void Change(uint32_t scheme) {
    scheme_ = scheme;
    g_dbus_connection_emit_signal(connection_, nullptr, kPath, kInterface, "SettingChanged",
                                  g_variant_new("(ssv)", "org.freedesktop.appearance",
                                                "color-scheme", g_variant_new_uint32(scheme)),
                                  nullptr);
  }
  int reads() const { return reads_; }

 private:
  static constexpr const char* kPath = "/org/freedesktop/portal/desktop";
  static constexpr const char* kInterface = "org.freedesktop.portal.Settings";

  void Run(const std::string& address) {
    g_main_context_push_thread_default(context_);
    connection_ = g_dbus_connection_new_for_address_sync(
        address.c_str(),
        static_cast<GDBusConnectionFlags>(G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT |
                                          G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION),
        nullptr, nullptr, nullptr);
    if (!connection_) return;
    const std::string read =
        "<arg type='s'/><arg type='s'/><arg type='v' direction='out'/></method>";
    const std::string xml =
        "<node><interface name='" + std::string(kInterface) + "'><method name='Read'>" + read +
        (version1_ ? "" : "<method name='ReadOne'>" + read) + "</interface></node>";
    GDBusNodeInfo* node = g_dbus_node_info_new_for_xml(xml.c_str(), nullptr);
    static const GDBusInterfaceVTable vtable = {&TestPortal::OnCall, nullptr, nullptr, {}};
    const unsigned object = g_dbus_connection_register_object(
        connection_, kPath, node->interfaces[0], &vtable, this, nullptr, nullptr);
    g_dbus_node_info_unref(node);
    const unsigned owner = g_bus_own_name_on_connection(
        connection_, "org.freedesktop.portal.Desktop", G_BUS_NAME_OWNER_FLAGS_NONE,
        +[](GDBusConnection*, const gchar*, gpointer self) {
          static_cast<TestPortal*>(self)->owned_ = true;
        },
        nullptr, this, nullptr);
    g_main_loop_run(loop_);
    g_bus_unown_name(owner);
    g_dbus_connection_unregister_object(connection_, object);
    g_dbus_connection_close_sync(connection_, nullptr, nullptr);
    g_object_unref(connection_);
    g_main_loop_unref(loop_);
    g_main_context_pop_thread_default(context_);
    g_main_context_unref(context_);
  }

  // Only color-scheme is ever asked for.
  static void OnCall(GDBusConnection*, const gchar*, const gchar*, const gchar*,
                     const gchar* method, GVariant*, GDBusMethodInvocation* invocation,
                     gpointer data) {
    auto* self = static_cast<TestPortal*>(data);
    ++self->reads_;
    GVariant* value = g_variant_new_uint32(self->scheme_);
    // "Read" answers with the value wrapped in one more variant.
    if (g_str_equal(method, "Read")) value = g_variant_new_variant(value);
    g_object_set_data_full(G_OBJECT(invocation), "reply",
                           g_variant_ref_sink(g_variant_new("(v)", value)),
                           reinterpret_cast<GDestroyNotify>(g_variant_unref));
    GSource* later = g_timeout_source_new(self->delay_ms_);
    g_source_set_callback(
        later,
        +[](gpointer call) -> gboolean {
          g_dbus_method_invocation_return_value(
              G_DBUS_METHOD_INVOCATION(call),
              static_cast<GVariant*>(g_object_get_data(G_OBJECT(call), "reply")));
          return G_SOURCE_REMOVE;
        },
        invocation, nullptr);
    g_source_attach(later, self->context_);
    g_source_unref(later);
  }

  std::atomic<uint32_t> scheme_;
  const bool version1_;
  const int delay_ms_;
  GMainContext* context_ = g_main_context_new();
  GMainLoop* loop_ = g_main_loop_new(context_, FALSE);
  std::thread thread_;
  GDBusConnection* connection_ = nullptr;
  std::atomic<bool> owned_{false};
  std::atomic<int> reads_{0};
};

}  // namespace corvane::ui::testing
