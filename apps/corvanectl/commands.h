// corvanectl's commands. Each returns the process's exit status.
#pragma once

#include <optional>
#include <string>

#include "channel/standard_codec.h"
#include "options.h"

namespace corvane::ctl {

enum ExitStatus : int {
  kExitOk = 0,
  kExitErrorReply = 1,
  kExitEmptyReply = 2,
  kExitFailure = 3,  // usage, malformed input, connection
  kExitTimeout = 4,
};

int RunCall(const Options& options);
int RunListen(const Options& options);
int RunEncode(const Options& options);
int RunDecode(const Options& options);

// Shared by the commands.

// The argument itself, or all of standard input for "-". Empty on failure, with the reason.
std::optional<std::string> ReadArgument(const std::string& arg, std::string* error);

// Parses a JSON argument; reports a problem on standard error.
std::optional<channel::Value> ParseJsonArgument(const std::string& arg, const char* what);

// Writes one line to standard output and flushes it, so a reader of a stream sees each event
// as it comes. False when standard output is gone.
bool PrintLine(const std::string& text);

// One line on standard error, prefixed with the program name.
void Complain(const std::string& message);

// {"code":...,"message":...,"details":...} with "stacktrace" only when there is one.
channel::Value ErrorObject(const channel::MethodError& error);

}  // namespace corvane::ctl
