// The application's information dictionary: a GLib key file whose [Info] group holds values such
// as BundleIdentifier and CorvaneICloudContainer. The host ships a default copy inside its binary;
// --info FILE replaces it as a whole.
#pragma once

#include <map>
#include <optional>
#include <string>

namespace corvane::host {

inline constexpr const char* kBundleIdentifierKey = "BundleIdentifier";
inline constexpr const char* kICloudContainerKey = "CorvaneICloudContainer";

class InfoDictionary {
 public:
  // The copy shipped with the host.
  static InfoDictionary Default();
  // Reads FILE. Nothing, with `error` set, when it cannot be read, is not a key file, or has no
  // [Info] group (almost certainly the wrong file).
  static std::optional<InfoDictionary> Load(const std::string& path, std::string* error);
  // From key-file text; `origin` names it in error messages.
  static std::optional<InfoDictionary> Parse(const std::string& text, const std::string& origin,
                                             std::string* error);

  std::optional<std::string> Get(const std::string& key) const;
  // Where the values came from, for diagnostics.
  const std::string& origin() const { return origin_; }

 private:
  std::string origin_;
  std::map<std::string, std::string> values_;
};

}  // namespace corvane::host
