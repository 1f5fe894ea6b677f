#include "ui/mac_window_appearance.h"

#include <gtk/gtk.h>

#include "ui/window_appearance.h"

namespace corvane::ui {

namespace {

constexpr const char* kInvalidModeCode = "invalid_mode";
constexpr const char* kInvalidModeMessage = "Unknown appearance mode";
constexpr const char* kWindowUnavailableCode = "window_unavailable";
constexpr const char* kWindowUnavailableMessage = "The window is not attached";

std::optional<AppearanceMode> ParseMode(const channel::Value& value) {
  const std::string* mode = value.string_if();
  if (!mode) return std::nullopt;
  if (*mode == "system") return AppearanceMode::kSystem;
  if (*mode == "light") return AppearanceMode::kLight;
  if (*mode == "dark") return AppearanceMode::kDark;
  return std::nullopt;
}

}  // namespace

std::shared_ptr<MacWindowAppearance> MacWindowAppearance::Create(
    channel::BinaryMessenger& messenger, GtkWidget* view) {
  std::shared_ptr<MacWindowAppearance> self(new MacWindowAppearance(view));
  self->channel_ = std::make_unique<channel::MethodChannel>(messenger, kAppearanceChannel);
  self->channel_->SetMethodCallHandler(channel::WeakHandler(
      std::weak_ptr<MacWindowAppearance>(self), &MacWindowAppearance::HandleCall));
  return self;
}

MacWindowAppearance::MacWindowAppearance(GtkWidget* view) : view_(view) {
  if (view_) g_object_add_weak_pointer(G_OBJECT(view_), reinterpret_cast<gpointer*>(&view_));
}

MacWindowAppearance::~MacWindowAppearance() {
  if (channel_) channel_->SetMethodCallHandler(nullptr);
  if (view_) g_object_remove_weak_pointer(G_OBJECT(view_), reinterpret_cast<gpointer*>(&view_));
}

void MacWindowAppearance::HandleCall(const channel::MethodCall& call,
                                     std::unique_ptr<channel::MethodResult> result) {
  if (call.method == "setMode") {
    SetMode(call.arguments, *result);
  } else {
    result->NotImplemented();
  }
}

void MacWindowAppearance::SetMode(const channel::Value& argument, channel::MethodResult& result) {
  // The mode is checked first: a bad mode is reported even without a window.
  const std::optional<AppearanceMode> mode = ParseMode(argument);
  if (!mode) {
    result.Error(kInvalidModeCode, kInvalidModeMessage, argument);
    return;
  }
  GtkWidget* toplevel = view_ ? gtk_widget_get_toplevel(view_) : nullptr;
  if (!toplevel || !gtk_widget_is_toplevel(toplevel) || !GTK_IS_WINDOW(toplevel)) {
    result.Error(kWindowUnavailableCode, kWindowUnavailableMessage);
    return;
  }
  WindowAppearance::ForWindow(GTK_WINDOW(toplevel)).SetMode(*mode);
  result.Success();
}

}  // namespace corvane::ui
