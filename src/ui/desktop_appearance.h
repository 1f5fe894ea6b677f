// The desktop's light/dark preference, and the one GTK theme variant every window's widgets
// share. The preference comes from the desktop portal's colour scheme on the session bus
// (org.freedesktop.appearance color-scheme, followed live), and from GTK's own settings when
// there is no portal or it states no preference. Main thread only.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>

typedef struct _GDBusConnection GDBusConnection;
typedef struct _GCancellable GCancellable;
typedef struct _GtkSettings GtkSettings;

namespace corvane::ui {

// The look a window follows: the desktop's, or one forced on it.
enum class AppearanceMode { kSystem, kLight, kDark };

// What GTK's settings say about the theme.
struct ThemeSignals {
  bool prefer_dark = false;   // gtk-application-prefer-dark-theme, as the desktop set it
  std::string theme_name;     // gtk-theme-name
  std::string gtk_theme_env;  // $GTK_THEME, which overrides both when set
};

// The one decision, for a window in `mode` when the desktop states nothing beyond `theme`.
bool IsDark(AppearanceMode mode, const ThemeSignals& theme);

// The portal's color-scheme values.
enum class ColorScheme : uint32_t { kNoPreference = 0, kDark = 1, kLight = 2 };

class DesktopAppearance {
 public:
  struct Options {
    // The bus the portal is asked on. Empty: the session bus, when one is running; it is never
    // started just to ask.
    std::string bus_address;
  };

  // The process's own, made on first use.
  static DesktopAppearance& Shared();

  explicit DesktopAppearance(Options options);
  ~DesktopAppearance();
  DesktopAppearance(const DesktopAppearance&) = delete;
  DesktopAppearance& operator=(const DesktopAppearance&) = delete;

  bool dark() const { return dark_; }
  // The portal's last word; nothing while there is no portal.
  std::optional<ColorScheme> portal_scheme() const { return portal_; }

  // Called after the preference flips.
  int AddListener(std::function<void()> listener);
  void RemoveListener(int id);

  // GTK 3 has one theme variant per screen, not per window: the widgets follow the window whose
  // look was forced last, and the desktop again once that window lets go or goes away.
  void ForceThemeVariant(const void* owner, bool dark);
  void ReleaseThemeVariant(const void* owner);

 private:
  struct Portal;
  void OnSettingsChanged(bool prefer_dark_changed);
  void OnPortalScheme(std::optional<ColorScheme> scheme);
  void Recompute();
  void ApplyThemeVariant(bool dark);

  GtkSettings* settings_ = nullptr;
  unsigned long settings_handlers_[2] = {0, 0};
  ThemeSignals theme_;
  // Our last write to prefer-dark, until its notification comes back.
  bool own_write_pending_ = false;
  bool own_write_value_ = false;
  std::optional<ColorScheme> portal_;
  bool dark_ = false;
  const void* variant_owner_ = nullptr;
  bool variant_forced_dark_ = false;
  std::map<int, std::function<void()>> listeners_;
  int next_listener_ = 1;
  std::unique_ptr<Portal> portal_client_;
};

}  // namespace corvane::ui
