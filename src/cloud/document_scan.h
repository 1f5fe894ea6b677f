// The project documents below a Documents folder: files whose names end in ".corvane" or
// ".corvanepack" (either case) or begin with "corvane-backup-" (exactly). Sync clients' conflict
// copies are not documents of their own; they mark their original as in conflict.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace corvane::cloud {

struct DocumentItem {
  std::string relative;  // below the Documents folder, joined by "/"
  int64_t size = 0;
  int64_t modified_ms = 0;
  bool has_conflicts = false;
};

struct DocumentScan {
  bool ok = false;  // the Documents folder itself could be read
  std::vector<DocumentItem> items;
  std::vector<std::string> folders;  // every folder walked, the Documents folder first
};

bool IsDocumentName(std::string_view name);

// Walks `documents` without following links. Hidden files and folders (".stfolder",
// ".stversions", ".dropbox.cache", temporary files) belong to the sync clients and are skipped.
DocumentScan ScanDocuments(const std::string& documents);

}  // namespace corvane::cloud
