#include "host/info_dictionary.h"

#include <gio/gio.h>

#include "host/resources.h"

namespace corvane::host {

namespace {
constexpr const char* kGroup = "Info";
}  // namespace

InfoDictionary InfoDictionary::Default() {
  EnsureHostResources();
  GBytes* bytes =
      g_resources_lookup_data(kDefaultInfoResource, G_RESOURCE_LOOKUP_FLAGS_NONE, nullptr);
  // The resource is compiled in; not finding it is a broken build, not a runtime condition.
  g_assert(bytes != nullptr);
  gsize size = 0;
  const auto* data = static_cast<const char*>(g_bytes_get_data(bytes, &size));
  std::string error;
  auto info = Parse(std::string(data, size), "built-in Info.conf", &error);
  g_bytes_unref(bytes);
  g_assert(info.has_value());
  return *info;
}

std::optional<InfoDictionary> InfoDictionary::Load(const std::string& path, std::string* error) {
  gchar* contents = nullptr;
  gsize size = 0;
  GError* gerror = nullptr;
  if (!g_file_get_contents(path.c_str(), &contents, &size, &gerror)) {
    *error = gerror->message;
    g_error_free(gerror);
    return std::nullopt;
  }
  std::string text(contents, size);
  g_free(contents);
  return Parse(text, path, error);
}

std::optional<InfoDictionary> InfoDictionary::Parse(const std::string& text,
                                                    const std::string& origin, std::string* error) {
  GKeyFile* file = g_key_file_new();
  GError* gerror = nullptr;
  if (!g_key_file_load_from_data(file, text.data(), text.size(), G_KEY_FILE_NONE, &gerror)) {
    *error = origin + ": " + gerror->message;
    g_error_free(gerror);
    g_key_file_free(file);
    return std::nullopt;
  }
  if (!g_key_file_has_group(file, kGroup)) {
    *error = origin + ": no [" + kGroup + "] group";
    g_key_file_free(file);
    return std::nullopt;
  }
  InfoDictionary info;
  info.origin_ = origin;
  gchar** keys = g_key_file_get_keys(file, kGroup, nullptr, nullptr);
  for (gchar** key = keys; key && *key; ++key) {
    // get_string undoes the key file's escapes (\n, \s, ...); a value that fails to unescape is
    // left out, as if the key were missing.
    gchar* value = g_key_file_get_string(file, kGroup, *key, nullptr);
    if (value) info.values_[*key] = value;
    g_free(value);
  }
  g_strfreev(keys);
  g_key_file_free(file);
  return info;
}

std::optional<std::string> InfoDictionary::Get(const std::string& key) const {
  auto it = values_.find(key);
  if (it == values_.end()) return std::nullopt;
  return it->second;
}

}  // namespace corvane::host
