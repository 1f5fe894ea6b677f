// The DNS-SD backend on the Avahi client library, polled on the owning queue's main context.
//
// The client is made with AVAHI_CLIENT_NO_FAIL, so a missing avahi-daemon is waited for rather
// than an error: browsers are (re)created whenever the client reaches the daemon, and every
// resolved sighting is reported removed when the daemon goes away. When the bus itself goes
// away the client fails; it is then remade after a back-off, or, while the bus's socket file is
// absent, when that file appears (so an idle host without a bus does not keep waking up).
// Nothing here is reported to the caller as an error: without a daemon, nothing is found.
#include <avahi-client/client.h>
#include <avahi-client/lookup.h>
#include <avahi-common/domain.h>
#include <avahi-common/error.h>
#include <avahi-glib/glib-watch.h>
#include <gio/gio.h>
#include <glib.h>
#include <net/if.h>

#include <algorithm>
#include <chrono>
#include <map>
#include <tuple>
#include <vector>

#include "discovery/dns_sd_backend.h"
#include "dispatch/queue.h"

namespace corvane::discovery {

namespace {

constexpr const char* kLogDomain = "corvane-bonjour";

using std::chrono::milliseconds;

// A busy network cannot make us hold resolvers without limit.
constexpr size_t kMaxInstances = 1024;
// Remaking a failed client: first after kFirstRetry, doubling up to kLastRetry.
constexpr milliseconds kFirstRetry{250};
constexpr milliseconds kLastRetry{8000};
// A browser the daemon failed is remade after this.
constexpr milliseconds kBrowserRetry{2000};

// Where the system bus listens, when that is a file we can watch for; empty otherwise.
std::string SystemBusSocketPath() {
  const char* address = g_getenv("DBUS_SYSTEM_BUS_ADDRESS");
  if (address == nullptr || *address == '\0') return "/var/run/dbus/system_bus_socket";
  std::string_view rest(address);
  constexpr std::string_view kPrefix = "unix:path=";
  if (rest.substr(0, kPrefix.size()) != kPrefix) return {};
  rest.remove_prefix(kPrefix.size());
  return std::string(rest.substr(0, rest.find_first_of(",;")));
}

std::string AddressText(const AvahiAddress* address, AvahiIfIndex interface) {
  char text[AVAHI_ADDRESS_STR_MAX] = {};
  if (address == nullptr || avahi_address_snprint(text, sizeof text, address) == nullptr) {
    return {};
  }
  std::string out = text;
  // fe80::/10 is only usable together with the interface it was seen on.
  const uint8_t* b = address->data.ipv6.address;
  if (address->proto == AVAHI_PROTO_INET6 && b[0] == 0xfe && (b[1] & 0xc0) == 0x80 &&
      interface >= 0) {
    char name[IF_NAMESIZE] = {};
    out += '%';
    out += if_indextoname(static_cast<unsigned>(interface), name) ? std::string(name)
                                                                  : std::to_string(interface);
  }
  return out;
}

class AvahiBackend final : public DnsSdBackend {
 public:
  AvahiBackend(GMainContext* context, dispatch::Queue& queue, Listener& listener)
      : queue_(queue), listener_(listener) {
    poll_ = avahi_glib_poll_new(context, G_PRIORITY_DEFAULT);
    Connect();
  }

  ~AvahiBackend() override {
    StopWatchingBus();
    retry_.Cancel();
    browser_retry_.Cancel();
    collect_.Cancel();
    for (auto& [type, browse] : browses_) Release(*browse, /*report=*/false);
    Collect();
    if (client_ != nullptr) avahi_client_free(client_);
    avahi_glib_poll_free(poll_);
  }

  bool Browse(const std::string& type) override {
    // Avahi takes a type without the final dot of a fully qualified name; the caller's
    // spelling stays the key and the type its sightings are reported under.
    std::string avahi_type = type;
    if (!avahi_type.empty() && avahi_type.back() == '.') avahi_type.pop_back();
    if (!avahi_is_valid_service_type_generic(avahi_type.c_str())) return false;
    auto [it, added] = browses_.try_emplace(type, nullptr);
    if (!added) return true;
    it->second = std::make_unique<BrowseState>();
    it->second->owner = this;
    it->second->type = type;
    it->second->avahi_type = std::move(avahi_type);
    if (connected_) Open(*it->second);
    return true;
  }

  void StopBrowse(const std::string& type) override {
    auto it = browses_.find(type);
    if (it == browses_.end()) return;
    Release(*it->second, /*report=*/false);
    browses_.erase(it);
    Collect();
  }

