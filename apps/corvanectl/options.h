// corvanectl's command line: a subcommand with its arguments, and options that may stand
// before or after it.
#pragma once

#include <optional>
#include <string>
#include <vector>

namespace corvane::ctl {

enum class Command { kHelp, kCall, kListen, kEncode, kDecode };

// What encode and decode work on: a message value, a method call or a reply envelope.
enum class CodecForm { kMessage, kMethodCall, kEnvelope };

struct Options {
  Command command = Command::kHelp;
  std::vector<std::string> args;  // after the subcommand
  std::string socket_path;        // empty: the host's default
  int timeout_ms = 10000;
  std::optional<long> count;  // listen: stop after this many events
  CodecForm form = CodecForm::kMessage;
};

struct ParsedOptions {
  Options options;
  std::string error;  // empty when the command line is usable
};

ParsedOptions ParseOptions(const std::vector<std::string>& argv);

const char* UsageText();

}  // namespace corvane::ctl
