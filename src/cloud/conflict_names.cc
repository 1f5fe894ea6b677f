#include "cloud/conflict_names.h"

#include <regex>

#include "cloud/paths.h"

namespace corvane::cloud {

namespace {

// The tag sits between the stem and an optional extension that holds no further dot.
// Syncthing splits ".hidden" into an empty stem and the extension ".hidden".
// Syncthing's device part is the first seven characters of a device id (base32, upper case).
const std::regex& SyncthingRule() {
  static const std::regex rule(
      R"(^(.*)\.sync-conflict-[0-9]{8}-[0-9]{6}-([A-Z0-9]{7})(\.[^.]*)?$)");
  return rule;
}

// The user part is optional; the client replaces parentheses in it by underscores, so the
// first ")" after the marker closes the tag.
const std::regex& NextcloudRule() {
  static const std::regex rule(
      R"(^(.+) \(conflicted copy (?:([^()]*) )?[0-9]{4}-[0-9]{2}-[0-9]{2} [0-9]{6}\)(\.[^.]*)?$)");
  return rule;
}

const std::regex& NextcloudLegacyRule() {
  static const std::regex rule(R"(^(.+)_conflict-[0-9]{8}-[0-9]{6}(\.[^.]*)?$)");
  return rule;
}

// The owner may itself hold "'s" ("Pierre's MacBook Pro's conflicted copy"): the last one
// before "conflicted copy" ends it. A second copy of the same day carries a counter.
const std::regex& DropboxRule() {
  static const std::regex rule(
      R"(^(.+) \((.+)'s conflicted copy [0-9]{4}-[0-9]{2}-[0-9]{2}(?: \([0-9]+\))?\)(\.[^.]*)?$)");
  return rule;
}

}  // namespace

bool MayBeConflictCopyName(std::string_view name) {
  return name.find(".sync-conflict-") != std::string_view::npos ||
         name.find("conflicted copy") != std::string_view::npos ||
         name.find("_conflict-") != std::string_view::npos;
}

std::optional<ConflictCopyName> ParseConflictCopyName(std::string_view view) {
  if (!MayBeConflictCopyName(view)) return std::nullopt;
  const std::string name(view);
  std::smatch m;
  auto made = [](std::string stem, std::string extension, std::string device,
                 SyncClientKind client) {
    return ConflictCopyName{stem + extension, ValidUtf8(std::move(device)), client};
  };
  if (std::regex_match(name, m, SyncthingRule())) {
    return made(m[1].str(), m[3].str(), m[2].str(), SyncClientKind::kSyncthing);
  }
  if (std::regex_match(name, m, DropboxRule())) {
    return made(m[1].str(), m[3].str(), m[2].str(), SyncClientKind::kDropbox);
  }
  if (std::regex_match(name, m, NextcloudRule())) {
    return made(m[1].str(), m[3].str(), m[2].str(), SyncClientKind::kNextcloud);
  }
  if (std::regex_match(name, m, NextcloudLegacyRule())) {
    return made(m[1].str(), m[2].str(), "", SyncClientKind::kNextcloud);
  }
  return std::nullopt;
}

}  // namespace corvane::cloud
