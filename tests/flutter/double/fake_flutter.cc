// The flutter_linux test double: a messenger that records handlers and responses, an engine, a
// view that is a GtkBox and a plug-in registry handing out registrars.
#include "fake_flutter.h"

#include <map>
#include <memory>
#include <thread>
#include <utility>

namespace {

int g_unanswered = 0;
int g_repeated = 0;
int g_off_main = 0;

// flutter_linux runs on the thread that made the engine: the platform thread.
std::thread::id g_platform_thread;

void NoteThread() {
  if (std::this_thread::get_id() != g_platform_thread) ++g_off_main;
}

struct HandlerEntry {
  FlBinaryMessengerMessageHandler handler = nullptr;
  gpointer user_data = nullptr;
  GDestroyNotify destroy = nullptr;
};

}  // namespace

// --- response handle

G_DEFINE_QUARK(fl_binary_messenger_codec_error_quark, fl_binary_messenger_codec_error)

typedef struct {
  std::function<void(std::optional<fake_flutter::Bytes>)>* on_response;
  gboolean responded;
} FlBinaryMessengerResponseHandlePrivate;

G_DEFINE_TYPE_WITH_PRIVATE(FlBinaryMessengerResponseHandle, fl_binary_messenger_response_handle,
                           G_TYPE_OBJECT)

static void response_handle_finalize(GObject* object) {
  auto* priv = static_cast<FlBinaryMessengerResponseHandlePrivate*>(
      fl_binary_messenger_response_handle_get_instance_private(
          FL_BINARY_MESSENGER_RESPONSE_HANDLE(object)));
  if (!priv->responded) ++g_unanswered;
  delete priv->on_response;
  G_OBJECT_CLASS(fl_binary_messenger_response_handle_parent_class)->finalize(object);
}

static void fl_binary_messenger_response_handle_class_init(
    FlBinaryMessengerResponseHandleClass* klass) {
  G_OBJECT_CLASS(klass)->finalize = response_handle_finalize;
}

static void fl_binary_messenger_response_handle_init(FlBinaryMessengerResponseHandle* self) {
  auto* priv = static_cast<FlBinaryMessengerResponseHandlePrivate*>(
      fl_binary_messenger_response_handle_get_instance_private(self));
  priv->on_response = nullptr;
  priv->responded = FALSE;
}

// --- messenger interface

G_DEFINE_INTERFACE(FlBinaryMessenger, fl_binary_messenger, G_TYPE_OBJECT)
static void fl_binary_messenger_default_init(FlBinaryMessengerInterface*) {}

void fl_binary_messenger_set_message_handler_on_channel(FlBinaryMessenger* messenger,
                                                        const gchar* channel,
                                                        FlBinaryMessengerMessageHandler handler,
                                                        gpointer user_data,
                                                        GDestroyNotify destroy_notify) {
  FL_BINARY_MESSENGER_GET_IFACE(messenger)->set_message_handler_on_channel(
      messenger, channel, handler, user_data, destroy_notify);
}

gboolean fl_binary_messenger_send_response(FlBinaryMessenger* messenger,
                                           FlBinaryMessengerResponseHandle* response_handle,
                                           GBytes* response, GError** error) {
  return FL_BINARY_MESSENGER_GET_IFACE(messenger)->send_response(messenger, response_handle,
                                                                 response, error);
}

void fl_binary_messenger_send_on_channel(FlBinaryMessenger* messenger, const gchar* channel,
                                         GBytes* message, GCancellable* cancellable,
                                         GAsyncReadyCallback callback, gpointer user_data) {
  FL_BINARY_MESSENGER_GET_IFACE(messenger)->send_on_channel(messenger, channel, message,
                                                            cancellable, callback, user_data);
}

GBytes* fl_binary_messenger_send_on_channel_finish(FlBinaryMessenger* messenger,
                                                   GAsyncResult* result, GError** error) {
  return FL_BINARY_MESSENGER_GET_IFACE(messenger)->send_on_channel_finish(messenger, result, error);
}

// --- the double's messenger ----------------------------------------------------------------------

G_DECLARE_FINAL_TYPE(FakeMessenger, fake_messenger, FAKE, MESSENGER, GObject)

struct _FakeMessenger {
  GObject parent_instance;
  FlEngine* engine;  // weak, as flutter_linux's: handlers go and sends stop when it does
  std::map<std::string, HandlerEntry>* handlers;
  std::vector<fake_flutter::HostMessage>* sent;
  std::function<std::optional<fake_flutter::Bytes>(const fake_flutter::HostMessage&)>* responder;
};

static void fake_messenger_iface_init(FlBinaryMessengerInterface* iface);

