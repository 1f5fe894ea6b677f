#include "ui/desktop_appearance.h"

#include <gtk/gtk.h>

#include <string_view>

namespace corvane::ui {

namespace {

constexpr const char* kLogDomain = "corvane-ui";
constexpr const char* kPortalName = "org.freedesktop.portal.Desktop";
constexpr const char* kPortalPath = "/org/freedesktop/portal/desktop";
constexpr const char* kSettingsInterface = "org.freedesktop.portal.Settings";
constexpr const char* kAppearanceNamespace = "org.freedesktop.appearance";
constexpr const char* kColorSchemeKey = "color-scheme";
// A portal started on demand can take a while; later answers are awaited, never blocked on.
constexpr int kPortalTimeoutMs = 10000;
// The first answer is waited for, so that the first frame already has the desktop's look; a
// desktop without a portal says so at once, a portal that hangs costs at most this.
constexpr int kFirstAnswerWaitMs = 1000;
constexpr auto kBusFlags = static_cast<GDBusConnectionFlags>(
    G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT | G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION);

bool EndsWithDark(const std::string& name) {
  constexpr std::string_view kSuffix = "-dark";
  return name.size() >= kSuffix.size() &&
         g_ascii_strcasecmp(name.c_str() + name.size() - kSuffix.size(), kSuffix.data()) == 0;
}

// "Read" wraps the value once more than "ReadOne" does.
std::optional<ColorScheme> SchemeFromVariant(GVariant* value) {
  GVariant* v = g_variant_ref(value);
  while (g_variant_is_of_type(v, G_VARIANT_TYPE_VARIANT)) {
    GVariant* inner = g_variant_get_variant(v);
    g_variant_unref(v);
    v = inner;
  }
  std::optional<ColorScheme> scheme;
  if (g_variant_is_of_type(v, G_VARIANT_TYPE_UINT32)) {
    const uint32_t n = g_variant_get_uint32(v);
    // Values a later portal may add mean nothing to us yet.
    scheme = n <= 2 ? static_cast<ColorScheme>(n) : ColorScheme::kNoPreference;
  }
  g_variant_unref(v);
  return scheme;
}

bool SessionBusRunning() {
  if (g_getenv("DBUS_SESSION_BUS_ADDRESS")) return true;
  gchar* socket = g_build_filename(g_get_user_runtime_dir(), "bus", nullptr);
  const bool exists = g_file_test(socket, G_FILE_TEST_EXISTS);
  g_free(socket);
  return exists;
}

// The portal's colour scheme, asked and waited for (at most kFirstAnswerWaitMs); nothing when
// there is no bus or portal, or it did not answer in time.
std::optional<ColorScheme> ReadPortalNow(const std::string& address) {
  GError* error = nullptr;
  GDBusConnection* bus = nullptr;
  if (!address.empty()) {
    bus = g_dbus_connection_new_for_address_sync(address.c_str(), kBusFlags, nullptr, nullptr,
                                                 &error);
  } else if (SessionBusRunning()) {
    bus = g_bus_get_sync(G_BUS_TYPE_SESSION, nullptr, &error);
  }
  g_clear_error(&error);
  if (!bus) return std::nullopt;
  const gint64 deadline = g_get_monotonic_time() + kFirstAnswerWaitMs * 1000;
  std::optional<ColorScheme> scheme;
  // Portals before version 2 know only "Read".
  for (const char* method : {"ReadOne", "Read"}) {
    const int left_ms = static_cast<int>((deadline - g_get_monotonic_time()) / 1000);
    if (left_ms <= 0) break;
    GVariant* reply = g_dbus_connection_call_sync(
        bus, kPortalName, kPortalPath, kSettingsInterface, method,
        g_variant_new("(ss)", kAppearanceNamespace, kColorSchemeKey), G_VARIANT_TYPE("(v)"),
        G_DBUS_CALL_FLAGS_NONE, left_ms, nullptr, &error);
    if (reply) {
      GVariant* value = g_variant_get_child_value(reply, 0);
      scheme = SchemeFromVariant(value);
      g_variant_unref(value);
      g_variant_unref(reply);
      break;
    }
    const bool old_portal = g_error_matches(error, G_DBUS_ERROR, G_DBUS_ERROR_UNKNOWN_METHOD);
    g_log(kLogDomain, G_LOG_LEVEL_DEBUG, "portal colour scheme at start: %s", error->message);
    g_clear_error(&error);
    if (!old_portal) break;
  }
  g_object_unref(bus);
  return scheme;
}

}  // namespace

bool IsDark(AppearanceMode mode, const ThemeSignals& theme) {
  if (mode != AppearanceMode::kSystem) return mode == AppearanceMode::kDark;
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

// The portal's side: watches for its name on the bus, reads the colour scheme whenever it
// appears, and follows SettingChanged.
struct DesktopAppearance::Portal {
  explicit Portal(DesktopAppearance& owner) : owner(owner), cancellable(g_cancellable_new()) {}
  ~Portal() {
    g_cancellable_cancel(cancellable);
    if (watch) g_bus_unwatch_name(watch);
    if (subscription) g_dbus_connection_signal_unsubscribe(connection, subscription);
    if (connection) g_object_unref(connection);
    g_object_unref(cancellable);
  }

  void Connect(const std::string& address) {
    auto on_connection = +[](GObject*, GAsyncResult* result, gpointer data) {
      GError* error = nullptr;
      GDBusConnection* connection = g_dbus_connection_new_for_address_finish(result, &error);
      if (!connection) {
        HandleNoBus(error);
        return;
      }
      static_cast<Portal*>(data)->Watch(connection);
    };
    auto on_bus = +[](GObject*, GAsyncResult* result, gpointer data) {
      GError* error = nullptr;
      GDBusConnection* connection = g_bus_get_finish(result, &error);
      if (!connection) {
        HandleNoBus(error);
        return;
      }
      static_cast<Portal*>(data)->Watch(connection);
    };
    if (!address.empty()) {
      g_dbus_connection_new_for_address(address.c_str(), kBusFlags, nullptr, cancellable,
                                        on_connection, this);
    } else if (SessionBusRunning()) {
      g_bus_get(G_BUS_TYPE_SESSION, cancellable, on_bus, this);
    } else {
      g_log(kLogDomain, G_LOG_LEVEL_DEBUG, "no session bus: the GTK settings decide");
    }
  }

  // Cancelled means the owner is gone; either way nothing is touched.
  static void HandleNoBus(GError* error) {
    if (!g_error_matches(error, G_IO_ERROR, G_IO_ERROR_CANCELLED)) {
      g_log(kLogDomain, G_LOG_LEVEL_DEBUG, "no session bus (%s): the GTK settings decide",
            error->message);
    }
    g_error_free(error);
  }

  void Watch(GDBusConnection* bus) {
    connection = bus;
    subscription = g_dbus_connection_signal_subscribe(
        connection, kPortalName, kSettingsInterface, "SettingChanged", kPortalPath,
        kAppearanceNamespace, G_DBUS_SIGNAL_FLAGS_NONE,
        +[](GDBusConnection*, const gchar*, const gchar*, const gchar*, const gchar*,
            GVariant* parameters, gpointer data) {
          if (!g_variant_is_of_type(parameters, G_VARIANT_TYPE("(ssv)"))) return;
          const gchar* ns = nullptr;
          const gchar* key = nullptr;
          GVariant* value = nullptr;
          g_variant_get(parameters, "(&s&sv)", &ns, &key, &value);
          if (g_strcmp0(ns, kAppearanceNamespace) == 0 && g_strcmp0(key, kColorSchemeKey) == 0) {
            static_cast<Portal*>(data)->owner.OnPortalScheme(SchemeFromVariant(value));
          }
          g_variant_unref(value);
        },
        this, nullptr);
    // A portal that starts on demand is started by asking for it.
    watch = g_bus_watch_name_on_connection(
        connection, kPortalName, G_BUS_NAME_WATCHER_FLAGS_AUTO_START,
        +[](GDBusConnection*, const gchar*, const gchar*, gpointer data) {
          static_cast<Portal*>(data)->Read("ReadOne");
        },
        +[](GDBusConnection*, const gchar*, gpointer data) {
          auto* self = static_cast<Portal*>(data);
          ++self->generation;
          self->owner.OnPortalScheme(std::nullopt);
        },
        this, nullptr);
  }

  struct Pending {
    Portal* portal;
    uint64_t generation;
    bool read_one;
  };

  void Read(const char* method) {
    auto* pending = new Pending{this, ++generation, g_str_equal(method, "ReadOne") != 0};
    g_dbus_connection_call(
        connection, kPortalName, kPortalPath, kSettingsInterface, method,
        g_variant_new("(ss)", kAppearanceNamespace, kColorSchemeKey), G_VARIANT_TYPE("(v)"),
        G_DBUS_CALL_FLAGS_NONE, kPortalTimeoutMs, cancellable,
        +[](GObject* source, GAsyncResult* result, gpointer data) {
          std::unique_ptr<Pending> pending(static_cast<Pending*>(data));
          GError* error = nullptr;
          GVariant* reply =
              g_dbus_connection_call_finish(G_DBUS_CONNECTION(source), result, &error);
          if (!reply) {
            const bool cancelled = g_error_matches(error, G_IO_ERROR, G_IO_ERROR_CANCELLED);
            const bool old_portal =
                g_error_matches(error, G_DBUS_ERROR, G_DBUS_ERROR_UNKNOWN_METHOD);
            if (!cancelled) {
              g_log(kLogDomain, G_LOG_LEVEL_DEBUG, "portal colour scheme: %s", error->message);
            }
            g_error_free(error);
            if (cancelled || pending->generation != pending->portal->generation) return;
            // Portals before version 2 know only "Read".
            if (old_portal && pending->read_one) {
              pending->portal->Read("Read");
            } else {
              pending->portal->owner.OnPortalScheme(ColorScheme::kNoPreference);
            }
            return;
          }
          if (pending->generation == pending->portal->generation) {
            GVariant* value = g_variant_get_child_value(reply, 0);
            pending->portal->owner.OnPortalScheme(
                SchemeFromVariant(value).value_or(ColorScheme::kNoPreference));
            g_variant_unref(value);
          }
          g_variant_unref(reply);
        },
        pending);
  }

  DesktopAppearance& owner;
  GCancellable* cancellable;
  GDBusConnection* connection = nullptr;
  unsigned watch = 0;
  unsigned subscription = 0;
  uint64_t generation = 0;  // replies to reads before the latest are stale
};

DesktopAppearance& DesktopAppearance::Shared() {
  static DesktopAppearance* shared = new DesktopAppearance(Options());
  return *shared;
}

DesktopAppearance::DesktopAppearance(Options options) {
  if (const char* env = g_getenv("GTK_THEME")) theme_.gtk_theme_env = env;
  settings_ = gtk_settings_get_default();
  if (settings_) {
    g_object_ref(settings_);
    settings_handlers_[0] = g_signal_connect(
        settings_, "notify::gtk-theme-name", G_CALLBACK(+[](GObject*, GParamSpec*, gpointer self) {
          static_cast<DesktopAppearance*>(self)->OnSettingsChanged(false);
        }),
        this);
    settings_handlers_[1] =
        g_signal_connect(settings_, "notify::gtk-application-prefer-dark-theme",
                         G_CALLBACK(+[](GObject*, GParamSpec*, gpointer self) {
                           static_cast<DesktopAppearance*>(self)->OnSettingsChanged(true);
                         }),
                         this);
    OnSettingsChanged(true);
  }
  dark_ = IsDark(AppearanceMode::kSystem, theme_);
  // Known before any window draws; the watch below then follows the portal live.
  if (std::optional<ColorScheme> scheme = ReadPortalNow(options.bus_address)) {
    OnPortalScheme(scheme);
  }
  portal_client_ = std::make_unique<Portal>(*this);
  portal_client_->Connect(options.bus_address);
}

DesktopAppearance::~DesktopAppearance() {
  portal_client_.reset();
  if (settings_) {
    for (unsigned long handler : settings_handlers_)
      g_signal_handler_disconnect(settings_, handler);
    g_object_unref(settings_);
  }
}

int DesktopAppearance::AddListener(std::function<void()> listener) {
  listeners_.emplace(next_listener_, std::move(listener));
  return next_listener_++;
}

void DesktopAppearance::RemoveListener(int id) { listeners_.erase(id); }

void DesktopAppearance::OnSettingsChanged(bool prefer_dark_changed) {
  gboolean prefer_dark = FALSE;
  gchar* theme_name = nullptr;
  g_object_get(settings_, "gtk-application-prefer-dark-theme", &prefer_dark, "gtk-theme-name",
               &theme_name, nullptr);
  if (prefer_dark_changed) {
    // Our own write of the theme variant is not the desktop speaking. GObject may deliver its
    // notification late (after a nested set returns), so it is recognised by value.
    if (own_write_pending_ && static_cast<bool>(prefer_dark) == own_write_value_) {
      own_write_pending_ = false;
      g_free(theme_name);
      return;
    }
    own_write_pending_ = false;
    theme_.prefer_dark = prefer_dark;
  }
  theme_.theme_name = theme_name ? theme_name : "";
  g_free(theme_name);
  Recompute();
  // The desktop wrote the very setting a forced window depends on: put the window's back.
  if (prefer_dark_changed && variant_owner_) ApplyThemeVariant(variant_forced_dark_);
}

void DesktopAppearance::OnPortalScheme(std::optional<ColorScheme> scheme) {
  g_log(kLogDomain, G_LOG_LEVEL_DEBUG, "portal colour scheme: %d",
        scheme ? static_cast<int>(*scheme) : -1);
  portal_ = scheme;
  Recompute();
}

void DesktopAppearance::Recompute() {
  bool dark = IsDark(AppearanceMode::kSystem, theme_);
  if (portal_ == ColorScheme::kDark) dark = true;
  if (portal_ == ColorScheme::kLight) dark = false;
  if (dark == dark_) return;
  dark_ = dark;
  // GTK 3 does not read the portal itself: the theme variant is ours to set.
  if (!variant_owner_) ApplyThemeVariant(dark_);
  // A listener may remove itself.
  auto listeners = listeners_;
  for (auto& [id, listener] : listeners) {
    if (listeners_.count(id)) listener();
  }
}

void DesktopAppearance::ForceThemeVariant(const void* owner, bool dark) {
  variant_owner_ = owner;
  variant_forced_dark_ = dark;
  ApplyThemeVariant(dark);
}

void DesktopAppearance::ReleaseThemeVariant(const void* owner) {
  if (variant_owner_ != owner) return;
  variant_owner_ = nullptr;
  ApplyThemeVariant(dark_);
}

void DesktopAppearance::ApplyThemeVariant(bool dark) {
  if (!settings_) return;
  gboolean current = FALSE;
  g_object_get(settings_, "gtk-application-prefer-dark-theme", &current, nullptr);
  if (static_cast<bool>(current) == dark) return;
  own_write_pending_ = true;
  own_write_value_ = dark;
  g_object_set(settings_, "gtk-application-prefer-dark-theme", dark ? TRUE : FALSE, nullptr);
}

}  // namespace corvane::ui
