// Writing a preference backup without ever replacing an existing file.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace corvane::legacy {

enum class BackupOutcome { kWritten, kExists, kFailed };

// True when anything, even a dangling link, is at `path`.
bool BackupPathTaken(const std::string& path);

// Creates `path` exclusively (missing parent folders too, private to the user) and writes
// `bytes` to it. Anything already at `path`, even a dangling link, gives kExists and stays as it
// is; of several writers racing for one path exactly one gets kWritten. A failed write leaves no
// file behind.
BackupOutcome WriteBackup(const std::string& path, const std::vector<uint8_t>& bytes);

}  // namespace corvane::legacy
