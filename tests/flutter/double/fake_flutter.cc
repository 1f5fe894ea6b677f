// The flutter_linux test double, behaving as flutter_linux's sources where the host depends on
// it: handlers live until their engine goes, sends stop then, a handle answers once, and the
// registry hands out a new registrar on every request.
#include "fake_flutter.h"

#include <map>
#include <thread>
#include <utility>

using fake_flutter::Bytes;
using fake_flutter::HostMessage;

namespace {

int g_unanswered = 0, g_repeated = 0, g_off_main = 0;
std::thread::id g_platform_thread;  // flutter_linux's: the one that made the engine

void NoteThread() {
  if (std::this_thread::get_id() != g_platform_thread) ++g_off_main;
}

Bytes ToBytes(GBytes* bytes) {
  gsize size = 0;
  auto* data = static_cast<const uint8_t*>(bytes ? g_bytes_get_data(bytes, &size) : nullptr);
  return Bytes(data, data + size);
}

struct Handler {
  FlBinaryMessengerMessageHandler function;
  gpointer data;
  GDestroyNotify destroy;
};

void Drop(std::map<std::string, Handler> handlers) {
  for (auto& [channel, handler] : handlers) {
    if (handler.destroy) handler.destroy(handler.data);
  }
}

struct MessengerState {
  FlEngine* engine = nullptr;  // weak, as flutter_linux's
  std::map<std::string, Handler> handlers;
  std::vector<HostMessage> sent;
  std::function<std::optional<Bytes>(const HostMessage&)> responder;
};

}  // namespace

G_DEFINE_QUARK(fl_binary_messenger_codec_error_quark, fl_binary_messenger_codec_error)
G_DEFINE_INTERFACE(FlBinaryMessenger, fl_binary_messenger, G_TYPE_OBJECT)
static void fl_binary_messenger_default_init(FlBinaryMessengerInterface*) {}

typedef struct {
  std::function<void(std::optional<Bytes>)>* on_response;
  bool responded;
} FlBinaryMessengerResponseHandlePrivate;
G_DEFINE_TYPE_WITH_PRIVATE(FlBinaryMessengerResponseHandle, fl_binary_messenger_response_handle,
                           G_TYPE_OBJECT)
static FlBinaryMessengerResponseHandlePrivate* Priv(gpointer handle) {
  return static_cast<FlBinaryMessengerResponseHandlePrivate*>(
      fl_binary_messenger_response_handle_get_instance_private(
          FL_BINARY_MESSENGER_RESPONSE_HANDLE(handle)));
}
static void fl_binary_messenger_response_handle_init(FlBinaryMessengerResponseHandle*) {}
static void fl_binary_messenger_response_handle_class_init(
    FlBinaryMessengerResponseHandleClass* klass) {
  G_OBJECT_CLASS(klass)->finalize = [](GObject* object) {
    if (!Priv(object)->responded) ++g_unanswered;  // a critical in flutter_linux
    delete Priv(object)->on_response;
    G_OBJECT_CLASS(fl_binary_messenger_response_handle_parent_class)->finalize(object);
  };
}

G_DECLARE_FINAL_TYPE(FakeMessenger, fake_messenger, FAKE, MESSENGER, GObject)
struct _FakeMessenger {
  GObject parent_instance;
  MessengerState* state;
};
G_DEFINE_TYPE_WITH_CODE(FakeMessenger, fake_messenger, G_TYPE_OBJECT,
                        G_IMPLEMENT_INTERFACE(fl_binary_messenger_get_type(), nullptr))
static void fake_messenger_init(FakeMessenger* self) { self->state = new MessengerState(); }
static void fake_messenger_class_init(FakeMessengerClass* klass) {
  G_OBJECT_CLASS(klass)->finalize = [](GObject* object) {
    delete FAKE_MESSENGER(object)->state;
    G_OBJECT_CLASS(fake_messenger_parent_class)->finalize(object);
  };
}
static MessengerState& State(gpointer messenger) { return *FAKE_MESSENGER(messenger)->state; }

