// The names sync clients give the conflict copies they leave beside a document. Each client
// keeps the losing content in a new file in the same folder, with a tag before the extension:
//
//   Syncthing            doc.sync-conflict-20240610-101500-ABCDEF7.corvane
//   Nextcloud/ownCloud   doc (conflicted copy 2024-06-10 101500).corvane
//                        doc (conflicted copy Alice 2024-06-10 101500).corvane
//                        doc_conflict-20240610-101500.corvane          (older clients)
//   Dropbox              doc (Alice's conflicted copy 2024-06-10).corvane
//
// The extension is what follows the last dot of the original name; a name without a dot (or
// only a leading one) gets the tag at its end.
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace corvane::cloud {

enum class SyncClientKind { kFolder, kNextcloud, kOwncloud, kSyncthing, kDropbox };

struct ConflictCopyName {
  std::string original;  // the file name the copy belongs to, same folder
  // Who saved it, as the name tells, made valid UTF-8; "" when the rule carries none.
  std::string device;
  SyncClientKind client;
};

// What `name` (a file name without folders) is a conflict copy of; nothing for other names.
std::optional<ConflictCopyName> ParseConflictCopyName(std::string_view name);

// Cheap test that rejects almost every ordinary name before the exact rules run.
bool MayBeConflictCopyName(std::string_view name);

}  // namespace corvane::cloud
