#include "cloud/paths.h"

#include <glib.h>

#include <cstdlib>

namespace corvane::cloud {

std::string Dirname(const std::string& path) {
  gchar* dir = g_path_get_dirname(path.c_str());
  std::string result(dir);
  g_free(dir);
  return result;
}

std::string Basename(const std::string& path) {
  gchar* base = g_path_get_basename(path.c_str());
  std::string result(base);
  g_free(base);
  return result;
}

std::string RealPath(const std::string& path) {
  char* real = realpath(path.c_str(), nullptr);
  if (!real) return path;
  std::string result(real);
  free(real);
  return result;
}

bool IsSameOrBelow(const std::string& path, const std::string& folder) {
  return path == folder ||
         (path.size() > folder.size() && path.compare(0, folder.size(), folder) == 0 &&
          path[folder.size()] == '/');
}

std::string ValidUtf8(std::string text) {
  if (g_utf8_validate(text.data(), static_cast<gssize>(text.size()), nullptr)) return text;
  gchar* valid = g_utf8_make_valid(text.data(), static_cast<gssize>(text.size()));
  text = valid;
  g_free(valid);
  return text;
}

}  // namespace corvane::cloud
