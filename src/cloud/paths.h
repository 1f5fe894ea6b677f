// Path helpers shared by the cloud store and the file operations.
#pragma once

#include <string>

namespace corvane::cloud {

std::string Dirname(const std::string& path);
std::string Basename(const std::string& path);
// The path with every link resolved; the path itself when it cannot be resolved.
std::string RealPath(const std::string& path);
// `path` is `folder` or below it, compared by name only.
bool IsSameOrBelow(const std::string& path, const std::string& folder);

// `text` with every malformed UTF-8 sequence replaced by U+FFFD: a name made on another machine
// may hold any bytes, and what goes on a channel must be UTF-8.
std::string ValidUtf8(std::string text);

}  // namespace corvane::cloud
