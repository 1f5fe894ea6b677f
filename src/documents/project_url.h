// Which URLs the desktop hands us are project documents, and under which path they are known.
#pragma once

#include <cstddef>
#include <string>

namespace corvane::documents {

// Longest accepted path, in UTF-8 bytes: PATH_MAX on Linux and the platforms we mirror.
inline constexpr size_t kMaxPathBytes = 4096;

enum class UrlVerdict {
  kNotFile,   // not a file URL: skipped without a word
  kRefused,   // a file URL we will not open: counts as rejected
  kAccepted,  // a project document; `path` is its key
};

struct CheckedUrl {
  UrlVerdict verdict = UrlVerdict::kNotFile;
  std::string path;  // kAccepted only: decoded, dot segments removed
};

bool IsFileUrl(const std::string& url);

// Parses `url` as a URI and applies the document rules in order: local host, no query, no
// fragment, absolute path, no NUL, at most kMaxPathBytes, extension "corvane"/"corvanepack".
CheckedUrl CheckProjectUrl(const std::string& url);

}  // namespace corvane::documents
