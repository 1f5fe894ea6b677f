// A test double of the part of flutter_linux's public API that the host uses, with the current
// headers' declarations. No Flutter engine can be installed on the build machines, so CI builds
// and tests the adapter against this; a real build uses the Flutter tool's headers.
#pragma once

#include <gio/gio.h>
#include <gtk/gtk.h>

G_BEGIN_DECLS

G_DECLARE_INTERFACE(FlBinaryMessenger, fl_binary_messenger, FL, BINARY_MESSENGER, GObject)
struct _FlBinaryMessengerInterface {
  GTypeInterface parent_iface;
};
G_DECLARE_FINAL_TYPE(FlBinaryMessengerResponseHandle, fl_binary_messenger_response_handle, FL,
                     BINARY_MESSENGER_RESPONSE_HANDLE, GObject)
typedef void (*FlBinaryMessengerMessageHandler)(FlBinaryMessenger* messenger, const gchar* channel,
                                                GBytes* message,
                                                FlBinaryMessengerResponseHandle* response_handle,
                                                gpointer user_data);
void fl_binary_messenger_set_message_handler_on_channel(FlBinaryMessenger* messenger,
                                                        const gchar* channel,
                                                        FlBinaryMessengerMessageHandler handler,
                                                        gpointer user_data,
                                                        GDestroyNotify destroy_notify);
gboolean fl_binary_messenger_send_response(FlBinaryMessenger* messenger,
                                           FlBinaryMessengerResponseHandle* response_handle,
                                           GBytes* response, GError** error);
void fl_binary_messenger_send_on_channel(FlBinaryMessenger* messenger, const gchar* channel,
                                         GBytes* message, GCancellable* cancellable,
                                         GAsyncReadyCallback callback, gpointer user_data);
GBytes* fl_binary_messenger_send_on_channel_finish(FlBinaryMessenger* messenger,
                                                   GAsyncResult* result, GError** error);

G_DECLARE_FINAL_TYPE(FlDartProject, fl_dart_project, FL, DART_PROJECT, GObject)
FlDartProject* fl_dart_project_new();
void fl_dart_project_set_dart_entrypoint_arguments(FlDartProject* project, char** argv);
gchar** fl_dart_project_get_dart_entrypoint_arguments(FlDartProject* project);

G_DECLARE_FINAL_TYPE(FlEngine, fl_engine, FL, ENGINE, GObject)
FlEngine* fl_engine_new_headless(FlDartProject* project);
FlBinaryMessenger* fl_engine_get_binary_messenger(FlEngine* engine);

G_DECLARE_FINAL_TYPE(FlView, fl_view, FL, VIEW, GtkBox)
FlView* fl_view_new(FlDartProject* project);
FlEngine* fl_view_get_engine(FlView* view);
void fl_view_set_background_color(FlView* view, const GdkRGBA* color);

typedef struct _FlTextureRegistrar FlTextureRegistrar;
G_DECLARE_INTERFACE(FlPluginRegistrar, fl_plugin_registrar, FL, PLUGIN_REGISTRAR, GObject)
struct _FlPluginRegistrarInterface {
  GTypeInterface parent_iface;
  FlBinaryMessenger* (*get_messenger)(FlPluginRegistrar* registrar);
  FlTextureRegistrar* (*get_texture_registrar)(FlPluginRegistrar* registrar);
  FlView* (*get_view)(FlPluginRegistrar* registrar);
};
FlBinaryMessenger* fl_plugin_registrar_get_messenger(FlPluginRegistrar* registrar);
FlView* fl_plugin_registrar_get_view(FlPluginRegistrar* registrar);

G_DECLARE_INTERFACE(FlPluginRegistry, fl_plugin_registry, FL, PLUGIN_REGISTRY, GObject)
struct _FlPluginRegistryInterface {
  GTypeInterface g_iface;
};
// Returns: (transfer full) a new registrar each call; the name is not used.
FlPluginRegistrar* fl_plugin_registry_get_registrar_for_plugin(FlPluginRegistry* registry,
                                                               const gchar* name);

G_END_DECLS