void fl_binary_messenger_set_message_handler_on_channel(FlBinaryMessenger* messenger,
                                                        const gchar* channel,
                                                        FlBinaryMessengerMessageHandler handler,
                                                        gpointer user_data,
                                                        GDestroyNotify destroy_notify) {
  MessengerState& state = State(messenger);
  std::map<std::string, Handler> replaced;
  if (auto it = state.handlers.find(channel); it != state.handlers.end()) {
    replaced.insert(state.handlers.extract(it));
  }
  if (handler && state.engine) {
    state.handlers[channel] = {handler, user_data, destroy_notify};
  } else if (handler && destroy_notify) {
    destroy_notify(user_data);  // refused: the engine is gone
  }
  Drop(std::move(replaced));
}

gboolean fl_binary_messenger_send_response(FlBinaryMessenger* messenger,
                                           FlBinaryMessengerResponseHandle* handle,
                                           GBytes* response, GError**) {
  NoteThread();
  if (Priv(handle)->responded) {  // g_return_val_if_fail in flutter_linux: no error set
    ++g_repeated;
    g_critical("response handle already used");
    return FALSE;
  }
  Priv(handle)->responded = true;
  auto* on_response = Priv(handle)->on_response;
  if (State(messenger).engine && on_response && *on_response) {
    (*on_response)(response ? std::optional<Bytes>(ToBytes(response)) : std::nullopt);
  }
  return TRUE;
}

void fl_binary_messenger_send_on_channel(FlBinaryMessenger* messenger, const gchar* channel,
                                         GBytes* message, GCancellable* cancellable,
                                         GAsyncReadyCallback callback, gpointer user_data) {
  NoteThread();
  MessengerState& state = State(messenger);
  if (!state.engine) return;  // never calls back, as flutter_linux
  state.sent.push_back({channel, ToBytes(message), callback != nullptr});
  if (!callback) return;
  auto answer = state.responder ? state.responder(state.sent.back()) : std::nullopt;
  // Dart answers from the main loop later, as the engine does.
  GTask* task = g_task_new(messenger, cancellable, callback, user_data);
  g_task_return_pointer(task, answer ? g_bytes_new(answer->data(), answer->size()) : nullptr,
                        reinterpret_cast<GDestroyNotify>(g_bytes_unref));
  g_object_unref(task);
}

GBytes* fl_binary_messenger_send_on_channel_finish(FlBinaryMessenger*, GAsyncResult* result,
                                                   GError** error) {
  return static_cast<GBytes*>(g_task_propagate_pointer(G_TASK(result), error));
}

struct _FlDartProject {
  GObject parent_instance;
  gchar** arguments;
};
G_DEFINE_TYPE(FlDartProject, fl_dart_project, G_TYPE_OBJECT)
static void fl_dart_project_init(FlDartProject*) {}
static void fl_dart_project_class_init(FlDartProjectClass* klass) {
  G_OBJECT_CLASS(klass)->finalize = [](GObject* object) {
    g_strfreev(FL_DART_PROJECT(object)->arguments);
    G_OBJECT_CLASS(fl_dart_project_parent_class)->finalize(object);
  };
}
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

struct _FlEngine {
  GObject parent_instance;
  FakeMessenger* messenger;
};
G_DEFINE_TYPE(FlEngine, fl_engine, G_TYPE_OBJECT)
// The engine going drops every handler, telling each owner through its destroy notify.
static void engine_gone(gpointer messenger, GObject*) {
  State(messenger).engine = nullptr;
  Drop(std::exchange(State(messenger).handlers, {}));
  g_object_unref(messenger);
}
static void fl_engine_init(FlEngine* self) {
  g_platform_thread = std::this_thread::get_id();
  self->messenger = FAKE_MESSENGER(g_object_new(fake_messenger_get_type(), nullptr));
  State(self->messenger).engine = self;
  g_object_weak_ref(G_OBJECT(self), engine_gone, self->messenger);
}
static void fl_engine_class_init(FlEngineClass*) {}
FlEngine* fl_engine_new_headless(FlDartProject*) {
  return FL_ENGINE(g_object_new(fl_engine_get_type(), nullptr));
}
FlBinaryMessenger* fl_engine_get_binary_messenger(FlEngine* engine) {
  return FL_BINARY_MESSENGER(engine->messenger);
}

