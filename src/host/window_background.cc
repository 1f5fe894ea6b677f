#include "host/window_background.h"

#include <gtk/gtk.h>

namespace corvane::host {

namespace {

constexpr const char* kDataKey = "corvane-window-background";

bool EndsWithDark(const std::string& name) {
  constexpr std::string_view kSuffix = "-dark";
  return name.size() >= kSuffix.size() &&
         g_ascii_strcasecmp(name.c_str() + name.size() - kSuffix.size(), kSuffix.data()) == 0;
}

}  // namespace

bool IsDark(Appearance appearance, const ThemeSignals& theme) {
  if (appearance != Appearance::kSystem) return appearance == Appearance::kDark;
  // GTK reads $GTK_THEME as "name[:variant]" and then ignores the settings entirely.
  if (!theme.gtk_theme_env.empty()) {
    const auto colon = theme.gtk_theme_env.rfind(':');
    if (colon != std::string::npos) {
      return g_ascii_strcasecmp(theme.gtk_theme_env.c_str() + colon + 1, "dark") == 0;
    }
    return EndsWithDark(theme.gtk_theme_env);
  }
  return theme.prefer_dark || EndsWithDark(theme.theme_name);
}

const char* BackgroundColor(bool dark) { return dark ? "#0E1A31" : "#FFFFFF"; }

WindowBackground* WindowBackground::Attach(GtkWidget* window) {
  auto* existing = ForWidget(window);
  if (existing) return existing;
  auto* background = new WindowBackground(window);
  g_object_set_data_full(G_OBJECT(window), kDataKey, background, &WindowBackground::Destroy);
  return background;
}

WindowBackground* WindowBackground::ForWidget(GtkWidget* widget) {
  if (!widget) return nullptr;
  GtkWidget* toplevel = gtk_widget_get_toplevel(widget);
  return static_cast<WindowBackground*>(g_object_get_data(G_OBJECT(toplevel), kDataKey));
}

WindowBackground::WindowBackground(GtkWidget* window)
    : window_(window),
      settings_(gtk_settings_get_for_screen(gtk_widget_get_screen(window))),
      provider_(gtk_css_provider_new()) {
  g_object_ref(settings_);
  // On this window only, so a look forced on one window leaves the others alone.
  gtk_style_context_add_provider(gtk_widget_get_style_context(window),
                                 GTK_STYLE_PROVIDER(provider_),
                                 GTK_STYLE_PROVIDER_PRIORITY_APPLICATION);
  auto on_change =
      +[](GObject*, GParamSpec*, gpointer self) { static_cast<WindowBackground*>(self)->Update(); };
  theme_handler_ =
      g_signal_connect(settings_, "notify::gtk-theme-name", G_CALLBACK(on_change), this);
  prefer_dark_handler_ = g_signal_connect(settings_, "notify::gtk-application-prefer-dark-theme",
                                          G_CALLBACK(on_change), this);
  Update();
}

WindowBackground::~WindowBackground() {
  g_signal_handler_disconnect(settings_, theme_handler_);
  g_signal_handler_disconnect(settings_, prefer_dark_handler_);
  g_object_unref(settings_);
  g_object_unref(provider_);
}

void WindowBackground::Destroy(void* self) { delete static_cast<WindowBackground*>(self); }

void WindowBackground::SetAppearance(Appearance appearance) {
  appearance_ = appearance;
  Update();
}

ThemeSignals WindowBackground::CurrentThemeSignals() const {
  ThemeSignals theme;
  gboolean prefer_dark = FALSE;
  gchar* theme_name = nullptr;
  g_object_get(settings_, "gtk-application-prefer-dark-theme", &prefer_dark, "gtk-theme-name",
               &theme_name, nullptr);
  theme.prefer_dark = prefer_dark;
  if (theme_name) theme.theme_name = theme_name;
  g_free(theme_name);
  if (const char* env = g_getenv("GTK_THEME")) theme.gtk_theme_env = env;
  return theme;
}

void WindowBackground::Update() {
  const bool dark = IsDark(appearance_, CurrentThemeSignals());
  if (applied_ && dark == dark_) return;
  dark_ = dark;
  applied_ = true;
  // background-image: none, or a theme's gradient would cover the colour.
  gchar* css = g_strdup_printf("window#main { background-color: %s; background-image: none; }",
                               BackgroundColor(dark));
  gtk_css_provider_load_from_data(provider_, css, -1, nullptr);
  g_free(css);
  gtk_widget_queue_draw(window_);
  if (on_change_) on_change_(dark);
}

void WindowBackground::SetChangeCallback(std::function<void(bool dark)> on_change) {
  on_change_ = std::move(on_change);
  if (on_change_ && applied_) on_change_(dark_);
}

}  // namespace corvane::host
