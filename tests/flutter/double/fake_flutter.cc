// The flutter_linux double, behaving as flutter_linux's sources where the host depends on it.
#include "fake_flutter.h"

#include <map>
#include <typeinfo>
#include <utility>

using namespace fake_flutter;

namespace {

int g_faults = 0;

Bytes ToBytes(GBytes* bytes) {
  gsize size = 0;
  auto* data = static_cast<const uint8_t*>(bytes ? g_bytes_get_data(bytes, &size) : nullptr);
  return Bytes(data, data + size);
}

// C++ state kept on a GObject, one of each type, freed with it.
template <typename T>
T& Data(gpointer object) {
  auto* data = static_cast<T*>(g_object_get_data(G_OBJECT(object), typeid(T).name()));
  if (data) return *data;
  g_object_set_data_full(G_OBJECT(object), typeid(T).name(), data = new T(),
                         [](gpointer p) { delete static_cast<T*>(p); });
  return *data;
}

struct Messenger {
  bool engine_gone = false;
  std::map<std::string, std::pair<FlBinaryMessengerMessageHandler, gpointer>> handlers{};
  std::vector<HostMessage> sent{};
  std::function<Response(const HostMessage&)> responder{};
};
struct Handle {
  std::function<void(Response)> on_response;
  bool responded = false;
  ~Handle() { g_faults += !responded; }  // a critical in flutter_linux
};

}  // namespace

G_DEFINE_INTERFACE(FlBinaryMessenger, fl_binary_messenger, G_TYPE_OBJECT)
static void fl_binary_messenger_default_init(FlBinaryMessengerInterface*) {}
typedef GObject FakeMessenger;
typedef GObjectClass FakeMessengerClass;
G_DEFINE_TYPE_WITH_CODE(FakeMessenger, fake_messenger, G_TYPE_OBJECT,
                        G_IMPLEMENT_INTERFACE(fl_binary_messenger_get_type(), nullptr))
static void fake_messenger_init(FakeMessenger*) {}
static void fake_messenger_class_init(FakeMessengerClass*) {}

// The host never passes a destroy notify.
void fl_binary_messenger_set_message_handler_on_channel(FlBinaryMessenger* messenger,
                                                        const gchar* channel,
                                                        FlBinaryMessengerMessageHandler handler,
                                                        gpointer data, GDestroyNotify) {
  Messenger& state = Data<Messenger>(messenger);
  state.handlers.erase(channel);
  if (handler && !state.engine_gone) state.handlers[channel] = {handler, data};
}

gboolean fl_binary_messenger_send_response(FlBinaryMessenger* messenger,
                                           FlBinaryMessengerResponseHandle* response_handle,
                                           GBytes* response, GError**) {
  Handle& handle = Data<Handle>(response_handle);
  if (handle.responded) {  // g_return_val_if_fail in flutter_linux: no error set
    g_critical("response handle already used (%d)", ++g_faults);
    return FALSE;
  }
  handle.responded = true;
  if (!Data<Messenger>(messenger).engine_gone)
    handle.on_response(response ? ToBytes(response) : Response());
  return TRUE;
}

void fl_binary_messenger_send_on_channel(FlBinaryMessenger* messenger, const gchar* channel,
                                         GBytes* message, GCancellable* cancellable,
                                         GAsyncReadyCallback callback, gpointer data) {
  Messenger& state = Data<Messenger>(messenger);
  if (state.engine_gone) return;  // never calls back, as flutter_linux
  state.sent.push_back({channel, ToBytes(message), callback != nullptr});
  if (!callback) return;
  Response answer = state.responder ? state.responder(state.sent.back()) : Response();
  // Dart answers from the main loop later, as the engine does.
  GTask* task = g_task_new(messenger, cancellable, callback, data);
  g_task_return_pointer(task, answer ? g_bytes_new(answer->data(), answer->size()) : nullptr,
                        reinterpret_cast<GDestroyNotify>(g_bytes_unref));
  g_object_unref(task);
}

GBytes* fl_binary_messenger_send_on_channel_finish(FlBinaryMessenger*, GAsyncResult* result,
                                                   GError** error) {
  return static_cast<GBytes*>(g_task_propagate_pointer(G_TASK(result), error));
}

