// A double of the part of flutter_linux's API the host uses (no Flutter engine can be installed on
// the build machines); a real build uses the Flutter tool's headers.
#pragma once

#include <gio/gio.h>
#include <gtk/gtk.h>

G_BEGIN_DECLS

G_DECLARE_INTERFACE(FlBinaryMessenger, fl_binary_messenger, FL, BINARY_MESSENGER, GObject)
struct _FlBinaryMessengerInterface {
  GTypeInterface parent_iface;
};
typedef struct _FlBinaryMessengerResponseHandle FlBinaryMessengerResponseHandle;  // a GObject
typedef void (*FlBinaryMessengerMessageHandler)(FlBinaryMessenger*, const gchar* channel, GBytes*,
                                                FlBinaryMessengerResponseHandle*, gpointer);
void fl_binary_messenger_set_message_handler_on_channel(FlBinaryMessenger*, const gchar* channel,
                                                        FlBinaryMessengerMessageHandler, gpointer,
                                                        GDestroyNotify);
gboolean fl_binary_messenger_send_response(FlBinaryMessenger*, FlBinaryMessengerResponseHandle*,
                                           GBytes* response, GError**);
void fl_binary_messenger_send_on_channel(FlBinaryMessenger*, const gchar* channel, GBytes*,
                                         GCancellable*, GAsyncReadyCallback, gpointer);
GBytes* fl_binary_messenger_send_on_channel_finish(FlBinaryMessenger*, GAsyncResult*, GError**);

typedef struct _FlDartProject FlDartProject;  // a GObject
FlDartProject* fl_dart_project_new();
void fl_dart_project_set_dart_entrypoint_arguments(FlDartProject*, char** argv);

typedef struct _FlEngine FlEngine;  // a GObject
FlEngine* fl_engine_new_headless(FlDartProject*);
FlBinaryMessenger* fl_engine_get_binary_messenger(FlEngine*);

G_DECLARE_FINAL_TYPE(FlView, fl_view, FL, VIEW, GtkBox)
FlView* fl_view_new(FlDartProject*);
FlEngine* fl_view_get_engine(FlView*);
void fl_view_set_background_color(FlView*, const GdkRGBA*);

typedef struct _FlTextureRegistrar FlTextureRegistrar;
G_DECLARE_INTERFACE(FlPluginRegistrar, fl_plugin_registrar, FL, PLUGIN_REGISTRAR, GObject)
struct _FlPluginRegistrarInterface {
  GTypeInterface parent_iface;
  FlBinaryMessenger* (*get_messenger)(FlPluginRegistrar*);
  FlTextureRegistrar* (*get_texture_registrar)(FlPluginRegistrar*);
  FlView* (*get_view)(FlPluginRegistrar*);
};
FlBinaryMessenger* fl_plugin_registrar_get_messenger(FlPluginRegistrar*);
FlView* fl_plugin_registrar_get_view(FlPluginRegistrar*);

G_DECLARE_INTERFACE(FlPluginRegistry, fl_plugin_registry, FL, PLUGIN_REGISTRY, GObject)
struct _FlPluginRegistryInterface {
  GTypeInterface g_iface;
};
// Returns: (transfer full) a new registrar each call; the name is not used.
FlPluginRegistrar* fl_plugin_registry_get_registrar_for_plugin(FlPluginRegistry*, const gchar*);

G_END_DECLS