G_DEFINE_TYPE_WITH_CODE(FakeMessenger, fake_messenger, G_TYPE_OBJECT,
                        G_IMPLEMENT_INTERFACE(fl_binary_messenger_get_type(),
                                              fake_messenger_iface_init))

static void drop_handler(HandlerEntry& entry) {
  if (entry.destroy) entry.destroy(entry.user_data);
  entry = HandlerEntry();
}

// The engine going away drops every handler, telling each owner through its destroy notify.
static void engine_gone(gpointer messenger, GObject*) {
  auto* self = FAKE_MESSENGER(messenger);
  self->engine = nullptr;
  auto handlers = std::exchange(*self->handlers, {});
  for (auto& [name, entry] : handlers) drop_handler(entry);
}

static void fake_messenger_finalize(GObject* object) {
  auto* self = FAKE_MESSENGER(object);
  delete self->handlers;
  delete self->sent;
  delete self->responder;
  G_OBJECT_CLASS(fake_messenger_parent_class)->finalize(object);
}

static void fake_messenger_class_init(FakeMessengerClass* klass) {
  G_OBJECT_CLASS(klass)->finalize = fake_messenger_finalize;
}

static void fake_messenger_init(FakeMessenger* self) {
  g_platform_thread = std::this_thread::get_id();
  self->handlers = new std::map<std::string, HandlerEntry>();
  self->sent = new std::vector<fake_flutter::HostMessage>();
  self->responder =
      new std::function<std::optional<fake_flutter::Bytes>(const fake_flutter::HostMessage&)>();
}

static void fake_set_handler(FlBinaryMessenger* messenger, const gchar* channel,
                             FlBinaryMessengerMessageHandler handler, gpointer user_data,
                             GDestroyNotify destroy_notify) {
  auto* self = FAKE_MESSENGER(messenger);
  auto it = self->handlers->find(channel);
  if (it != self->handlers->end()) {
    HandlerEntry old = it->second;
    self->handlers->erase(it);
    drop_handler(old);
  }
  if (handler) (*self->handlers)[channel] = HandlerEntry{handler, user_data, destroy_notify};
}

static gboolean fake_send_response(FlBinaryMessenger* messenger,
                                   FlBinaryMessengerResponseHandle* handle, GBytes* response,
                                   GError**) {
  NoteThread();
  auto* priv = static_cast<FlBinaryMessengerResponseHandlePrivate*>(
      fl_binary_messenger_response_handle_get_instance_private(handle));
  if (priv->responded) {  // flutter_linux: g_return_val_if_fail, no error set
    ++g_repeated;
    g_critical("response handle already used");
    return FALSE;
  }
  if (!FAKE_MESSENGER(messenger)->engine) return TRUE;
  priv->responded = TRUE;
  std::optional<fake_flutter::Bytes> bytes;
  if (response) {
    gsize size = 0;
    auto* data = static_cast<const uint8_t*>(g_bytes_get_data(response, &size));
    bytes = fake_flutter::Bytes(data, data + size);
  }
  if (priv->on_response && *priv->on_response) (*priv->on_response)(std::move(bytes));
  return TRUE;
}

static void fake_send_on_channel(FlBinaryMessenger* messenger, const gchar* channel,
                                 GBytes* message, GCancellable* cancellable,
                                 GAsyncReadyCallback callback, gpointer user_data) {
  NoteThread();
  auto* self = FAKE_MESSENGER(messenger);
  if (!self->engine) return;  // never calls back, as flutter_linux
  fake_flutter::HostMessage sent{channel, {}, callback != nullptr};
  if (message) {
    gsize size = 0;
    auto* data = static_cast<const uint8_t*>(g_bytes_get_data(message, &size));
    sent.message.assign(data, data + size);
  }
  self->sent->push_back(sent);
  if (!callback) return;
  GTask* task = g_task_new(messenger, cancellable, callback, user_data);
  std::optional<fake_flutter::Bytes> answer;
  if (*self->responder) answer = (*self->responder)(sent);
  // Dart answers later, from the main loop, as the engine does.
  GBytes* reply = answer ? g_bytes_new(answer->data(), answer->size()) : g_bytes_new(nullptr, 0);
  g_task_return_pointer(task, reply, reinterpret_cast<GDestroyNotify>(g_bytes_unref));
  g_object_unref(task);
}

static GBytes* fake_send_on_channel_finish(FlBinaryMessenger*, GAsyncResult* result,
                                           GError** error) {
  return static_cast<GBytes*>(g_task_propagate_pointer(G_TASK(result), error));
}

