// AppleContextMenu on `io.corvane/context_menu`: "show" pops up a GtkMenu built from the item
// tree at a point of the Flutter view and, once the menu has closed, replies the chosen item's
// action string, or null when it was dismissed. One menu at a time: a new "show" dismisses the
// open one (which answers null). Main thread only.
#pragma once

#include <memory>
#include <optional>
#include <string>

#include "channel/method_channel.h"

typedef struct _GtkWidget GtkWidget;
typedef struct _GtkMenuItem GtkMenuItem;

namespace corvane::ui {

class SymbolRenderer;

inline constexpr const char* kContextMenuChannel = "io.corvane/context_menu";

class AppleContextMenu : public std::enable_shared_from_this<AppleContextMenu> {
 public:
  // `view` may be null (headless): every "show" then answers null at once. Symbols are drawn
  // with `renderer`, or the process-wide one.
  static std::shared_ptr<AppleContextMenu> Create(channel::BinaryMessenger& messenger,
                                                  GtkWidget* view,
                                                  SymbolRenderer* renderer = nullptr);
  ~AppleContextMenu();
  AppleContextMenu(const AppleContextMenu&) = delete;
  AppleContextMenu& operator=(const AppleContextMenu&) = delete;

  // The menu on screen now, if any.
  GtkWidget* open_menu() const;

 private:
  struct Showing;
  AppleContextMenu(GtkWidget* view, SymbolRenderer& renderer);
  void HandleCall(const channel::MethodCall& call, std::unique_ptr<channel::MethodResult> result);
  void Show(const channel::Value& args, std::unique_ptr<channel::MethodResult> result);
  static void OnActivate(GtkMenuItem* item, void* self);
  void ViewUnmapped();
  void ScheduleFinish();
  // Replies the showing's answer and takes its menu down.
  void Finish();

  GtkWidget* view_;  // weak: cleared by GTK when the view goes
  SymbolRenderer& renderer_;
  std::unique_ptr<Showing> showing_;
  std::unique_ptr<channel::MethodChannel> channel_;
};

}  // namespace corvane::ui
