// corvanectl: the command-line client of corvane-host's engine socket.
#include <cstdio>
#include <string>
#include <vector>

#include "commands.h"
#include "options.h"

int main(int argc, char** argv) {
  using namespace corvane::ctl;
  const ParsedOptions parsed = ParseOptions(std::vector<std::string>(argv, argv + argc));
  if (!parsed.error.empty()) {
    Complain(parsed.error + " (see corvanectl --help)");
    return kExitFailure;
  }
  const Options& options = parsed.options;
  switch (options.command) {
    case Command::kHelp:
      std::fputs(UsageText(), stdout);
      return kExitOk;
    case Command::kCall:
      return RunCall(options);
    case Command::kListen:
      return RunListen(options);
    case Command::kEncode:
      return RunEncode(options);
    case Command::kDecode:
      return RunDecode(options);
  }
  return kExitFailure;
}