 private:
  struct BrowseState;
  struct Instance {
    BrowseState* browse = nullptr;
    Sighting sighting;
    std::string avahi_type;
    AvahiServiceResolver* resolver = nullptr;
    AvahiProtocol address_protocol = AVAHI_PROTO_UNSPEC;
    bool resolved = false;
  };

  // Resolves to an address of `address_protocol`. Kept open after the first answer, so a
  // changed address or port is reported too.
  void StartResolver(Instance& instance, AvahiProtocol address_protocol) {
    instance.address_protocol = address_protocol;
    const Sighting& s = instance.sighting;
    instance.resolver = avahi_service_resolver_new(
        client_, s.interface, s.protocol, s.name.c_str(), instance.avahi_type.c_str(),
        s.domain.c_str(), address_protocol, static_cast<AvahiLookupFlags>(0),
        &AvahiBackend::ResolveCallback, &instance);
  }
  using InstanceKey = std::tuple<int32_t, int32_t, std::string, std::string>;
  struct BrowseState {
    AvahiBackend* owner = nullptr;
    std::string type;        // as the caller gave it
    std::string avahi_type;  // as Avahi takes it
    AvahiServiceBrowser* browser = nullptr;
    bool failed = false;
    std::map<InstanceKey, std::unique_ptr<Instance>> instances;
  };

  void Connect() {
    int error = 0;
    client_ = nullptr;
    AvahiClient* client = avahi_client_new(avahi_glib_poll_get(poll_), AVAHI_CLIENT_NO_FAIL,
                                           &AvahiBackend::ClientCallback, this, &error);
    client_ = client;
    if (client == nullptr) {
      connected_ = false;
      if (WatchForBus()) {
        g_log(kLogDomain, G_LOG_LEVEL_DEBUG, "no system bus (%s); waiting for %s",
              avahi_strerror(error), bus_path_.c_str());
        return;
      }
      g_log(kLogDomain, G_LOG_LEVEL_DEBUG, "no system bus (%s); retrying in %lld ms",
            avahi_strerror(error), static_cast<long long>(backoff_.count()));
      ScheduleReconnect();
    }
  }

  // Watches the bus socket's folder when the socket file is missing; false when there is
  // nothing to watch (no such folder, an address that is not a file, or the file is there but
  // not answering yet, which the back-off covers).
  bool WatchForBus() {
    const std::string path = SystemBusSocketPath();
    if (path.empty() || g_file_test(path.c_str(), G_FILE_TEST_EXISTS)) return false;
    gchar* dir = g_path_get_dirname(path.c_str());
    if (g_file_test(dir, G_FILE_TEST_IS_DIR)) {
      GFile* folder = g_file_new_for_path(dir);
      bus_watch_ = g_file_monitor_directory(folder, G_FILE_MONITOR_NONE, nullptr, nullptr);
      g_object_unref(folder);
    }
    g_free(dir);
    if (bus_watch_ == nullptr) return false;
    bus_path_ = path;
    g_signal_connect(bus_watch_, "changed", G_CALLBACK(&AvahiBackend::OnBusFolderChanged), this);
    // The file may have appeared before the watch began.
    if (g_file_test(path.c_str(), G_FILE_TEST_EXISTS)) {
      StopWatchingBus();
      return false;
    }
    return true;
  }

  void StopWatchingBus() {
    if (bus_watch_ == nullptr) return;
    g_signal_handlers_disconnect_by_data(bus_watch_, this);
    g_file_monitor_cancel(bus_watch_);
    g_clear_object(&bus_watch_);
  }

  static void OnBusFolderChanged(GFileMonitor*, GFile* file, GFile*, GFileMonitorEvent event,
                                 gpointer data) {
    auto* self = static_cast<AvahiBackend*>(data);
    if (event != G_FILE_MONITOR_EVENT_CREATED) return;
    // By name: the folder may be reached through a symbolic link (/var/run is /run).
    gchar* created = g_file_get_basename(file);
    gchar* wanted = g_path_get_basename(self->bus_path_.c_str());
    const bool is_bus = created != nullptr && g_strcmp0(created, wanted) == 0;
    g_free(created);
    g_free(wanted);
    if (!is_bus) return;
    self->StopWatchingBus();
    // The bus creates its socket just before it listens; a first attempt that comes too early
    // falls back to the back-off.
    self->backoff_ = kFirstRetry;
    self->ScheduleReconnect();
  }