static void fake_messenger_iface_init(FlBinaryMessengerInterface* iface) {
  iface->set_message_handler_on_channel = fake_set_handler;
  iface->send_response = fake_send_response;
  iface->send_on_channel = fake_send_on_channel;
  iface->send_on_channel_finish = fake_send_on_channel_finish;
}

// --- FlDartProject

struct _FlDartProject {
  GObject parent_instance;
  gchar** arguments;
};
G_DEFINE_TYPE(FlDartProject, fl_dart_project, G_TYPE_OBJECT)
static void fl_dart_project_finalize(GObject* object) {
  g_strfreev(FL_DART_PROJECT(object)->arguments);
  G_OBJECT_CLASS(fl_dart_project_parent_class)->finalize(object);
}
static void fl_dart_project_class_init(FlDartProjectClass* klass) {
  G_OBJECT_CLASS(klass)->finalize = fl_dart_project_finalize;
}
static void fl_dart_project_init(FlDartProject* self) { self->arguments = nullptr; }
FlDartProject* fl_dart_project_new() {
  return FL_DART_PROJECT(g_object_new(fl_dart_project_get_type(), nullptr));
}
void fl_dart_project_set_dart_entrypoint_arguments(FlDartProject* project, char** argv) {
  g_strfreev(project->arguments);
  project->arguments = g_strdupv(argv);
}
gchar** fl_dart_project_get_dart_entrypoint_arguments(FlDartProject* project) {
  return project->arguments;
}

// --- FlEngine

struct _FlEngine {
  GObject parent_instance;
  FlDartProject* project;
  FakeMessenger* messenger;
};
G_DEFINE_TYPE(FlEngine, fl_engine, G_TYPE_OBJECT)
static void fl_engine_finalize(GObject* object) {
  auto* self = FL_ENGINE(object);
  g_clear_object(&self->messenger);
  g_clear_object(&self->project);
  G_OBJECT_CLASS(fl_engine_parent_class)->finalize(object);
}
static void fl_engine_class_init(FlEngineClass* klass) {
  G_OBJECT_CLASS(klass)->finalize = fl_engine_finalize;
}
static void fl_engine_init(FlEngine* self) {
  self->project = nullptr;
  self->messenger = FAKE_MESSENGER(g_object_new(fake_messenger_get_type(), nullptr));
  self->messenger->engine = self;
  g_object_weak_ref(G_OBJECT(self), engine_gone, self->messenger);
}
FlEngine* fl_engine_new_headless(FlDartProject* project) {
  auto* engine = FL_ENGINE(g_object_new(fl_engine_get_type(), nullptr));
  engine->project = FL_DART_PROJECT(g_object_ref(project));
  return engine;
}
FlBinaryMessenger* fl_engine_get_binary_messenger(FlEngine* engine) {
  return FL_BINARY_MESSENGER(engine->messenger);
}

// --- registrar and registry

G_DEFINE_INTERFACE(FlPluginRegistrar, fl_plugin_registrar, G_TYPE_OBJECT)
static void fl_plugin_registrar_default_init(FlPluginRegistrarInterface*) {}
FlBinaryMessenger* fl_plugin_registrar_get_messenger(FlPluginRegistrar* registrar) {
  return FL_PLUGIN_REGISTRAR_GET_IFACE(registrar)->get_messenger(registrar);
}
FlView* fl_plugin_registrar_get_view(FlPluginRegistrar* registrar) {
  return FL_PLUGIN_REGISTRAR_GET_IFACE(registrar)->get_view(registrar);
}

G_DEFINE_INTERFACE(FlPluginRegistry, fl_plugin_registry, G_TYPE_OBJECT)
static void fl_plugin_registry_default_init(FlPluginRegistryInterface*) {}
FlPluginRegistrar* fl_plugin_registry_get_registrar_for_plugin(FlPluginRegistry* registry,
                                                               const gchar* name) {
  return FL_PLUGIN_REGISTRY_GET_IFACE(registry)->get_registrar_for_plugin(registry, name);
}

G_DECLARE_FINAL_TYPE(FakeRegistrar, fake_registrar, FAKE, REGISTRAR, GObject)
struct _FakeRegistrar {
  GObject parent_instance;
  FlBinaryMessenger* messenger;
  FlView* view;  // weak: the view owns the registry
};
static void fake_registrar_iface_init(FlPluginRegistrarInterface* iface);
G_DEFINE_TYPE_WITH_CODE(FakeRegistrar, fake_registrar, G_TYPE_OBJECT,
                        G_IMPLEMENT_INTERFACE(fl_plugin_registrar_get_type(),
                                              fake_registrar_iface_init))
