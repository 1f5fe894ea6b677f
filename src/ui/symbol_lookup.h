// Finds the image file for a system-symbol name in the icon theme: the user's theme first, then
// Adwaita. The platform's common system-symbol names go through a table to icon-theme names;
// any other name is looked up as given (icon-theme names work too). Main thread only.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

typedef struct _GtkIconTheme GtkIconTheme;

namespace corvane::ui {

// Names of 128 characters or more are refused, as are names that could be read as a path.
inline constexpr size_t kMaxSymbolNameLength = 127;

// True for a name that may be looked up: 1..127 characters of [A-Za-z0-9._-], no "..".
bool IsAcceptableSymbolName(std::string_view name);

// The icon-theme names tried for a system-symbol name, best first; empty when the table has
// no entry. "x.fill" falls back to the entry of "x": icon themes have no filled variants.
const std::vector<std::string>& MappedIconNames(std::string_view symbol);
// Whether the table has `symbol` (or, for "x.fill", "x"); such names mean only what it says.
bool IsMappedSymbol(std::string_view symbol);
// Every system-symbol name in the table.
std::vector<std::string> MappedSymbolNames();

class SymbolLookup {
 public:
  struct Options {
    // The theme asked first; empty: the desktop's (GtkSettings "gtk-icon-theme-name") when a
    // display is open, otherwise Adwaita alone.
    std::string theme;
    // Folders searched before the standard ones (tests bring their own themes).
    std::vector<std::string> extra_search_path;
  };

  SymbolLookup() : SymbolLookup(Options()) {}
  explicit SymbolLookup(Options options);
  ~SymbolLookup();
  SymbolLookup(const SymbolLookup&) = delete;
  SymbolLookup& operator=(const SymbolLookup&) = delete;

  // The file that draws `symbol`, or nothing when the name is refused or no theme has it.
  // Answers are cached until an icon theme changes.
  std::optional<std::string> Find(std::string_view symbol);
  // Forgets a cached answer whose file could not be read (a theme removed meanwhile).
  void Forget(std::string_view symbol);
  // Changes whenever an icon theme changes, so that caches built on answers can be dropped.
  uint64_t generation() const { return generation_; }

 private:
  std::optional<std::string> FindIcon(const std::string& icon_name);
  void Clear() {
    cache_.clear();
    ++generation_;
  }

  std::vector<GtkIconTheme*> themes_;
  std::vector<unsigned long> changed_handlers_;
  std::unordered_map<std::string, std::optional<std::string>> cache_;
  uint64_t generation_ = 0;
};

}  // namespace corvane::ui
