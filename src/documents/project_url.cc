#include "documents/project_url.h"

#include <glib.h>

#include <cstring>
#include <memory>

namespace corvane::documents {

namespace {

struct UriDeleter {
  void operator()(GUri* uri) const { g_uri_unref(uri); }
};
struct BytesDeleter {
  void operator()(GBytes* bytes) const { g_bytes_unref(bytes); }
};
struct StringDeleter {
  void operator()(gchar* text) const { g_free(text); }
};

// The name's extension: after the last dot of the last component, lower-cased. A dot file
// (".corvane") has a name and no extension.
std::string LowerExtension(const std::string& path) {
  const std::string name = path.substr(path.rfind('/') + 1);
  const size_t dot = name.rfind('.');
  if (dot == std::string::npos || dot == 0) return {};
  std::unique_ptr<gchar, StringDeleter> lower(g_utf8_strdown(name.c_str() + dot + 1, -1));
  return lower.get();
}

// Trailing slashes name the same file ("/a/b.corvane/" is "/a/b.corvane"), as on the
// platforms this behaviour comes from; the root keeps its one slash.
void DropTrailingSlashes(std::string& path) {
  while (path.size() > 1 && path.back() == '/') path.pop_back();
}

}  // namespace

bool IsFileUrl(const std::string& url) {
  std::unique_ptr<gchar, StringDeleter> scheme(g_uri_parse_scheme(url.c_str()));
  return scheme && g_ascii_strcasecmp(scheme.get(), "file") == 0;
}

CheckedUrl CheckProjectUrl(const std::string& url) {
  CheckedUrl checked;
  if (!IsFileUrl(url)) return checked;
  checked.verdict = UrlVerdict::kRefused;

  // Kept encoded, so a "%00" survives parsing and is judged below rather than failing as
  // "not UTF-8". GUri removes dot segments (also percent-encoded ones) while parsing.
  std::unique_ptr<GUri, UriDeleter> uri(g_uri_parse(url.c_str(), G_URI_FLAGS_ENCODED, nullptr));
  if (!uri) return checked;

  // Exact and case-sensitive on purpose: only the spelling the desktop itself writes.
  const char* host = g_uri_get_host(uri.get());
  if (host && *host && std::strcmp(host, "localhost") != 0) return checked;
  if (g_uri_get_query(uri.get())) return checked;
  if (g_uri_get_fragment(uri.get())) return checked;

  std::unique_ptr<GBytes, BytesDeleter> decoded(
      g_uri_unescape_bytes(g_uri_get_path(uri.get()), -1, nullptr, nullptr));
  if (!decoded) return checked;  // a broken escape: no path at all
  gsize size = 0;
  const auto* data = static_cast<const char*>(g_bytes_get_data(decoded.get(), &size));
  std::string path(data ? data : "", size);
  DropTrailingSlashes(path);

  if (path.empty() || path.front() != '/') return checked;
  if (path.find('\0') != std::string::npos) return checked;
  // The path travels to the Flutter side as a string, which must be text.
  if (!g_utf8_validate(path.data(), static_cast<gssize>(path.size()), nullptr)) return checked;
  if (path.size() > kMaxPathBytes) return checked;
  const std::string extension = LowerExtension(path);
  if (extension != "corvane" && extension != "corvanepack") return checked;

  checked.verdict = UrlVerdict::kAccepted;
  checked.path = std::move(path);
  return checked;
}

}  // namespace corvane::documents
