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
  // System-symbol name -> icon-theme names, best first. Every picture was checked by eye
  // against the name's meaning (corvane-symbol-sheet draws them all): a name whose meaning no
  // installed theme draws lists only what fuller themes call it, or nothing, and answers null
  // rather than a picture of something else. Outline names do not take filled pictures.
  static const Table table = {
      // Editing.
      {"scissors", {"edit-cut-symbolic"}},
      {"doc.on.doc", {"edit-copy-symbolic"}},
      {"doc.on.clipboard", {"edit-paste-symbolic"}},
      {"clipboard", {"edit-paste-symbolic"}},
      {"pencil", {"document-edit-symbolic", "edit-symbolic"}},
      {"square.and.pencil", {"document-edit-symbolic"}},
      {"trash", {"user-trash-symbolic"}},
      {"delete.left", {"edit-clear-symbolic"}},
      {"arrow.uturn.backward", {"edit-undo-symbolic"}},
      {"arrow.uturn.forward", {"edit-redo-symbolic"}},
      {"magnifyingglass", {"system-search-symbolic", "edit-find-symbolic"}},
      {"plus.magnifyingglass", {"zoom-in-symbolic"}},
      {"minus.magnifyingglass", {"zoom-out-symbolic"}},
      {"bold", {"format-text-bold-symbolic"}},
      {"italic", {"format-text-italic-symbolic"}},
      {"underline", {"format-text-underline-symbolic"}},
      {"strikethrough", {"format-text-strikethrough-symbolic"}},
      {"text.alignleft", {"format-justify-left-symbolic"}},
      {"text.aligncenter", {"format-justify-center-symbolic"}},
      {"text.alignright", {"format-justify-right-symbolic"}},
      {"text.justify", {"format-justify-fill-symbolic"}},
      {"increase.indent", {"format-indent-more-symbolic"}},
      {"decrease.indent", {"format-indent-less-symbolic"}},
      {"eyedropper", {"color-select-symbolic"}},
      {"rotate.left", {"object-rotate-left-symbolic"}},
      {"rotate.right", {"object-rotate-right-symbolic"}},
      {"plus", {"list-add-symbolic"}},
      {"minus", {"list-remove-symbolic"}},
      {"plus.square", {"tab-new-symbolic"}},
      {"checkmark", {"object-select-symbolic"}},
      {"checkmark.circle", {"selection-mode-symbolic"}},
      {"checkmark.circle.fill", {"emblem-default-symbolic"}},
      {"xmark", {"process-stop-symbolic"}},
      {"xmark.circle", {"edit-delete-symbolic"}},
      {"nosign", {"action-unavailable-symbolic"}},
      // Files.
      {"folder", {"folder-symbolic"}},
      {"folder.badge.plus", {"folder-new-symbolic"}},
      {"doc", {"text-x-generic-symbolic"}},
      {"doc.text", {"x-office-document-symbolic"}},
      {"doc.badge.plus", {"document-new-symbolic"}},
      {"square.and.arrow.down", {"document-save-symbolic"}},
      {"printer", {"printer-symbolic", "document-print-symbolic"}},
      {"externaldrive", {"drive-harddisk-symbolic"}},
      {"server.rack", {"network-server-symbolic"}},
      {"archivebox", {"package-x-generic-symbolic"}},
      {"shippingbox", {"package-x-generic-symbolic"}},
      {"clock.arrow.circlepath", {"document-open-recent-symbolic"}},
      {"photo", {"image-x-generic-symbolic"}},
      {"music.note", {"audio-x-generic-symbolic"}},
      {"bookmark", {"user-bookmarks-symbolic"}},
      {"paperclip", {"mail-attachment-symbolic"}},
      {"link", {"insert-link-symbolic"}},
      {"calendar", {"x-office-calendar-symbolic"}},
      // Sharing and messages.
      {"square.and.arrow.up", {"send-to-symbolic", "document-send-symbolic"}},
      {"envelope", {"mail-unread-symbolic"}},
      {"envelope.open", {"mail-read-symbolic"}},
      {"arrowshape.turn.up.left", {"mail-reply-sender-symbolic"}},
      {"arrowshape.turn.up.left.2", {"mail-reply-all-symbolic"}},
      {"arrowshape.turn.up.right", {"mail-forward-symbolic"}},
      {"person", {"avatar-default-symbolic"}},
      {"person.2", {"system-users-symbolic"}},
      {"bell", {"preferences-system-notifications-symbolic"}},
      {"bell.slash", {"notifications-disabled-symbolic"}},
      {"arrow.triangle.2.circlepath", {"emblem-synchronizing-symbolic"}},
      // Media.
      {"play", {"media-playback-start-symbolic"}},
      {"pause", {"media-playback-pause-symbolic"}},
      {"stop", {"media-playback-stop-symbolic"}},
      {"record.circle", {"media-record-symbolic"}},
      {"forward", {"media-seek-forward-symbolic"}},
      {"backward", {"media-seek-backward-symbolic"}},
      {"forward.end", {"media-skip-forward-symbolic"}},
      {"backward.end", {"media-skip-backward-symbolic"}},
      {"eject", {"media-eject-symbolic"}},
      {"shuffle", {"media-playlist-shuffle-symbolic"}},
      {"repeat", {"media-playlist-repeat-symbolic"}},
      {"repeat.1", {"media-playlist-repeat-song-symbolic"}},
      {"captions.bubble", {"media-view-subtitles-symbolic"}},
      {"speaker.slash", {"audio-volume-muted-symbolic"}},
      {"speaker.wave.1", {"audio-volume-low-symbolic"}},
      {"speaker.wave.2", {"audio-volume-medium-symbolic"}},
      {"speaker.wave.3", {"audio-volume-high-symbolic"}},
      {"mic", {"audio-input-microphone-symbolic"}},
      {"mic.slash", {"microphone-disabled-symbolic"}},
      {"headphones", {"audio-headphones-symbolic"}},
      {"camera", {"camera-photo-symbolic"}},
      {"video", {"camera-video-symbolic"}},
      // Navigation and views. The theme's "go" arrows are chevrons; arrows with a shaft it has
      // none of, so the arrows take them too.
      {"chevron.left", {"go-previous-symbolic"}},
      {"chevron.right", {"go-next-symbolic"}},
      {"chevron.up", {"go-up-symbolic"}},
      {"chevron.down", {"go-down-symbolic"}},
      {"arrow.left", {"go-previous-symbolic"}},
      {"arrow.right", {"go-next-symbolic"}},
      {"arrow.up", {"go-up-symbolic"}},
      {"arrow.down", {"go-down-symbolic"}},
      {"arrow.up.to.line", {"go-top-symbolic"}},
      {"arrow.down.to.line", {"go-bottom-symbolic"}},
      {"arrow.clockwise", {"view-refresh-symbolic"}},
      {"arrow.counterclockwise", {"object-rotate-left-symbolic"}},
      {"arrow.left.arrow.right", {"network-transmit-receive-symbolic"}},
      {"arrow.up.left.and.arrow.down.right", {"view-fullscreen-symbolic"}},
      {"arrow.down.right.and.arrow.up.left", {"view-restore-symbolic"}},
      {"arrow.triangle.branch", {"vcs-branch-symbolic"}},
      {"house", {"go-home-symbolic", "user-home-symbolic"}},
      {"line.3.horizontal", {"open-menu-symbolic"}},
      {"sidebar.left", {"sidebar-show-symbolic"}},
      {"sidebar.right", {"sidebar-show-right-symbolic"}},
      {"pin", {"view-pin-symbolic"}},
      {"list.bullet", {"view-list-bullet-symbolic", "view-list-symbolic"}},
      {"list.number", {"view-list-ordered-symbolic"}},
      {"square.grid.2x2", {"view-grid-symbolic"}},
      {"ellipsis", {"view-more-horizontal-symbolic"}},
      {"ellipsis.circle", {"view-more-horizontal-symbolic"}},
      {"rectangle.portrait.and.arrow.right", {"system-log-out-symbolic"}},
      {"mappin", {"mark-location-symbolic"}},
      {"location", {"find-location-symbolic"}},
      {"map", {"map-symbolic"}},
      // System and status.
      {"gear", {"emblem-system-symbolic", "preferences-system-symbolic"}},
      {"gearshape", {"emblem-system-symbolic"}},
      {"gearshape.2", {"emblem-system-symbolic"}},
      {"wrench.and.screwdriver", {"preferences-system-symbolic"}},
      {"info.circle", {"help-about-symbolic"}},
      {"questionmark.circle", {"dialog-question-symbolic", "help-browser-symbolic"}},
      {"exclamationmark.circle.fill", {"emblem-important-symbolic"}},
      {"exclamationmark.triangle.fill", {"dialog-warning-symbolic"}},
      // Adwaita draws its bulb as the information sign.
      {"lightbulb", {"lightbulb-symbolic", "dialog-information-symbolic"}},
      {"sun.max", {"weather-clear-symbolic"}},
      {"moon", {"weather-clear-night-symbolic"}},
      {"cloud.bolt", {"weather-storm-symbolic"}},
      {"lock", {"changes-prevent-symbolic", "system-lock-screen-symbolic"}},
      {"lock.open", {"changes-allow-symbolic"}},
      {"wifi", {"network-wireless-symbolic"}},
      {"wifi.slash", {"network-wireless-offline-symbolic", "network-wireless-disabled-symbolic"}},
      {"network", {"network-wired-symbolic"}},
      {"power", {"system-shutdown-symbolic"}},
      {"clock", {"preferences-system-time-symbolic"}},
      {"alarm", {"alarm-symbolic"}},
      {"timer", {"alarm-symbolic"}},
      {"star", {"non-starred-symbolic"}},
      {"star.fill", {"starred-symbolic"}},
      {"heart", {"emblem-favorite-symbolic"}},
      {"eye", {"view-reveal-symbolic"}},
      {"eye.slash", {"view-conceal-symbolic"}},
      {"keyboard", {"input-keyboard-symbolic"}},
      {"gamecontroller", {"input-gaming-symbolic"}},
      {"battery.100", {"battery-full-symbolic", "battery-level-100-symbolic"}},
      {"battery.100.bolt", {"battery-full-charging-symbolic"}},
      {"battery.25", {"battery-low-symbolic", "battery-level-20-symbolic"}},
      {"battery.0", {"battery-empty-symbolic", "battery-level-0-symbolic"}},
      {"speedometer", {"power-profile-performance-symbolic"}},
      {"gauge", {"power-profile-balanced-symbolic"}},
      {"cpu", {"computer-chip-symbolic"}},
      // A lightning bolt: the theme's "bolt" and "thunderbolt" are the Thunderbolt port's logo.
      {"bolt", {}},
      // Railway control: locomotives and routes, where a theme draws them. No car or bus in
      // place of a train: without a theme that draws one, the answer is null.
      {"tram", {"train-symbolic", "tram-symbolic", "rail-symbolic"}},
      {"train.side.front.car", {"train-symbolic", "tram-symbolic", "rail-symbolic"}},
      {"cablecar", {"tram-symbolic", "train-symbolic"}},
      {"car", {"emoji-travel-symbolic"}},
      {"point.topleft.down.curvedto.point.bottomright.up", {"vcs-branch-symbolic"}},
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

bool IsMappedSymbol(std::string_view symbol) {
  const Table& table = SymbolTable();
  return table.count(symbol) ||
         (EndsWith(symbol, ".fill") && table.count(symbol.substr(0, symbol.size() - 5)));
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

  // A name of the table means what the table says; the theme may use the same word for
  // something else ("bolt" is the Thunderbolt logo there). Other names are icon-theme names.
  std::vector<std::string> candidates = MappedIconNames(symbol);
  if (!IsMappedSymbol(symbol)) {
    if (!EndsWith(symbol, "-symbolic")) candidates.push_back(key + "-symbolic");
    candidates.push_back(key);
  }

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