  void ScheduleReconnect() {
    if (retry_.pending()) return;
    retry_ = queue_.After(backoff_, [this] {
      Collect();  // the old client's objects go before the client does
      if (client_ != nullptr) avahi_client_free(client_);
      client_ = nullptr;
      Connect();
    });
    backoff_ = std::min(backoff_ * 2, kLastRetry);
  }

  static void ClientCallback(AvahiClient* client, AvahiClientState state, void* data) {
    static_cast<AvahiBackend*>(data)->OnClientState(client, state);
  }

  void OnClientState(AvahiClient* client, AvahiClientState state) {
    switch (state) {
      case AVAHI_CLIENT_S_REGISTERING:
      case AVAHI_CLIENT_S_RUNNING:
      case AVAHI_CLIENT_S_COLLISION:
        // Called from inside avahi_client_new too, before it has returned the client.
        client_ = client;
        if (!connected_) {
          g_log(kLogDomain, G_LOG_LEVEL_DEBUG, "avahi-daemon reached; browsing %zu types",
                browses_.size());
          connected_ = true;
          backoff_ = kFirstRetry;
          for (auto& [type, browse] : browses_) Open(*browse);
        }
        break;
      case AVAHI_CLIENT_CONNECTING:
        client_ = client;
        if (connected_) {
          g_log(kLogDomain, G_LOG_LEVEL_DEBUG, "avahi-daemon went away; waiting for it");
          connected_ = false;
          ReleaseAll();
        }
        break;
      case AVAHI_CLIENT_FAILURE:
        g_log(kLogDomain, G_LOG_LEVEL_DEBUG, "avahi client failed (%s); reconnecting",
              avahi_strerror(avahi_client_errno(client)));
        connected_ = false;
        ReleaseAll();
        ScheduleReconnect();
        break;
    }
  }

  void Open(BrowseState& browse) {
    browse.failed = false;
    browse.browser = avahi_service_browser_new(
        client_, AVAHI_IF_UNSPEC, AVAHI_PROTO_UNSPEC, browse.avahi_type.c_str(), nullptr,
        static_cast<AvahiLookupFlags>(0), &AvahiBackend::BrowseCallback, &browse);
    if (browse.browser == nullptr) {
      g_log(kLogDomain, G_LOG_LEVEL_DEBUG, "cannot browse %s: %s", browse.type.c_str(),
            avahi_strerror(avahi_client_errno(client_)));
      browse.failed = true;
      ScheduleBrowserRetry();
    }
  }

  // Reports the resolved sightings of `browse` as removed (when `report`) and hands its Avahi
  // objects to Collect(): they may be the ones whose callback is running right now.
  void Release(BrowseState& browse, bool report) {
    for (auto& [key, instance] : browse.instances) {
      if (instance->resolver != nullptr) garbage_resolvers_.push_back(instance->resolver);
      if (report && instance->resolved) listener_.OnRemoved(instance->sighting);
    }
    instance_count_ -= browse.instances.size();
    browse.instances.clear();
    if (browse.browser != nullptr) garbage_browsers_.push_back(browse.browser);
    browse.browser = nullptr;
  }

  void ReleaseAll() {
    for (auto& [type, browse] : browses_) Release(*browse, /*report=*/true);
    ScheduleCollect();
  }

  void ScheduleCollect() {
    if (!collect_.pending()) collect_ = queue_.After(milliseconds(0), [this] { Collect(); });
  }

  void Collect() {
    for (AvahiServiceResolver* r : garbage_resolvers_) avahi_service_resolver_free(r);
    for (AvahiServiceBrowser* b : garbage_browsers_) avahi_service_browser_free(b);
    garbage_resolvers_.clear();
    garbage_browsers_.clear();
  }

  void ScheduleBrowserRetry() {
    if (browser_retry_.pending()) return;
    browser_retry_ = queue_.After(kBrowserRetry, [this] {
      if (!connected_) return;  // reaching the daemon again opens every browser
      for (auto& [type, browse] : browses_) {
        if (browse->failed) Open(*browse);
      }
    });
  }

  static void BrowseCallback(AvahiServiceBrowser*, AvahiIfIndex interface, AvahiProtocol protocol,
                             AvahiBrowserEvent event, const char* name, const char* type,
                             const char* domain, AvahiLookupResultFlags, void* data) {
    auto* browse = static_cast<BrowseState*>(data);
    browse->owner->OnBrowse(*browse, interface, protocol, event, name, type, domain);
  }

