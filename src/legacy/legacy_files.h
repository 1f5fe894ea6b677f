// The earlier edition's project and backup files, as the entry maps "listFiles" answers.
#pragma once

#include <string>
#include <string_view>

#include "channel/value.h"
#include "legacy/legacy_locations.h"

namespace corvane::legacy {

// A reply stays a reasonable size however many files a folder holds; past this many entries
// the rest are left out (and logged).
inline constexpr size_t kMaxListedFiles = 10000;

// The file a cloud placeholder (".NAME.icloud") stands for, or empty when `file_name` is not
// a placeholder.
std::string_view PlaceholderTarget(std::string_view file_name);

// Entries for every file in the four legacy folders, folder by folder, each folder's files by
// name. Missing or unreadable folders contribute nothing.
channel::ValueList ListLegacyFiles(const LegacyLocations& locations);

}  // namespace corvane::legacy
