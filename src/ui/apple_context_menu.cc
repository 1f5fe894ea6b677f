#include "ui/apple_context_menu.h"

#include <gtk/gtk.h>

#include <cmath>

#include "channel/args.h"
#include "ui/menu_builder.h"
#include "ui/native_system_symbols.h"

namespace corvane::ui {

namespace {
constexpr const char* kLogDomain = "corvane-ui";
}  // namespace

struct AppleContextMenu::Showing {
  GtkWidget* menu = nullptr;  // our reference
  std::unique_ptr<channel::MethodResult> result;
  std::optional<std::string> chosen;
  unsigned finish_source = 0;
  unsigned long handlers[2] = {0, 0};  // on the menu
  GtkWidget* view = nullptr;           // while view_handler is connected
  unsigned long view_handler = 0;
};

std::shared_ptr<AppleContextMenu> AppleContextMenu::Create(channel::BinaryMessenger& messenger,
                                                           GtkWidget* view,
                                                           SymbolRenderer* renderer) {
  std::shared_ptr<AppleContextMenu> self(
      new AppleContextMenu(view, renderer ? *renderer : NativeSystemSymbols::SharedRenderer()));
  self->channel_ = std::make_unique<channel::MethodChannel>(messenger, kContextMenuChannel);
  self->channel_->SetMethodCallHandler(
      channel::WeakHandler(std::weak_ptr<AppleContextMenu>(self), &AppleContextMenu::HandleCall));
  return self;
}

AppleContextMenu::AppleContextMenu(GtkWidget* view, SymbolRenderer& renderer)
    : view_(view), renderer_(renderer) {
  if (view_) g_object_add_weak_pointer(G_OBJECT(view_), reinterpret_cast<gpointer*>(&view_));
}

AppleContextMenu::~AppleContextMenu() {
  if (channel_) channel_->SetMethodCallHandler(nullptr);
  if (showing_) {
    showing_->chosen.reset();
    Finish();
  }
  if (view_) g_object_remove_weak_pointer(G_OBJECT(view_), reinterpret_cast<gpointer*>(&view_));
}

GtkWidget* AppleContextMenu::open_menu() const {
  return showing_ && !showing_->finish_source ? showing_->menu : nullptr;
}

void AppleContextMenu::HandleCall(const channel::MethodCall& call,
                                  std::unique_ptr<channel::MethodResult> result) {
  if (call.method == "show") {
    Show(call.arguments, std::move(result));
  } else {
    result->NotImplemented();
  }
}

void AppleContextMenu::Show(const channel::Value& arguments,
                            std::unique_ptr<channel::MethodResult> result) {
  const channel::Args args(arguments);
  const std::optional<double> x = args.number("x");
  const std::optional<double> y = args.number("y");
  const channel::ValueList* items = args.list("items");
  if (!x || !y || !std::isfinite(*x) || !std::isfinite(*y) || !items || items->empty()) {
    result->Success();
    return;
  }
  GtkWidget* toplevel = view_ ? gtk_widget_get_toplevel(view_) : nullptr;
  GdkWindow* window = toplevel && gtk_widget_is_toplevel(toplevel) && gtk_widget_get_mapped(view_)
                          ? gtk_widget_get_window(toplevel)
                          : nullptr;
  if (!window) {
    result->Success();
    return;
  }
  // The open menu answers null and makes way.
  if (showing_) Finish();

  const std::string* title = args.string("title");
  MenuBuilder builder(&renderer_, gtk_widget_get_scale_factor(view_), &OnActivate, this);
  GtkWidget* menu = builder.Build(*items, title ? *title : "");
  if (builder.entries() == 0) {
    g_object_unref(menu);
    result->Success();
    return;
  }
  showing_ = std::make_unique<Showing>();
  showing_->menu = menu;
  showing_->result = std::move(result);
  gtk_menu_attach_to_widget(GTK_MENU(menu), view_, nullptr);
  // GTK closes a menu with hide, deactivate, then the chosen item's activate: the answer is
  // decided after all of them, from the main loop.
  auto closed =
      +[](GtkWidget*, gpointer self) { static_cast<AppleContextMenu*>(self)->ScheduleFinish(); };
  showing_->handlers[0] = g_signal_connect(menu, "deactivate", G_CALLBACK(closed), this);
  showing_->handlers[1] = g_signal_connect(menu, "hide", G_CALLBACK(closed), this);

  // The view leaving the screen (its window closing) takes the menu with it, while the view
  // is still there to detach from.
  showing_->view = view_;
  showing_->view_handler =
      g_signal_connect(view_, "unmap", G_CALLBACK(+[](GtkWidget*, gpointer self) {
                         static_cast<AppleContextMenu*>(self)->ViewUnmapped();
                       }),
                       this);

  // The point is in the view's logical pixels from its top-left corner; kept inside the view.
  const int width = gtk_widget_get_allocated_width(view_);
  const int height = gtk_widget_get_allocated_height(view_);
  int wx = 0;
  int wy = 0;
  gtk_widget_translate_coordinates(view_, toplevel,
                                   static_cast<int>(std::clamp(*x, 0.0, double(width))),
                                   static_cast<int>(std::clamp(*y, 0.0, double(height))), &wx, &wy);
  const GdkRectangle at{wx, wy, 1, 1};
  // A button press of our own as the trigger: the seat's pointer grabs for the menu.
  GdkEvent* trigger = gdk_event_new(GDK_BUTTON_PRESS);
  trigger->button.window = GDK_WINDOW(g_object_ref(window));
  trigger->button.time = GDK_CURRENT_TIME;
  trigger->button.button = GDK_BUTTON_SECONDARY;
  gdk_event_set_device(
      trigger, gdk_seat_get_pointer(gdk_display_get_default_seat(gdk_window_get_display(window))));
  gtk_menu_popup_at_rect(GTK_MENU(menu), window, &at, GDK_GRAVITY_NORTH_WEST,
                         GDK_GRAVITY_NORTH_WEST, trigger);
  gdk_event_free(trigger);
  // Another client holding the pointer or keyboard makes the popup a silent no-op.
  if (showing_ && !gtk_widget_get_mapped(menu)) {
    g_log(kLogDomain, G_LOG_LEVEL_WARNING, "the context menu could not grab the pointer");
    Finish();
  }
}

void AppleContextMenu::ViewUnmapped() {
  if (!showing_ || !showing_->view_handler) return;
  g_signal_handler_disconnect(showing_->view, showing_->view_handler);
  showing_->view_handler = 0;
  GtkWidget* menu = showing_->menu;
  gtk_menu_shell_deactivate(GTK_MENU_SHELL(menu));
  if (gtk_menu_get_attach_widget(GTK_MENU(menu))) gtk_menu_detach(GTK_MENU(menu));
  ScheduleFinish();
}

void AppleContextMenu::OnActivate(GtkMenuItem* item, void* data) {
  auto* self = static_cast<AppleContextMenu*>(data);
  // Activation by program ignores sensitivity; a greyed-out entry is never a choice.
  if (!self->showing_ || !gtk_widget_is_sensitive(GTK_WIDGET(item))) return;
  if (const char* action = MenuItemAction(GTK_WIDGET(item))) self->showing_->chosen = action;
}

void AppleContextMenu::ScheduleFinish() {
  if (!showing_ || showing_->finish_source) return;
  showing_->finish_source = g_idle_add_full(
      G_PRIORITY_DEFAULT,
      +[](gpointer self) -> gboolean {
        auto* menu = static_cast<AppleContextMenu*>(self);
        menu->showing_->finish_source = 0;
        menu->Finish();
        return G_SOURCE_REMOVE;
      },
      this, nullptr);
}

void AppleContextMenu::Finish() {
  std::unique_ptr<Showing> showing = std::move(showing_);
  if (showing->finish_source) g_source_remove(showing->finish_source);
  for (unsigned long handler : showing->handlers) {
    if (handler) g_signal_handler_disconnect(showing->menu, handler);
  }
  if (showing->view_handler) g_signal_handler_disconnect(showing->view, showing->view_handler);
  if (gtk_widget_get_visible(showing->menu)) {
    gtk_menu_shell_deactivate(GTK_MENU_SHELL(showing->menu));
  }
  // Destroying an attached menu detaches it.
  gtk_widget_destroy(showing->menu);
  g_object_unref(showing->menu);
  if (showing->chosen) {
    showing->result->Success(channel::Value(*showing->chosen));
  } else {
    showing->result->Success();
  }
}

}  // namespace corvane::ui
