#include "ui/symbol_lookup.h"

#include <gtk/gtk.h>

#include <map>

namespace corvane::ui {

namespace {

constexpr const char* kLogDomain = "corvane-ui";
constexpr const char* kFallbackTheme = "Adwaita";
// Asking for a size above every fixed-size folder makes GTK choose the scalable SVG over the
// pre-rendered symbolic PNGs, which would blur when scaled up.
constexpr int kLookupSize = 512;
// Names come from the caller: keep the cache from growing with every name ever tried.
constexpr size_t kMaxCachedNames = 512;

using Table = std::map<std::string, std::vector<std::string>, std::less<>>;

const Table& SymbolTable() {
  // System-symbol name -> icon-theme names, best first. Adwaita has every first or second
  // choice; the others are what fuller themes (Papirus, Breeze) call the same picture.
  static const Table table = {
      {"gear", {"emblem-system-symbolic", "preferences-system-symbolic"}},
      {"gearshape", {"emblem-system-symbolic", "preferences-system-symbolic"}},
      {"gearshape.2", {"applications-engineering-symbolic", "emblem-system-symbolic"}},
      {"trash", {"user-trash-symbolic", "edit-delete-symbolic"}},
      {"plus", {"list-add-symbolic"}},
      {"minus", {"list-remove-symbolic"}},
      {"play", {"media-playback-start-symbolic"}},
      {"pause", {"media-playback-pause-symbolic"}},
      {"stop", {"media-playback-stop-symbolic"}},
      {"record.circle", {"media-record-symbolic"}},
      {"forward", {"media-seek-forward-symbolic"}},
      {"backward", {"media-seek-backward-symbolic"}},
      {"xmark", {"window-close-symbolic", "process-stop-symbolic"}},
      {"xmark.circle", {"process-stop-symbolic", "window-close-symbolic"}},
      {"checkmark", {"object-select-symbolic", "emblem-ok-symbolic"}},
      {"checkmark.circle", {"emblem-ok-symbolic", "object-select-symbolic"}},
      {"chevron.left", {"pan-start-symbolic", "go-previous-symbolic"}},
      {"chevron.right", {"pan-end-symbolic", "go-next-symbolic"}},
      {"chevron.up", {"pan-up-symbolic", "go-up-symbolic"}},
      {"chevron.down", {"pan-down-symbolic", "go-down-symbolic"}},
      {"arrow.left", {"go-previous-symbolic"}},
      {"arrow.right", {"go-next-symbolic"}},
      {"arrow.up", {"go-up-symbolic"}},
      {"arrow.down", {"go-down-symbolic"}},
      {"arrow.clockwise", {"view-refresh-symbolic"}},
      {"arrow.counterclockwise", {"edit-undo-symbolic", "view-refresh-symbolic"}},
      {"arrow.uturn.backward", {"edit-undo-symbolic"}},
      {"arrow.uturn.forward", {"edit-redo-symbolic"}},
      {"arrow.left.arrow.right", {"media-playlist-repeat-symbolic"}},
      {"arrow.triangle.branch", {"vcs-branch-symbolic", "media-playlist-shuffle-symbolic"}},
      {"shuffle", {"media-playlist-shuffle-symbolic"}},
      {"repeat", {"media-playlist-repeat-symbolic"}},
      {"magnifyingglass", {"system-search-symbolic", "edit-find-symbolic"}},
      {"lock", {"changes-prevent-symbolic", "system-lock-screen-symbolic"}},
      {"lock.open", {"changes-allow-symbolic"}},
      {"wifi", {"network-wireless-symbolic"}},
      {"wifi.slash", {"network-wireless-offline-symbolic", "network-wireless-disabled-symbolic"}},
      {"network", {"network-transmit-receive-symbolic", "network-wired-symbolic"}},
      {"antenna.radiowaves.left.and.right", {"network-wireless-hotspot-symbolic"}},
      {"bolt", {"bolt-symbolic", "thunderbolt-symbolic", "battery-full-charging-symbolic"}},
      {"lightbulb", {"lightbulb-symbolic", "display-brightness-symbolic"}},
      {"sun.max", {"weather-clear-symbolic", "display-brightness-symbolic"}},
      {"moon", {"weather-clear-night-symbolic"}},
      {"exclamationmark.triangle", {"dialog-warning-symbolic"}},
      {"info.circle", {"dialog-information-symbolic", "help-about-symbolic"}},
      {"questionmark.circle", {"dialog-question-symbolic", "help-browser-symbolic"}},
      {"folder", {"folder-symbolic"}},
      {"folder.badge.plus", {"folder-new-symbolic"}},
      {"doc", {"x-office-document-symbolic", "text-x-generic-symbolic"}},
      {"doc.text", {"text-x-generic-symbolic", "x-office-document-symbolic"}},
      {"doc.on.doc", {"edit-copy-symbolic"}},
      {"doc.badge.plus", {"document-new-symbolic"}},
      {"square.and.arrow.up", {"document-send-symbolic", "send-to-symbolic"}},
      {"square.and.arrow.down", {"document-save-symbolic", "folder-download-symbolic"}},
      {"square.and.pencil", {"document-edit-symbolic"}},
      {"printer", {"printer-symbolic", "document-print-symbolic"}},
      {"camera", {"camera-photo-symbolic", "camera-web-symbolic"}},
      {"video", {"camera-video-symbolic", "camera-web-symbolic"}},
      {"gamecontroller", {"input-gaming-symbolic", "applications-games-symbolic"}},
      {"keyboard", {"input-keyboard-symbolic"}},
      {"speaker.wave.2", {"audio-volume-high-symbolic", "audio-speakers-symbolic"}},
      {"speaker.slash", {"audio-volume-muted-symbolic"}},
      {"bell", {"bell-symbolic", "preferences-system-notifications-symbolic"}},
      {"pencil", {"document-edit-symbolic", "edit-symbolic"}},
      {"star", {"starred-symbolic", "star-new-symbolic"}},
      {"heart", {"emblem-favorite-symbolic"}},
      {"house", {"go-home-symbolic", "user-home-symbolic"}},
      {"list.bullet", {"view-list-bullet-symbolic", "view-list-symbolic"}},
      {"list.number", {"view-list-ordered-symbolic"}},
      {"square.grid.2x2", {"view-grid-symbolic", "view-app-grid-symbolic"}},
      {"slider.horizontal.3", {"preferences-other-symbolic", "emblem-system-symbolic"}},
      {"ellipsis", {"view-more-horizontal-symbolic", "view-more-symbolic"}},
      {"ellipsis.circle", {"view-more-horizontal-symbolic", "view-more-symbolic"}},
      {"power", {"system-shutdown-symbolic"}},
      {"clock", {"preferences-system-time-symbolic", "alarm-symbolic"}},
      {"timer", {"alarm-symbolic", "preferences-system-time-symbolic"}},
      {"calendar", {"x-office-calendar-symbolic"}},
      {"person", {"avatar-default-symbolic", "system-users-symbolic"}},
      {"link", {"insert-link-symbolic"}},
      {"paperclip", {"mail-attachment-symbolic"}},
      {"envelope", {"mail-unread-symbolic"}},
      {"eye", {"view-reveal-symbolic"}},
      {"eye.slash", {"view-conceal-symbolic"}},
      {"externaldrive", {"drive-harddisk-symbolic"}},
      {"cpu", {"computer-chip-symbolic", "application-x-firmware-symbolic"}},
      {"cable.connector", {"network-wired-symbolic"}},
      {"battery.100", {"battery-full-symbolic", "battery-level-100-symbolic"}},
      {"battery.25", {"battery-low-symbolic", "battery-level-20-symbolic"}},
      {"battery.0", {"battery-empty-symbolic", "battery-level-0-symbolic"}},
      // Railway control: locomotives, routes, signals and points, where a theme draws them.
      // No car or bus in place of a train: without a theme that draws one, the answer is null.
      {"tram", {"train-symbolic", "tram-symbolic", "rail-symbolic"}},
      {"train.side.front.car", {"train-symbolic", "tram-symbolic", "rail-symbolic"}},
      {"cablecar", {"tram-symbolic", "train-symbolic"}},
      {"map", {"map-symbolic", "find-location-symbolic"}},
      {"mappin", {"mark-location-symbolic", "find-location-symbolic"}},
      {"location", {"find-location-symbolic"}},
      {"point.topleft.down.curvedto.point.bottomright.up",
       {"vcs-branch-symbolic", "media-playlist-shuffle-symbolic"}},
      {"light.beacon.max", {"dialog-warning-symbolic"}},
      {"exclamationmark.octagon", {"process-stop-symbolic", "dialog-error-symbolic"}},
      {"hand.raised", {"action-unavailable-symbolic", "process-stop-symbolic"}},
      {"speedometer", {"power-profile-performance-symbolic"}},
      {"gauge", {"power-profile-balanced-symbolic"}},
      {"powerplug", {"ac-adapter-symbolic", "uninterruptible-power-supply-symbolic"}},
  };
  return table;
}

bool EndsWith(std::string_view s, std::string_view suffix) {
  return s.size() >= suffix.size() && s.substr(s.size() - suffix.size()) == suffix;
}

}  // namespace

bool IsAcceptableSymbolName(std::string_view name) {
  if (name.empty() || name.size() > kMaxSymbolNameLength) return false;
  if (name.find("..") != std::string_view::npos) return false;
  for (char c : name) {
    if (!g_ascii_isalnum(c) && c != '.' && c != '_' && c != '-') return false;
  }
  return true;
}

const std::vector<std::string>& MappedIconNames(std::string_view symbol) {
  static const std::vector<std::string> none;
  const Table& table = SymbolTable();
  auto it = table.find(symbol);
  if (it == table.end() && EndsWith(symbol, ".fill")) {
    it = table.find(symbol.substr(0, symbol.size() - 5));
  }
  return it == table.end() ? none : it->second;
}

std::vector<std::string> MappedSymbolNames() {
  std::vector<std::string> names;
  for (const auto& [name, icons] : SymbolTable()) names.push_back(name);
  return names;
}

SymbolLookup::SymbolLookup(Options options) {
  auto add_theme = [&](GtkIconTheme* theme) {
    for (const std::string& dir : options.extra_search_path) {
      gtk_icon_theme_prepend_search_path(theme, dir.c_str());
    }
    themes_.push_back(theme);
  };
  auto custom = [](const std::string& name) {
    GtkIconTheme* theme = gtk_icon_theme_new();
    gtk_icon_theme_set_custom_theme(theme, name.c_str());
    return theme;
  };
  if (!options.theme.empty()) {
    add_theme(custom(options.theme));
  } else if (gdk_screen_get_default() != nullptr) {
    // The desktop's theme, following the user's changes to it.
    add_theme(GTK_ICON_THEME(g_object_ref(gtk_icon_theme_get_default())));
  }
  if (options.theme != kFallbackTheme) add_theme(custom(kFallbackTheme));
  for (GtkIconTheme* theme : themes_) {
    changed_handlers_.push_back(g_signal_connect_swapped(
        theme, "changed", G_CALLBACK(+[](SymbolLookup* self) { self->Clear(); }), this));
  }
}

SymbolLookup::~SymbolLookup() {
  for (size_t i = 0; i < themes_.size(); ++i) {
    g_signal_handler_disconnect(themes_[i], changed_handlers_[i]);
    g_object_unref(themes_[i]);
  }
}

std::optional<std::string> SymbolLookup::Find(std::string_view symbol) {
  // Refused before any theme sees it: a name is never a path.
  if (!IsAcceptableSymbolName(symbol)) return std::nullopt;
  const std::string key(symbol);
  if (auto hit = cache_.find(key); hit != cache_.end()) return hit->second;

  std::vector<std::string> candidates;
  if (!EndsWith(symbol, "-symbolic")) candidates.push_back(key + "-symbolic");
  candidates.push_back(key);
  for (const std::string& mapped : MappedIconNames(symbol)) candidates.push_back(mapped);

  std::optional<std::string> found;
  for (const std::string& name : candidates) {
    found = FindIcon(name);
    if (found) break;
  }
  if (cache_.size() >= kMaxCachedNames) cache_.clear();
  cache_.emplace(key, found);
  g_log(kLogDomain, G_LOG_LEVEL_DEBUG, "symbol %s: %s", key.c_str(),
        found ? found->c_str() : "not found");
  return found;
}

void SymbolLookup::Forget(std::string_view symbol) { cache_.erase(std::string(symbol)); }

std::optional<std::string> SymbolLookup::FindIcon(const std::string& icon_name) {
  for (GtkIconTheme* theme : themes_) {
    GtkIconInfo* info = gtk_icon_theme_lookup_icon(theme, icon_name.c_str(), kLookupSize,
                                                   GTK_ICON_LOOKUP_FORCE_SVG);
    if (!info) continue;
    const char* file = gtk_icon_info_get_filename(info);
    std::optional<std::string> path;
    if (file) path = file;
    g_object_unref(info);
    if (path) return path;
  }
  return std::nullopt;
}

}  // namespace corvane::ui