// A project and an engine are plain objects here: the host only refs and watches them.
FlDartProject* fl_dart_project_new() {
  return reinterpret_cast<FlDartProject*>(g_object_new(G_TYPE_OBJECT, nullptr));
}
void fl_dart_project_set_dart_entrypoint_arguments(FlDartProject*, char**) {}
FlEngine* fl_engine_new_headless(FlDartProject*) {
  GObject* engine = G_OBJECT(g_object_new(G_TYPE_OBJECT, nullptr));
  GObject* messenger = G_OBJECT(g_object_new(fake_messenger_get_type(), nullptr));
  g_object_set_data(engine, "messenger", messenger);
  // The engine going drops every handler.
  g_object_weak_ref(
      engine,
      [](gpointer messenger, GObject*) {
        Data<Messenger>(messenger) = {.engine_gone = true};
        g_object_unref(messenger);
      },
      messenger);
  return reinterpret_cast<FlEngine*>(engine);
}
FlBinaryMessenger* fl_engine_get_binary_messenger(FlEngine* engine) {
  return FL_BINARY_MESSENGER(g_object_get_data(G_OBJECT(engine), "messenger"));
}
G_DEFINE_INTERFACE(FlPluginRegistrar, fl_plugin_registrar, G_TYPE_OBJECT)
static void fl_plugin_registrar_default_init(FlPluginRegistrarInterface*) {}
G_DEFINE_INTERFACE(FlPluginRegistry, fl_plugin_registry, G_TYPE_OBJECT)
static void fl_plugin_registry_default_init(FlPluginRegistryInterface*) {}
typedef GObject FakeRegistrar;  // its view (weak: the view owns the registry) as "view" data
typedef GObjectClass FakeRegistrarClass;
G_DEFINE_TYPE_WITH_CODE(FakeRegistrar, fake_registrar, G_TYPE_OBJECT,
                        G_IMPLEMENT_INTERFACE(fl_plugin_registrar_get_type(), nullptr))
static void fake_registrar_init(FakeRegistrar*) {}
static void fake_registrar_class_init(FakeRegistrarClass*) {}

struct _FlView {
  GtkBox parent_instance;
  FlEngine* engine;
};
G_DEFINE_TYPE_WITH_CODE(FlView, fl_view, GTK_TYPE_BOX,
                        G_IMPLEMENT_INTERFACE(fl_plugin_registry_get_type(), nullptr))
static void fl_view_init(FlView* self) { self->engine = fl_engine_new_headless(nullptr); }
static void fl_view_class_init(FlViewClass* klass) {
  G_OBJECT_CLASS(klass)->dispose = [](GObject* object) {
    g_clear_object(&FL_VIEW(object)->engine);
    G_OBJECT_CLASS(fl_view_parent_class)->dispose(object);
  };
}
FlView* fl_view_new(FlDartProject*) { return FL_VIEW(g_object_new(fl_view_get_type(), nullptr)); }
FlEngine* fl_view_get_engine(FlView* view) { return view->engine; }
void fl_view_set_background_color(FlView*, const GdkRGBA*) {}
// Whatever the name, a new registrar (transfer full), as flutter_linux.
FlPluginRegistrar* fl_plugin_registry_get_registrar_for_plugin(FlPluginRegistry* registry,
                                                               const gchar*) {
  GObject* registrar = G_OBJECT(g_object_new(fake_registrar_get_type(), nullptr));
  g_object_set_data(registrar, "view", registry);
  return FL_PLUGIN_REGISTRAR(registrar);
}
FlView* fl_plugin_registrar_get_view(FlPluginRegistrar* registrar) {
  return FL_VIEW(g_object_get_data(G_OBJECT(registrar), "view"));
}
FlBinaryMessenger* fl_plugin_registrar_get_messenger(FlPluginRegistrar* registrar) {
  return fl_engine_get_binary_messenger(fl_plugin_registrar_get_view(registrar)->engine);
}

namespace fake_flutter {

void DartSend(FlBinaryMessenger* messenger, const std::string& channel, const Bytes& message,
              std::function<void(Response)> on_response) {
  auto it = Data<Messenger>(messenger).handlers.find(channel);
  if (it == Data<Messenger>(messenger).handlers.end()) return on_response(std::nullopt);
  auto* handle = G_OBJECT(g_object_new(G_TYPE_OBJECT, nullptr));
  Data<Handle>(handle).on_response = std::move(on_response);
  g_autoptr(GBytes) bytes = g_bytes_new(message.data(), message.size());
  const auto [function, data] = it->second;
  function(messenger, channel.c_str(), bytes,
           reinterpret_cast<FlBinaryMessengerResponseHandle*>(handle), data);
  g_object_unref(handle);  // a handler that answers later keeps a reference of its own
}

bool HasHandler(FlBinaryMessenger* messenger, const std::string& channel) {
  return Data<Messenger>(messenger).handlers.count(channel) > 0;
}
std::vector<HostMessage> TakeHostMessages(FlBinaryMessenger* messenger) {
  return std::exchange(Data<Messenger>(messenger).sent, {});
}
void SetDartResponder(FlBinaryMessenger* messenger,
                      std::function<Response(const HostMessage&)> responder) {
  Data<Messenger>(messenger).responder = std::move(responder);
}
int faults() { return g_faults; }

}  // namespace fake_flutter