static void fake_registrar_dispose(GObject* object) {
  g_clear_object(&FAKE_REGISTRAR(object)->messenger);
  G_OBJECT_CLASS(fake_registrar_parent_class)->dispose(object);
}
static void fake_registrar_class_init(FakeRegistrarClass* klass) {
  G_OBJECT_CLASS(klass)->dispose = fake_registrar_dispose;
}
static void fake_registrar_init(FakeRegistrar*) {}
static void fake_registrar_iface_init(FlPluginRegistrarInterface* iface) {
  iface->get_messenger = [](FlPluginRegistrar* r) { return FAKE_REGISTRAR(r)->messenger; };
  iface->get_texture_registrar = [](FlPluginRegistrar*) -> FlTextureRegistrar* { return nullptr; };
  iface->get_view = [](FlPluginRegistrar* r) { return FAKE_REGISTRAR(r)->view; };
}

// --- FlView

struct _FlView {
  GtkBox parent_instance;
  FlEngine* engine;
};
static void fl_view_registry_iface_init(FlPluginRegistryInterface* iface);
G_DEFINE_TYPE_WITH_CODE(FlView, fl_view, GTK_TYPE_BOX,
                        G_IMPLEMENT_INTERFACE(fl_plugin_registry_get_type(),
                                              fl_view_registry_iface_init))
static void fl_view_dispose(GObject* object) {
  g_clear_object(&FL_VIEW(object)->engine);
  G_OBJECT_CLASS(fl_view_parent_class)->dispose(object);
}
static void fl_view_class_init(FlViewClass* klass) {
  G_OBJECT_CLASS(klass)->dispose = fl_view_dispose;
}
static void fl_view_init(FlView* self) { self->engine = nullptr; }
static FlPluginRegistrar* fl_view_get_registrar(FlPluginRegistry* registry, const gchar*) {
  auto* view = FL_VIEW(registry);
  auto* registrar = FAKE_REGISTRAR(g_object_new(fake_registrar_get_type(), nullptr));
  registrar->messenger =
      FL_BINARY_MESSENGER(g_object_ref(fl_engine_get_binary_messenger(view->engine)));
  registrar->view = view;
  return FL_PLUGIN_REGISTRAR(registrar);
}
static void fl_view_registry_iface_init(FlPluginRegistryInterface* iface) {
  iface->get_registrar_for_plugin = fl_view_get_registrar;
}
FlView* fl_view_new(FlDartProject* project) {
  auto* view = FL_VIEW(g_object_new(fl_view_get_type(), nullptr));
  view->engine = fl_engine_new_headless(project);
  return view;
}
FlEngine* fl_view_get_engine(FlView* view) { return view->engine; }
void fl_view_set_background_color(FlView*, const GdkRGBA*) {}

// --- test controls

namespace fake_flutter {

void DartSend(FlBinaryMessenger* messenger, const std::string& channel, const Bytes& message,
              std::function<void(std::optional<Bytes>)> on_response) {
  auto* self = FAKE_MESSENGER(messenger);
  auto it = self->handlers->find(channel);
  if (it == self->handlers->end()) {
    if (on_response) on_response(std::nullopt);
    return;
  }
  auto* handle = FL_BINARY_MESSENGER_RESPONSE_HANDLE(
      g_object_new(fl_binary_messenger_response_handle_get_type(), nullptr));
  auto* priv = static_cast<FlBinaryMessengerResponseHandlePrivate*>(
      fl_binary_messenger_response_handle_get_instance_private(handle));
  priv->on_response = new std::function<void(std::optional<Bytes>)>(std::move(on_response));
  GBytes* bytes = g_bytes_new(message.data(), message.size());
  HandlerEntry entry = it->second;
  entry.handler(messenger, channel.c_str(), bytes, handle, entry.user_data);
  g_bytes_unref(bytes);
  // The engine drops its own reference; a handler that answers later keeps one of its own.
  g_object_unref(handle);
}

bool HasHandler(FlBinaryMessenger* messenger, const std::string& channel) {
  return FAKE_MESSENGER(messenger)->handlers->count(channel) > 0;
}

std::vector<HostMessage> TakeHostMessages(FlBinaryMessenger* messenger) {
  return std::exchange(*FAKE_MESSENGER(messenger)->sent, {});
}

void SetDartResponder(FlBinaryMessenger* messenger,
                      std::function<std::optional<Bytes>(const HostMessage&)> responder) {
  *FAKE_MESSENGER(messenger)->responder = std::move(responder);
}

int unanswered_handles() { return g_unanswered; }
int repeated_responses() { return g_repeated; }
int off_main_thread_calls() { return g_off_main; }
void ResetCounters() { g_unanswered = g_repeated = g_off_main = 0; }

}  // namespace fake_flutter
