#include "host/app_delegate.h"

#include <gtk/gtk.h>

#include <cstdio>
#include <cstring>

#include "host/main_flutter_window.h"
#include "host/startup.h"

namespace corvane::host {

namespace {

std::string Canonical(const std::string& path) {
  gchar* canonical = g_canonicalize_filename(path.c_str(), nullptr);
  std::string result = canonical;
  g_free(canonical);
  return result;
}

}  // namespace

std::string InstanceApplicationId(const std::string& base_id, const std::string& socket_path) {
  const std::string socket =
      Canonical(socket_path.empty() ? engine::SocketEngine::DefaultSocketPath() : socket_path);
  if (socket == Canonical(engine::SocketEngine::DefaultSocketPath())) return base_id;
  gchar* digest = g_compute_checksum_for_string(G_CHECKSUM_SHA256, socket.c_str(), -1);
  // 64 bits of the digest: distinct for any sockets one user runs side by side.
  const std::string suffix = ".socket_" + std::string(digest, 16);
  g_free(digest);
  std::string id = base_id + suffix;
  // A base id near the length limit has no room for the suffix.
  if (!g_application_id_is_valid(id.c_str())) id = kDefaultApplicationId + suffix;
  return id;
}

AppDelegate::AppDelegate(HostOptions options, InfoDictionary info)
    : options_(std::move(options)), info_(std::make_unique<InfoDictionary>(std::move(info))) {
  const std::string id = InstanceApplicationId(ApplicationId(*info_), options_.engine_socket);
  // The command line travels to the primary instance as written: turned into GFiles on the
  // way, a URL would lose the host, query and fragment that decide whether it is refused.
  // "open" stays for launchers that hand over files through the bus.
  const auto flags =
      GApplicationFlags(G_APPLICATION_HANDLES_OPEN | G_APPLICATION_HANDLES_COMMAND_LINE);
  application_ = options_.headless ? g_application_new(id.c_str(), flags)
                                   : G_APPLICATION(gtk_application_new(id.c_str(), flags));
  g_signal_connect(application_, "startup", G_CALLBACK(OnStartup), this);
  g_signal_connect(application_, "activate", G_CALLBACK(OnActivate), this);
  g_signal_connect(application_, "open", G_CALLBACK(OnOpen), this);
  g_signal_connect(application_, "command-line", G_CALLBACK(OnCommandLine), this);
  g_signal_connect(application_, "shutdown", G_CALLBACK(OnShutdown), this);
}

AppDelegate::~AppDelegate() {
  host_.reset();
  g_object_unref(application_);
}

int AppDelegate::Run(const std::string& program_name) {
  // GApplication sees only the documents: our options are already taken, and it must not
  // mistake a file name for one of its own options.
  std::vector<std::string> args = {program_name};
  if (!options_.documents.empty()) {
    args.emplace_back("--");
    args.insert(args.end(), options_.documents.begin(), options_.documents.end());
  }
  std::vector<char*> argv;
  for (auto& arg : args) argv.push_back(arg.data());
  argv.push_back(nullptr);

  SignalWatch signals = WatchTerminationSignals(&AppDelegate::OnTerminationSignal, this);
  const int status = g_application_run(application_, static_cast<int>(args.size()), argv.data());
  RemoveSignalWatch(signals);
  return exit_status_ != kExitOk ? exit_status_ : status;
}

void AppDelegate::OnStartup(GApplication* application, void* data) {
  // Only the primary instance gets here, so a second launch never touches the socket.
  auto* self = static_cast<AppDelegate*>(data);
  std::string error;
  auto started = StartEngine(self->options_, &error);
  if (!started) {
    std::fprintf(stderr, "corvane-host: %s\n", error.c_str());
    self->exit_status_ = kExitEngineFailed;
    g_application_quit(application);
    return;
  }
  self->socket_path_ = started->socket_path;
  self->host_ = std::make_unique<Host>(std::move(started->engine), std::move(*self->info_));
  self->info_.reset();
  if (self->options_.headless) {
    // No window keeps a headless host alive; it runs until a signal quits it.
    g_application_hold(application);
    self->host_->RegisterMainWindowServices(nullptr);
    AnnounceEngineSocket(self->socket_path_);
  }
}

void AppDelegate::OnActivate(GApplication*, void* data) {
  auto* self = static_cast<AppDelegate*>(data);
  if (!self->host_) return;
  if (!self->EnsureMainWindow() && !self->options_.headless) {
    GList* windows = gtk_application_get_windows(GTK_APPLICATION(self->application_));
    if (windows) gtk_window_present(GTK_WINDOW(windows->data));
  }
  self->DidFinishLaunching();
}

void AppDelegate::OnOpen(GApplication*, GFile** files, int n_files, const char*, void* data) {
  auto* self = static_cast<AppDelegate*>(data);
  std::vector<std::string> uris;
  for (int i = 0; i < n_files; ++i) {
    gchar* uri = g_file_get_uri(files[i]);
    uris.emplace_back(uri);
    g_free(uri);
  }
  self->OpenDocuments(uris);
}

int AppDelegate::OnCommandLine(GApplication* application, GApplicationCommandLine* command_line,
                               void* data) {
  auto* self = static_cast<AppDelegate*>(data);
  int argc = 0;
  gchar** argv = g_application_command_line_get_arguments(command_line, &argc);
  const char* cwd = g_application_command_line_get_cwd(command_line);
  gchar* own_cwd = cwd ? nullptr : g_get_current_dir();
  // Run() puts the documents behind "--", and GApplication passes the separator on.
  const int first = argc > 1 && std::strcmp(argv[1], "--") == 0 ? 2 : 1;
  std::vector<std::string> urls;
  for (int i = first; i < argc; ++i) urls.push_back(DocumentUrl(argv[i], cwd ? cwd : own_cwd));
  g_strfreev(argv);
  g_free(own_cwd);
  if (urls.empty()) {
    g_application_activate(application);
  } else {
    self->OpenDocuments(urls);
  }
  return kExitOk;
}

void AppDelegate::OpenDocuments(const std::vector<std::string>& urls) {
  if (!host_) return;
  // Bringing an existing window forward is the document hand-off's part of an open.
  EnsureMainWindow();
  // Documents that start the application arrive before launching has finished; those of a
  // second launch arrive as one batch.
  host_->OpenUris(urls);
  DidFinishLaunching();
}

void AppDelegate::OnShutdown(GApplication*, void* data) {
  auto* self = static_cast<AppDelegate*>(data);
  if (!self->host_) return;
  self->host_->WillTerminate();
  if (!self->options_.headless) {
    // Windows go before the services that hold their views, and those before the engine.
    GList* windows = g_list_copy(gtk_application_get_windows(GTK_APPLICATION(self->application_)));
    for (GList* w = windows; w; w = w->next) gtk_widget_destroy(GTK_WIDGET(w->data));
    g_list_free(windows);
  }
  self->host_.reset();
}

int AppDelegate::OnTerminationSignal(void* data) {
  g_application_quit(static_cast<AppDelegate*>(data)->application_);
  return G_SOURCE_CONTINUE;
}

bool AppDelegate::EnsureMainWindow() {
  if (options_.headless || window_created_) return false;
  window_created_ = true;
  MainFlutterWindow::Create(GTK_APPLICATION(application_), *host_);
  AnnounceEngineSocket(socket_path_);
  return true;
}

void AppDelegate::DidFinishLaunching() { host_->DidFinishLaunching(); }

}  // namespace corvane::host
