#include "cloud/sync_clients.h"

#include <glib.h>

#include <cstring>
#include <fstream>
#include <sstream>

#include "json/json_mapping.h"

namespace corvane::cloud {

namespace {

constexpr size_t kMaxConfigBytes = 4 * 1024 * 1024;  // larger is not a client's own file
constexpr const char* kSettingsGroup = "containers";

std::optional<std::string> ReadSmallFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  if (!in) return std::nullopt;
  std::string text;
  char buffer[16384];
  while (in.read(buffer, sizeof buffer) || in.gcount() > 0) {
    text.append(buffer, static_cast<size_t>(in.gcount()));
    if (text.size() > kMaxConfigBytes) return std::nullopt;
  }
  return text;
}

std::string ExpandHome(const ClientPaths& paths, std::string path) {
  if (path == "~") return paths.home;
  if (path.rfind("~/", 0) == 0) return paths.home + path.substr(1);
  return path;
}

std::string WithoutTrailingSlash(std::string path) {
  while (path.size() > 1 && path.back() == '/') path.pop_back();
  return path;
}

std::string Trim(const std::string& s) {
  const size_t b = s.find_first_not_of(" \t\r");
  if (b == std::string::npos) return "";
  return s.substr(b, s.find_last_not_of(" \t\r") - b + 1);
}

// The desktop clients write their settings with Qt's INI format: "[Accounts]" and keys such as
// "0\Folders\1\localPath" or "0\dav_user"; values may be quoted.
std::map<std::string, std::string> ReadQtIniGroup(const std::string& text,
                                                  const std::string& group) {
  std::map<std::string, std::string> values;
  std::istringstream lines(text);
  std::string line, current;
  while (std::getline(lines, line)) {
    line = Trim(line);
    if (line.empty() || line[0] == ';' || line[0] == '#') continue;
    if (line.front() == '[' && line.back() == ']') {
      current = line.substr(1, line.size() - 2);
      continue;
    }
    const size_t eq = line.find('=');
    if (current != group || eq == std::string::npos) continue;
    std::string value = Trim(line.substr(eq + 1));
    if (value.size() >= 2 && value.front() == '"' && value.back() == '"') {
      value = value.substr(1, value.size() - 2);
    }
    values[Trim(line.substr(0, eq))] = value;
  }
  return values;
}

void AddDesktopClientRoots(const ClientPaths& paths, const std::string& file, SyncClientKind kind,
                           std::vector<SyncRoot>& roots) {
  auto text = ReadSmallFile(file);
  if (!text) return;
  const auto accounts = ReadQtIniGroup(*text, "Accounts");
  auto account_value = [&](const std::string& n, const char* key) {
    auto it = accounts.find(n + "\\" + key);
    return it == accounts.end() ? std::string() : it->second;
  };
  for (const auto& [key, value] : accounts) {
    // N\Folders\M\localPath, also under FoldersWithPlaceholders and Multifolders
    const size_t first = key.find('\\');
    if (first == std::string::npos || value.empty()) continue;
    const std::string suffix = "\\localPath";
    if (key.size() <= suffix.size() ||
        key.compare(key.size() - suffix.size(), suffix.size(), suffix) != 0) {
      continue;
    }
    const std::string n = key.substr(0, first);
    std::string user = account_value(n, "dav_user");
    if (user.empty()) user = account_value(n, "user");
    roots.push_back(SyncRoot{kind, account_value(n, "url") + " " + user,
                             WithoutTrailingSlash(ExpandHome(paths, value))});
  }
}

std::string SyncthingConfigFile(const ClientPaths& paths) {
  // Syncthing moved its home from the config to the state folder; the newer place wins.
  for (const auto& base : {paths.state_home, paths.config_home}) {
    std::string file = base + "/syncthing/config.xml";
    if (g_file_test(file.c_str(), G_FILE_TEST_IS_REGULAR)) return file;
  }
  return paths.config_home + "/syncthing/config.xml";
}

struct SyncthingParse {
  SyncthingSetup setup;
  std::vector<std::string> stack;
};

const char* Attribute(const char** names, const char** values, const char* wanted) {
  for (int i = 0; names[i]; ++i) {
    if (std::strcmp(names[i], wanted) == 0) return values[i];
  }
  return nullptr;
}

void SyncthingStart(GMarkupParseContext*, const gchar* element, const gchar** names,
                    const gchar** values, gpointer data, GError**) {
  auto& parse = *static_cast<SyncthingParse*>(data);
  parse.stack.emplace_back(element);
  if (parse.stack.size() != 2 || parse.stack[0] != "configuration") return;
  const std::string name(element);
  if (name == "folder") {
    const char* id = Attribute(names, values, "id");
    const char* path = Attribute(names, values, "path");
    if (id && path) parse.setup.folders.push_back({id, path});
  } else if (name == "device") {
    const char* id = Attribute(names, values, "id");
    const char* device_name = Attribute(names, values, "name");
    if (id) parse.setup.device_names[id] = device_name ? device_name : "";
  } else if (name == "gui") {
    const char* tls = Attribute(names, values, "tls");
    parse.setup.api_tls = tls && std::strcmp(tls, "true") == 0;
  }
}

void SyncthingEnd(GMarkupParseContext*, const gchar*, gpointer data, GError**) {
  auto& parse = *static_cast<SyncthingParse*>(data);
  if (!parse.stack.empty()) parse.stack.pop_back();
}

void SyncthingText(GMarkupParseContext*, const gchar* text, gsize length, gpointer data, GError**) {
  auto& parse = *static_cast<SyncthingParse*>(data);
  if (parse.stack.size() != 3 || parse.stack[1] != "gui") return;
  const std::string value = Trim(std::string(text, length));
  if (parse.stack[2] == "address") parse.setup.api_address = value;
  if (parse.stack[2] == "apikey") parse.setup.api_key = value;
}

// The device id is derived from the device's certificate; its SHA-256 names the device just
// as well for telling one device from another.
std::string CertificateDigest(const std::string& pem_file) {
  auto pem = ReadSmallFile(pem_file);
  if (!pem) return "";
  const size_t begin = pem->find("-----BEGIN CERTIFICATE-----");
  const size_t end = pem->find("-----END CERTIFICATE-----");
  if (begin == std::string::npos || end == std::string::npos || end < begin) return "";
  std::string body = pem->substr(begin + 27, end - begin - 27);
  gsize length = 0;
  guchar* der = g_base64_decode(body.c_str(), &length);
  gchar* digest = g_compute_checksum_for_data(G_CHECKSUM_SHA256, der, length);
  std::string result = length > 0 ? digest : "";
  g_free(digest);
  g_free(der);
  return result;
}

void AddSyncthingRoots(const ClientPaths& paths, std::vector<SyncRoot>& roots) {
  auto setup = ReadSyncthingSetup(paths);
  if (!setup) return;
  for (const auto& folder : setup->folders) {
    roots.push_back(SyncRoot{SyncClientKind::kSyncthing, setup->own_device, folder.path});
  }
}

void AddDropboxRoots(const ClientPaths& paths, std::vector<SyncRoot>& roots) {
  auto text = ReadSmallFile(paths.home + "/.dropbox/info.json");
  if (!text) return;
  auto parsed = json::ParseJsonValue(*text);
  const channel::ValueMap* info = parsed.value ? parsed.value->map_if() : nullptr;
  if (!info) return;
  for (const char* account : {"personal", "business"}) {
    const channel::Value* entry = info->Find(account);
    const channel::ValueMap* map = entry ? entry->map_if() : nullptr;
    const channel::Value* path = map ? map->Find("path") : nullptr;
    if (!path || !path->string_if() || path->string_if()->empty()) continue;
    const channel::Value* host = map->Find("host");
    std::string id = account;
    if (host && host->integer()) id += " " + std::to_string(*host->integer());
    roots.push_back(SyncRoot{SyncClientKind::kDropbox, id,
                             WithoutTrailingSlash(ExpandHome(paths, *path->string_if()))});
  }
}

std::string EnvOr(const char* name, const std::string& fallback) {
  const char* value = g_getenv(name);
  return value && *value == '/' ? value : fallback;
}

}  // namespace

