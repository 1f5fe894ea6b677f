#include "udp/local_network_permission.h"

#include <gio/gio.h>

#include <string>

#include "dispatch/queue.h"

namespace corvane::udp {

namespace {

constexpr const char* kLogDomain = "corvane-udp";
constexpr const char* kAvahiName = "org.freedesktop.Avahi";
// Without a daemon to answer, the browse gives up quickly rather than linger.
constexpr int kCallTimeoutMs = 2000;

// What the asynchronous steps of one browse share. It outlives the browser object while a step
// is still in flight, so a browser dropped mid-way never sees a late callback.
struct BrowseState {
  GCancellable* cancellable = g_cancellable_new();
  GDBusConnection* bus = nullptr;
  std::string browser_path;

  ~BrowseState() {
    if (bus && !browser_path.empty()) {
      g_dbus_connection_call(bus, kAvahiName, browser_path.c_str(),
                             "org.freedesktop.Avahi.ServiceBrowser", "Free", nullptr, nullptr,
                             G_DBUS_CALL_FLAGS_NO_AUTO_START, -1, nullptr, nullptr, nullptr);
    }
    g_clear_object(&bus);
    g_object_unref(cancellable);
  }
};

using Holder = std::shared_ptr<BrowseState>;

void OnBrowserCreated(GObject* source, GAsyncResult* result, gpointer data) {
  std::unique_ptr<Holder> holder(static_cast<Holder*>(data));
  GError* error = nullptr;
  GVariant* reply = g_dbus_connection_call_finish(G_DBUS_CONNECTION(source), result, &error);
  if (!reply) {
    g_log(kLogDomain, G_LOG_LEVEL_DEBUG, "no DNS-SD browse: %s", error->message);
    g_error_free(error);
    return;
  }
  const gchar* path = nullptr;
  g_variant_get(reply, "(&o)", &path);
  if (!g_cancellable_is_cancelled((*holder)->cancellable)) (*holder)->browser_path = path;
  g_variant_unref(reply);
}

void OnBus(GObject*, GAsyncResult* result, gpointer data) {
  std::unique_ptr<Holder> holder(static_cast<Holder*>(data));
  GError* error = nullptr;
  GDBusConnection* bus = g_bus_get_finish(result, &error);
  if (!bus) {
    g_log(kLogDomain, G_LOG_LEVEL_DEBUG, "no system bus for the DNS-SD browse: %s", error->message);
    g_error_free(error);
    return;
  }
  // The shared system-bus connection would end the process if the bus went away.
  g_dbus_connection_set_exit_on_close(bus, FALSE);
  BrowseState& state = **holder;
  if (g_cancellable_is_cancelled(state.cancellable)) {
    g_object_unref(bus);
    return;
  }
  state.bus = bus;
  // Avahi spells service types without the final dot. Not auto-started: a daemon that is not
  // running means there is nothing to browse, not something to launch.
  std::string type = kPermissionServiceType;
  if (type.ends_with('.')) type.pop_back();
  g_dbus_connection_call(bus, kAvahiName, "/", "org.freedesktop.Avahi.Server", "ServiceBrowserNew",
                         g_variant_new("(iissu)", -1, -1, type.c_str(), "", 0u),
                         G_VARIANT_TYPE("(o)"), G_DBUS_CALL_FLAGS_NO_AUTO_START, kCallTimeoutMs,
                         state.cancellable, &OnBrowserCreated, new Holder(*holder));
}

class AvahiPermissionBrowser final : public PermissionBrowser {
 public:
  AvahiPermissionBrowser() : state_(std::make_shared<BrowseState>()) {
    g_bus_get(G_BUS_TYPE_SYSTEM, state_->cancellable, &OnBus, new Holder(state_));
  }
  ~AvahiPermissionBrowser() override { g_cancellable_cancel(state_->cancellable); }

 private:
  Holder state_;
};

}  // namespace

std::unique_ptr<PermissionBrowser> StartPermissionBrowse() {
  return std::make_unique<AvahiPermissionBrowser>();
}

LocalNetworkPermission& LocalNetworkPermission::Shared() {
  // Never destroyed: the browse lives as long as the process.
  static auto* shared = new LocalNetworkPermission();
  return *shared;
}

void LocalNetworkPermission::Trigger() {
  {
    std::lock_guard lock(mutex_);
    if (has_triggered_) return;
    has_triggered_ = true;
  }
  if (dispatch::IsMainThread()) {
    StartOnMain();
  } else {
    dispatch::MainQueue().Async([this] { StartOnMain(); });
  }
}

void LocalNetworkPermission::StartOnMain() {
  // Made outside the lock: the factory is foreign code.
  std::unique_ptr<PermissionBrowser> browser = factory_();
  std::unique_ptr<PermissionBrowser> unused;
  std::lock_guard lock(mutex_);
  if (has_triggered_ && !browser_) {
    browser_ = std::move(browser);
  } else {
    unused = std::move(browser);  // a Reset() came first
  }
}

void LocalNetworkPermission::Reset() {
  std::unique_ptr<PermissionBrowser> dropped;
  std::lock_guard lock(mutex_);
  dropped = std::move(browser_);
  has_triggered_ = false;
}

bool LocalNetworkPermission::has_triggered() const {
  std::lock_guard lock(mutex_);
  return has_triggered_;
}

bool LocalNetworkPermission::has_browser() const {
  std::lock_guard lock(mutex_);
  return browser_ != nullptr;
}

}  // namespace corvane::udp
