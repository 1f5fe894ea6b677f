// File operations with coordination: advisory locks (shared to read, exclusive to write) that
// other cooperating processes see too, and replacement by rename so that a reader sees the old
// file or the new one, never a mix, and a failed write leaves the old content. Every operation
// works on entries (a name in an open folder) and never follows a link in the entry's name.
#pragma once

#include <cstdint>
#include <string>

#include "cloud/container_dir.h"

namespace corvane::cloud {

struct TransferOutcome {
  bool ok = false;
  bool attributes_read = false;  // modified_ms and size describe the file afterwards
  int64_t modified_ms = 0;
  int64_t size = 0;
  std::string message;  // why it failed, in the system's words
};

// A local file opened for reading before anything else is touched: links are followed (the
// caller chose it), relative paths refused. `fd` < 0 with `message` set when it cannot be read.
struct LocalSource {
  explicit LocalSource(const std::string& path);
  ~LocalSource();
  LocalSource(const LocalSource&) = delete;
  LocalSource& operator=(const LocalSource&) = delete;
  int fd = -1;
  std::string message;
};

// Copies the file `from` to `to`, replacing what is there. The attributes are those of `from`.
TransferOutcome CopyOut(const Entry& from, const Entry& to);
// Copies `from` to `to`, replacing what is there. The attributes are those of the new `to`.
TransferOutcome CopyIn(const LocalSource& from, const Entry& to);
// Replaces `to` by the content of `from` (which stays), under an exclusive lock of `to`.
bool ReplaceContent(const Entry& to, const Entry& from);
// Removes a file, or a folder with everything in it (links are removed, not followed).
bool RemoveItem(const Entry& entry);
// Renames `from` to `to`; never replaces an existing `to`. With `across_file_systems`, a move
// to another file system copies, syncs and only then removes the source.
bool MoveItem(const Entry& from, const Entry& to, bool across_file_systems);

}  // namespace corvane::cloud
