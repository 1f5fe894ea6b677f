#include "legacy/legacy_locations.h"

#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <vector>

namespace corvane::legacy {

namespace {

std::string Join(const std::string& folder, const std::string& name) {
  if (folder.empty() || folder.back() == '/') return folder + name;
  return folder + "/" + name;
}

bool IsFolder(const std::string& path) {
  struct stat st {};
  return stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

// From the account database, not $HOME: the data belongs to the account, whatever the
// environment of this process says.
std::string AccountHome() {
  long size = sysconf(_SC_GETPW_R_SIZE_MAX);
  std::vector<char> buffer(size > 0 ? static_cast<size_t>(size) : 16384);
  passwd entry{};
  passwd* found = nullptr;
  if (getpwuid_r(getuid(), &entry, buffer.data(), buffer.size(), &found) == 0 && found &&
      found->pw_dir) {
    return found->pw_dir;
  }
  return {};
}

std::string AbsoluteEnv(const char* name) {
  const char* v = std::getenv(name);
  return v && v[0] == '/' ? std::string(v) : std::string();
}

}  // namespace

LegacyEnvironment LegacyEnvironment::Current(std::string bundle_identifier) {
  LegacyEnvironment env;
  env.bundle_identifier = std::move(bundle_identifier);
  env.account_home = AccountHome();
  env.application_home = AbsoluteEnv("HOME");
  if (env.application_home.empty()) env.application_home = env.account_home;
  env.data_home = AbsoluteEnv("XDG_DATA_HOME");
  if (env.data_home.empty()) env.data_home = Join(env.application_home, ".local/share");
  return env;
}

LegacyLocations::LegacyLocations(const LegacyEnvironment& env) : data_home_(env.data_home) {
  // Without a home there is nowhere to look; never fall back to the working folder.
  if (!env.account_home.empty()) cloud_folder_ = Join(env.account_home, kCloudFolder);
  if (env.bundle_identifier == kLegacyBundleIdentifier) {
    // Running as the earlier edition itself: its data is in its own home.
    if (!env.application_home.empty()) root_ = env.application_home;
  } else if (!env.account_home.empty()) {
    const std::string container = Join(env.account_home, kLegacyContainer);
    if (IsFolder(container)) root_ = container;
  }
}

std::string LegacyLocations::store() const {
  return root_ ? Join(*root_, kPreferenceStore) : std::string();
}

std::string LegacyLocations::application_folder() const {
  if (root_) return Join(Join(*root_, "Library/Application Support"), kApplicationFolder);
  return data_home_.empty() ? std::string() : Join(data_home_, kApplicationFolder);
}

}  // namespace corvane::legacy