ClientPaths ClientPaths::FromEnvironment() {
  ClientPaths paths;
  paths.home = g_get_home_dir();
  paths.config_home = EnvOr("XDG_CONFIG_HOME", paths.home + "/.config");
  paths.state_home = EnvOr("XDG_STATE_HOME", paths.home + "/.local/state");
  paths.runtime_dir = EnvOr("XDG_RUNTIME_DIR", "");
  return paths;
}

std::string ClientPaths::SettingsFile() const { return config_home + "/corvane/cloud.conf"; }

std::optional<std::string> ConfiguredFolder(const ClientPaths& paths,
                                            const std::string& container_id) {
  GKeyFile* file = g_key_file_new();
  std::optional<std::string> folder;
  if (g_key_file_load_from_file(file, paths.SettingsFile().c_str(), G_KEY_FILE_NONE, nullptr)) {
    gchar* value = g_key_file_get_string(file, kSettingsGroup, container_id.c_str(), nullptr);
    // Only an absolute folder (or one below "~/") means the same wherever the host starts.
    std::string path = value ? ExpandHome(paths, Trim(value)) : "";
    if (!path.empty() && path[0] == '/') folder = WithoutTrailingSlash(path);
    g_free(value);
  }
  g_key_file_free(file);
  return folder;
}