  void OnBrowse(BrowseState& browse, AvahiIfIndex interface, AvahiProtocol protocol,
                AvahiBrowserEvent event, const char* name, const char* type, const char* domain) {
    switch (event) {
      case AVAHI_BROWSER_NEW: {
        InstanceKey key{interface, protocol, name, domain};
        if (browse.instances.count(key) != 0) return;
        if (instance_count_ >= kMaxInstances) {
          g_log(kLogDomain, G_LOG_LEVEL_DEBUG, "ignoring %s: %zu instances already", name,
                instance_count_);
          return;
        }
        auto instance = std::make_unique<Instance>();
        instance->browse = &browse;
        instance->sighting = Sighting{browse.type, name, domain, interface, protocol};
        instance->avahi_type = type;
        StartResolver(*instance, AVAHI_PROTO_INET);
        if (instance->resolver == nullptr) {
          g_log(kLogDomain, G_LOG_LEVEL_DEBUG, "cannot resolve %s: %s", name,
                avahi_strerror(avahi_client_errno(client_)));
        }
        browse.instances.emplace(std::move(key), std::move(instance));
        ++instance_count_;
        return;
      }
      case AVAHI_BROWSER_REMOVE: {
        auto it = browse.instances.find(InstanceKey{interface, protocol, name, domain});
        if (it == browse.instances.end()) return;
        std::unique_ptr<Instance> instance = std::move(it->second);
        browse.instances.erase(it);
        --instance_count_;
        if (instance->resolver != nullptr) avahi_service_resolver_free(instance->resolver);
        if (instance->resolved) listener_.OnRemoved(instance->sighting);
        return;
      }
      case AVAHI_BROWSER_FAILURE:
        g_log(kLogDomain, G_LOG_LEVEL_DEBUG, "browsing %s failed: %s", browse.type.c_str(),
              avahi_strerror(avahi_client_errno(client_)));
        Release(browse, /*report=*/true);
        browse.failed = true;
        ScheduleCollect();
        ScheduleBrowserRetry();
        return;
      case AVAHI_BROWSER_ALL_FOR_NOW:
      case AVAHI_BROWSER_CACHE_EXHAUSTED:
        return;
    }
  }

  static void ResolveCallback(AvahiServiceResolver* resolver, AvahiIfIndex interface, AvahiProtocol,
                              AvahiResolverEvent event, const char* name, const char*, const char*,
                              const char* host_name, const AvahiAddress* address, uint16_t port,
                              AvahiStringList*, AvahiLookupResultFlags, void* data) {
    auto* instance = static_cast<Instance*>(data);
    if (event == AVAHI_RESOLVER_FOUND) {
      Endpoint endpoint{AddressText(address, interface), port, host_name ? host_name : ""};
      instance->resolved = true;
      instance->browse->owner->listener_.OnResolved(instance->sighting, endpoint);
      return;
    }
    avahi_service_resolver_free(resolver);
    instance->resolver = nullptr;
    // An instance is reported at an IPv4 address whenever it has one, which every sighting of
    // it then agrees on; only an instance without one is resolved to any address.
    if (instance->address_protocol == AVAHI_PROTO_INET && !instance->resolved) {
      instance->browse->owner->StartResolver(*instance, AVAHI_PROTO_UNSPEC);
      if (instance->resolver != nullptr) return;
    }
    // Unresolvable: never reported. Once resolved, the browser still decides when it is gone.
    g_log(kLogDomain, G_LOG_LEVEL_DEBUG, "resolving %s failed", name ? name : "");
  }

  dispatch::Queue& queue_;
  Listener& listener_;
  AvahiGLibPoll* poll_ = nullptr;
  AvahiClient* client_ = nullptr;
  bool connected_ = false;
  milliseconds backoff_ = kFirstRetry;
  dispatch::WorkItem retry_;
  dispatch::WorkItem browser_retry_;
  GFileMonitor* bus_watch_ = nullptr;  // while the bus socket file is missing
  std::string bus_path_;
  dispatch::WorkItem collect_;
  std::map<std::string, std::unique_ptr<BrowseState>> browses_;
  size_t instance_count_ = 0;
  std::vector<AvahiServiceResolver*> garbage_resolvers_;
  std::vector<AvahiServiceBrowser*> garbage_browsers_;
};

}  // namespace

std::unique_ptr<DnsSdBackend> MakeAvahiBackend(GMainContext* context, dispatch::Queue& queue,
                                               DnsSdBackend::Listener& listener) {
  return std::make_unique<AvahiBackend>(context, queue, listener);
}

}  // namespace corvane::discovery
