// MacWindowAppearance on `io.corvane/window_appearance`: "setMode" forces the light or dark look
// on the window holding the Flutter view, or hands the choice back to the desktop ("system").
// The view is held weakly and its window found at call time. Main thread only.
#pragma once

#include <memory>

#include "channel/method_channel.h"

typedef struct _GtkWidget GtkWidget;

namespace corvane::ui {

inline constexpr const char* kAppearanceChannel = "io.corvane/window_appearance";

class MacWindowAppearance : public std::enable_shared_from_this<MacWindowAppearance> {
 public:
  // `view` may be null (headless): every valid mode then answers "window_unavailable".
  static std::shared_ptr<MacWindowAppearance> Create(channel::BinaryMessenger& messenger,
                                                     GtkWidget* view);
  ~MacWindowAppearance();
  MacWindowAppearance(const MacWindowAppearance&) = delete;
  MacWindowAppearance& operator=(const MacWindowAppearance&) = delete;

 private:
  explicit MacWindowAppearance(GtkWidget* view);
  void HandleCall(const channel::MethodCall& call, std::unique_ptr<channel::MethodResult> result);
  void SetMode(const channel::Value& mode, channel::MethodResult& result);

  GtkWidget* view_;  // weak: cleared by GTK when the view goes
  std::unique_ptr<channel::MethodChannel> channel_;
};

}  // namespace corvane::ui
