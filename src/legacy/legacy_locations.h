// Where the earlier edition's data lies on this machine. The folders are worked out again for
// every call: a user may copy the old data in while the host runs.
#pragma once

#include <optional>
#include <string>

namespace corvane::legacy {

// The earlier edition's bundle identifier, its preference store under the root and its iCloud
// container, whose local folder name has every "." replaced by "~".
inline constexpr const char* kLegacyBundleIdentifier = "nl.hazelmoor.corvane";
inline constexpr const char* kPreferenceStore = "Library/Preferences/nl.hazelmoor.corvane.plist";
inline constexpr const char* kLegacyContainer = "Library/Containers/nl.hazelmoor.corvane/Data";
inline constexpr const char* kCloudFolder = "Library/Mobile Documents/iCloud~nl~hazelmoor~corvane";
inline constexpr const char* kApplicationFolder = "Corvane";

// What the folders are derived from.
struct LegacyEnvironment {
  std::string bundle_identifier;  // the running application's
  std::string account_home;       // the user's home in the account database
  std::string application_home;   // the home this process was given ($HOME)
  std::string data_home;          // $XDG_DATA_HOME, or ~/.local/share

  // This process's, for the application `bundle_identifier`.
  static LegacyEnvironment Current(std::string bundle_identifier);
};

class LegacyLocations {
 public:
  explicit LegacyLocations(const LegacyEnvironment& environment);

  // The folder holding the earlier edition's data; none when it has no data here.
  const std::optional<std::string>& root() const { return root_; }
  // The preference store; empty without a root.
  std::string store() const;
  // The earlier edition's application folder "Corvane": under the root's Application Support
  // when there is a root, else in the user's data folder.
  std::string application_folder() const;
  // The earlier edition's iCloud container folder.
  const std::string& cloud_folder() const { return cloud_folder_; }

 private:
  std::optional<std::string> root_;
  std::string data_home_;
  std::string cloud_folder_;
};

}  // namespace corvane::legacy
