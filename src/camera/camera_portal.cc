#include "camera/camera_portal.h"

#include <gio/gio.h>
#include <glib.h>

#include <string>

#include "channel/log.h"

namespace corvane::camera {

namespace {

constexpr const char* kPortal = "org.freedesktop.portal.Desktop";
constexpr const char* kPortalPath = "/org/freedesktop/portal/desktop";
constexpr const char* kCameraInterface = "org.freedesktop.portal.Camera";
constexpr const char* kRequestInterface = "org.freedesktop.portal.Request";
constexpr std::string_view kLogDomain = "corvane-camera";

// One question to the portal, from the bus connection to the user's answer.
struct Question {
  std::function<void(bool)> done;
  GDBusConnection* bus = nullptr;
  guint subscription = 0;
  bool answered = false;
  bool call_done = false;  // the question goes once both the call and the answer are in

  void Answer(bool granted) {
    if (answered) return;
    answered = true;
    done(granted);
  }
  void Finish() {
    if (subscription) g_dbus_connection_signal_unsubscribe(bus, subscription);
    if (bus) g_object_unref(bus);
    delete this;
  }
};

std::string RequestPath(GDBusConnection* bus, const std::string& token) {
  // The portal's documented request path: the caller's unique name without the colon and
  // with dots as underscores.
  std::string sender = g_dbus_connection_get_unique_name(bus) + 1;
  for (char& c : sender) c = c == '.' ? '_' : c;
  return std::string(kPortalPath) + "/request/" + sender + "/" + token;
}

void OnResponse(GDBusConnection*, const char*, const char*, const char*, const char*,
                GVariant* parameters, gpointer data) {
  auto* question = static_cast<Question*>(data);
  guint32 response = 2;
  if (g_variant_is_of_type(parameters, G_VARIANT_TYPE("(ua{sv})"))) {
    g_variant_get(parameters, "(u@a{sv})", &response, nullptr);
  }
  question->Answer(response == 0);
  if (question->call_done) question->Finish();
}

void OnAccessCameraReply(GObject* source, GAsyncResult* result, gpointer data) {
  auto* question = static_cast<Question*>(data);
  GError* error = nullptr;
  GVariant* reply = g_dbus_connection_call_finish(G_DBUS_CONNECTION(source), result, &error);
  question->call_done = true;
  if (reply) {
    g_variant_unref(reply);
    // The answer comes with the request's Response signal, usually later.
    if (question->answered) question->Finish();
    return;
  }
  // No portal (or one without the camera interface): nobody to ask.
  channel::Log(channel::LogLevel::kInfo, kLogDomain,
               std::string("no camera portal: ") + (error ? error->message : "?"));
  g_clear_error(&error);
  question->Answer(true);
  question->Finish();
}

void OnBus(GObject*, GAsyncResult* result, gpointer data) {
  auto* question = static_cast<Question*>(data);
  question->bus = g_bus_get_finish(result, nullptr);
  if (!question->bus) {
    question->Answer(true);
    question->Finish();
    return;
  }
  gchar* token_text = g_strdup_printf("corvane_camera_%u", g_random_int());
  const std::string token = token_text;
  g_free(token_text);
  // Subscribed before asking, so a quick answer cannot slip past.
  question->subscription =
      g_dbus_connection_signal_subscribe(question->bus, kPortal, kRequestInterface, "Response",
                                         RequestPath(question->bus, token).c_str(), nullptr,
                                         G_DBUS_SIGNAL_FLAGS_NONE, OnResponse, question, nullptr);
  GVariantBuilder options;
  g_variant_builder_init(&options, G_VARIANT_TYPE_VARDICT);
  g_variant_builder_add(&options, "{sv}", "handle_token", g_variant_new_string(token.c_str()));
  g_dbus_connection_call(question->bus, kPortal, kPortalPath, kCameraInterface, "AccessCamera",
                         g_variant_new("(a{sv})", &options), G_VARIANT_TYPE("(o)"),
                         G_DBUS_CALL_FLAGS_NONE, -1, nullptr, OnAccessCameraReply, question);
}

}  // namespace

bool InSandbox() { return g_file_test("/.flatpak-info", G_FILE_TEST_EXISTS); }

void RequestPortalCameraAccess(std::function<void(bool granted)> done) {
  g_bus_get(G_BUS_TYPE_SESSION, nullptr, OnBus, new Question{std::move(done)});
}

}  // namespace corvane::camera
