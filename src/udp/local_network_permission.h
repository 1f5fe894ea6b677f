// Provoking the desktop's local-network permission question early, before the first command
// station is contacted, by browsing DNS-SD for the station's service type. Linux asks no such
// question, so here the browse is a harmless one through the local DNS-SD daemon (Avahi, over
// the system bus) when that daemon runs, and nothing at all when it does not. Results are
// ignored either way.
#pragma once

#include <functional>
#include <memory>
#include <mutex>

namespace corvane::udp {

inline constexpr const char* kPermissionServiceType = "_z21._udp.";

// A running browse nobody reads. Dropping it stops the browse.
class PermissionBrowser {
 public:
  virtual ~PermissionBrowser() = default;
};

using PermissionBrowserFactory = std::function<std::unique_ptr<PermissionBrowser>()>;

// Starts a browse for kPermissionServiceType in the default domain, on the calling thread's
// default main context. Never fails: without a DNS-SD daemon the browser does nothing.
std::unique_ptr<PermissionBrowser> StartPermissionBrowse();

class LocalNetworkPermission {
 public:
  // The process-wide instance, created on first use (thread-safely) and never destroyed.
  static LocalNetworkPermission& Shared();

  explicit LocalNetworkPermission(PermissionBrowserFactory factory = StartPermissionBrowse)
      : factory_(std::move(factory)) {}

  // The first call starts the browse, on the main thread; later calls do nothing.
  void Trigger();
  // Forgets the browse and the trigger, so that the next Trigger() starts one again.
  void Reset();

  bool has_triggered() const;
  bool has_browser() const;

 private:
  void StartOnMain();

  PermissionBrowserFactory factory_;
  mutable std::mutex mutex_;
  bool has_triggered_ = false;
  std::unique_ptr<PermissionBrowser> browser_;
};

}  // namespace corvane::udp