std::optional<SyncthingSetup> ReadSyncthingSetup(const ClientPaths& paths) {
  const std::string file = SyncthingConfigFile(paths);
  auto text = ReadSmallFile(file);
  if (!text) return std::nullopt;
  SyncthingParse parse;
  GMarkupParser parser{SyncthingStart, SyncthingEnd, SyncthingText, nullptr, nullptr};
  GMarkupParseContext* context = g_markup_parse_context_new(&parser, {}, &parse, nullptr);
  const bool ok = g_markup_parse_context_parse(context, text->data(),
                                               static_cast<gssize>(text->size()), nullptr) &&
                  g_markup_parse_context_end_parse(context, nullptr);
  g_markup_parse_context_free(context);
  if (!ok) return std::nullopt;
  for (auto& folder : parse.setup.folders) {
    folder.path = WithoutTrailingSlash(ExpandHome(paths, folder.path));
  }
  gchar* dir = g_path_get_dirname(file.c_str());
  parse.setup.own_device = CertificateDigest(std::string(dir) + "/cert.pem");
  g_free(dir);
  return parse.setup;
}

std::vector<SyncRoot> DetectSyncRoots(const ClientPaths& paths) {
  std::vector<SyncRoot> roots;
  AddDesktopClientRoots(paths, paths.config_home + "/Nextcloud/nextcloud.cfg",
                        SyncClientKind::kNextcloud, roots);
  AddDesktopClientRoots(paths, paths.config_home + "/ownCloud/owncloud.cfg",
                        SyncClientKind::kOwncloud, roots);
  AddSyncthingRoots(paths, roots);
  AddDropboxRoots(paths, roots);
  return roots;
}

std::vector<std::string> ConfigurationFiles(const ClientPaths& paths) {
  return {paths.SettingsFile(),
          paths.config_home + "/Nextcloud/nextcloud.cfg",
          paths.config_home + "/ownCloud/owncloud.cfg",
          paths.state_home + "/syncthing/config.xml",
          paths.config_home + "/syncthing/config.xml",
          paths.home + "/.dropbox/info.json"};
}

std::string KindName(SyncClientKind kind) {
  switch (kind) {
    case SyncClientKind::kFolder:
      return "folder";
    case SyncClientKind::kNextcloud:
      return "nextcloud";
    case SyncClientKind::kOwncloud:
      return "owncloud";
    case SyncClientKind::kSyncthing:
      return "syncthing";
    case SyncClientKind::kDropbox:
      return "dropbox";
  }
  return "folder";
}

}  // namespace corvane::cloud
