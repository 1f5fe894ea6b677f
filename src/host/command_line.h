// The command line of corvane-host.
#pragma once

#include <optional>
#include <string>
#include <vector>

namespace corvane::host {

// Exit statuses, as documented in the help text.
inline constexpr int kExitOk = 0;
inline constexpr int kExitEngineFailed = 1;
inline constexpr int kExitUsage = 2;

struct HostOptions {
  std::string engine_socket;  // empty: the engine's default path
  bool headless = false;
  std::optional<std::string> info_file;
  bool print_registrations = false;
  bool help = false;
  std::vector<std::string> documents;  // as given: paths or URIs
};

// Nothing, with `error` set, for an unknown option or a missing value.
std::optional<HostOptions> ParseCommandLine(int argc, char** argv, std::string* error);

std::string HelpText(const std::string& default_socket_path);

// The URL a document argument stands for: an argument with a scheme is taken exactly as
// written, so that the document rules judge its host, query and fragment; anything else is a
// path, relative to `cwd`, made into a file URL.
std::string DocumentUrl(const std::string& argument, const std::string& cwd);

}  // namespace corvane::host
