// Application-level happenings a service can ask to hear about (the document hand-off does):
// the host forwards them to every delegate added through a registrar, in the order added.
#pragma once

#include <string>
#include <vector>

namespace corvane::host {

class ApplicationDelegate {
 public:
  virtual ~ApplicationDelegate() = default;

  // The desktop asks the application to open these URIs (file:// and others, as given).
  // Returns whether the delegate took them.
  virtual bool HandleOpenUris(const std::vector<std::string>& uris) {
    (void)uris;
    return false;
  }
  // Start-up is complete: windows are up and every service is registered.
  virtual void HandleDidFinishLaunching() {}
  // The application is about to end; the engine connection still exists.
  virtual void HandleWillTerminate() {}
};

}  // namespace corvane::host
