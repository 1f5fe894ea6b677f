// What happens to a service's window and to the application, for services that must react:
// the window minimised or closed, every window hidden, the system about to sleep (logind, when
// there is a system bus), the application about to quit. Handlers run on the main thread.
#pragma once

#include <functional>
#include <memory>

#include "host/application_delegate.h"

typedef struct _GtkWidget GtkWidget;

namespace corvane::host {

class WindowWatch : public ApplicationDelegate, public std::enable_shared_from_this<WindowWatch> {
 public:
  struct Handlers {
    std::function<void()> window_minimised;
    std::function<void()> window_closed;
    std::function<void()> application_hidden;
    std::function<void()> system_will_sleep;
    std::function<void()> application_will_terminate;
  };

  // Watches the window that holds `view` (none when `view` is null: headless) and the system
  // bus. Add the result as an application delegate to hear of quitting.
  static std::shared_ptr<WindowWatch> Start(GtkWidget* view, Handlers handlers);
  ~WindowWatch() override;
  WindowWatch(const WindowWatch&) = delete;
  WindowWatch& operator=(const WindowWatch&) = delete;

  // False once every toplevel window is unmapped; a host without windows is never hidden.
  static bool ApplicationVisible();

  void HandleWillTerminate() override;

 private:
  explicit WindowWatch(Handlers handlers);
  void WatchWindow(GtkWidget* view);
  void WatchSleep();

  struct Private;
  Handlers handlers_;
  std::unique_ptr<Private> private_;
};

}  // namespace corvane::host