G_DEFINE_INTERFACE(FlPluginRegistrar, fl_plugin_registrar, G_TYPE_OBJECT)
static void fl_plugin_registrar_default_init(FlPluginRegistrarInterface*) {}
G_DEFINE_INTERFACE(FlPluginRegistry, fl_plugin_registry, G_TYPE_OBJECT)
static void fl_plugin_registry_default_init(FlPluginRegistryInterface*) {}
FlPluginRegistrar* fl_plugin_registry_get_registrar_for_plugin(FlPluginRegistry* registry,
                                                               const gchar* name) {
  return FL_PLUGIN_REGISTRY_GET_IFACE(registry)->get_registrar_for_plugin(registry, name);
}

G_DECLARE_FINAL_TYPE(FakeRegistrar, fake_registrar, FAKE, REGISTRAR, GObject)
struct _FakeRegistrar {
  GObject parent_instance;
  FlView* view;  // weak: the view owns the registry
};
G_DEFINE_TYPE_WITH_CODE(FakeRegistrar, fake_registrar, G_TYPE_OBJECT,
                        G_IMPLEMENT_INTERFACE(fl_plugin_registrar_get_type(), nullptr))
static void fake_registrar_init(FakeRegistrar*) {}
static void fake_registrar_class_init(FakeRegistrarClass*) {}

struct _FlView {
  GtkBox parent_instance;
  FlEngine* engine;
};
static void fl_view_registry_init(FlPluginRegistryInterface* iface) {
  // Whatever the name, a new registrar (transfer full), as flutter_linux.
  iface->get_registrar_for_plugin = [](FlPluginRegistry* registry, const gchar*) {
    auto* registrar = FAKE_REGISTRAR(g_object_new(fake_registrar_get_type(), nullptr));
    registrar->view = FL_VIEW(registry);
    return FL_PLUGIN_REGISTRAR(registrar);
  };
}
G_DEFINE_TYPE_WITH_CODE(FlView, fl_view, GTK_TYPE_BOX,
                        G_IMPLEMENT_INTERFACE(fl_plugin_registry_get_type(), fl_view_registry_init))
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
FlBinaryMessenger* fl_plugin_registrar_get_messenger(FlPluginRegistrar* registrar) {
  return fl_engine_get_binary_messenger(FAKE_REGISTRAR(registrar)->view->engine);
}
FlView* fl_plugin_registrar_get_view(FlPluginRegistrar* registrar) {
  return FAKE_REGISTRAR(registrar)->view;
}

namespace fake_flutter {

void DartSend(FlBinaryMessenger* messenger, const std::string& channel, const Bytes& message,
              std::function<void(std::optional<Bytes>)> on_response) {
  auto it = State(messenger).handlers.find(channel);
  if (it == State(messenger).handlers.end()) {
    if (on_response) on_response(std::nullopt);
    return;
  }
  auto* handle = g_object_new(fl_binary_messenger_response_handle_get_type(), nullptr);
  Priv(handle)->on_response = new std::function(std::move(on_response));
  GBytes* bytes = g_bytes_new(message.data(), message.size());
  const Handler handler = it->second;
  handler.function(messenger, channel.c_str(), bytes, FL_BINARY_MESSENGER_RESPONSE_HANDLE(handle),
                   handler.data);
  g_bytes_unref(bytes);
  g_object_unref(handle);  // a handler that answers later keeps a reference of its own
}

bool HasHandler(FlBinaryMessenger* messenger, const std::string& channel) {
  return State(messenger).handlers.count(channel) > 0;
}
std::vector<HostMessage> TakeHostMessages(FlBinaryMessenger* messenger) {
  return std::exchange(State(messenger).sent, {});
}
void SetDartResponder(FlBinaryMessenger* messenger,
                      std::function<std::optional<Bytes>(const HostMessage&)> responder) {
  State(messenger).responder = std::move(responder);
}
int unanswered_handles() { return g_unanswered; }
int repeated_responses() { return g_repeated; }
int off_main_thread_calls() { return g_off_main; }
void ResetCounters() { g_unanswered = g_repeated = g_off_main = 0; }

}  // namespace fake_flutter
