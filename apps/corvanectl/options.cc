#include "options.h"

#include <charconv>
#include <climits>

namespace corvane::ctl {

namespace {

constexpr const char kUsage[] = R"(Usage: corvanectl [OPTIONS] COMMAND [ARGUMENTS]

Drives a running corvane-host over its engine socket, and converts values between JSON
and the Flutter standard codecs.

Commands:
  call CHANNEL METHOD [ARGS_JSON]
      Call METHOD on CHANNEL with ARGS_JSON (null when left out) and print the reply:
      a success value as JSON, or an error as {"code":...,"message":...,"details":...}.
  listen CHANNEL
      Listen on the event channel CHANNEL and print each event as one JSON line (an
      error event as an error object) until the stream ends, --count events have
      arrived, or SIGINT/SIGTERM; then cancel the stream.
  encode VALUE_JSON
      Print the value's standard message codec bytes as lower-case hex.
  decode HEX
      Print the value held in standard message codec bytes as JSON (no bytes: null).
  help
      Print this text.

Options, before or after the command:
  --socket PATH   engine socket (default: $XDG_RUNTIME_DIR/corvane/engine.sock, or
                  /tmp/corvane-UID/engine.sock without XDG_RUNTIME_DIR)
  --timeout MS    how long call and listen wait for a reply (default 10000)
  --count N       listen: cancel after N events
  --method-call   encode/decode a method call: {"method":NAME,"args":VALUE}
  --envelope      encode/decode a reply envelope: {"success":VALUE} or
                  {"error":{"code":C,"message":M,"details":D,"stacktrace":S}}
                  ("message", "details" and "stacktrace" may be left out; a stacktrace
                  given, even null, is written; no bytes decode to nothing, exit 2)
  -h, --help      print this text
  --              end of options: later arguments are taken as they are

Any JSON or HEX argument may be "-" to read it from standard input. Hex input may
be in either case and may contain whitespace.

JSON mapping: null, booleans, strings, lists and string-keyed objects are
themselves; an integer is an int32 when it fits, else an int64; a number with a
fraction or exponent is a float64. Other values are one-key tagged objects:
  {"$int32":N} {"$int64":N} {"$float64":X|"NaN"|"Infinity"|"-Infinity"}
  {"$bytes":"HEX"} {"$int32list":[...]} {"$int64list":[...]}
  {"$float32list":[...]} {"$float64list":[...]} {"$map":[[KEY,VALUE],...]}
An object with a single key starting with "$" is always a tag; unknown tags are
errors.

Exit status:
  0  success; a listen that ended, reached --count or was interrupted
  1  the reply (or the listen reply) is an error
  2  the empty reply: method not implemented or no handler on the channel
  3  usage error, malformed input, or no usable connection to the host
  4  no reply within --timeout
)";

bool ParseNumber(const std::string& text, long min, long max, long& out) {
  const char* end = text.data() + text.size();
  const auto r = std::from_chars(text.data(), end, out);
  return r.ec == std::errc() && r.ptr == end && out >= min && out <= max;
}

std::optional<Command> CommandNamed(const std::string& name) {
  if (name == "call") return Command::kCall;
  if (name == "listen") return Command::kListen;
  if (name == "encode") return Command::kEncode;
  if (name == "decode") return Command::kDecode;
  if (name == "help") return Command::kHelp;
  return std::nullopt;
}

}  // namespace

const char* UsageText() { return kUsage; }

ParsedOptions ParseOptions(const std::vector<std::string>& argv) {
  ParsedOptions parsed;
  Options& o = parsed.options;
  std::vector<std::string> positional;
  bool help = false;
  bool method_call = false;
  bool envelope = false;
  auto fail = [&](std::string message) {
    parsed.error = std::move(message);
    return parsed;
  };

  for (size_t i = 1; i < argv.size(); ++i) {
    const std::string& arg = argv[i];
    if (arg == "--") {
      positional.insert(positional.end(), argv.begin() + static_cast<std::ptrdiff_t>(i) + 1,
                        argv.end());
      break;
    }
    if (arg == "-h" || arg == "--help") {
      help = true;
      continue;
    }
    // Anything else with one dash is an argument: "-" is standard input, "-5" is JSON.
    if (arg.rfind("--", 0) != 0) {
      positional.push_back(arg);
      continue;
    }
    std::string name = arg;
    std::optional<std::string> value;
    if (const size_t eq = arg.find('='); eq != std::string::npos) {
      name = arg.substr(0, eq);
      value = arg.substr(eq + 1);
    }
    auto take_value = [&]() -> bool {
      if (value) return true;
      if (i + 1 >= argv.size()) return false;
      value = argv[++i];
      return true;
    };
    if (name == "--method-call" || name == "--envelope") {
      if (value) return fail(name + " takes no value");
      (name == "--envelope" ? envelope : method_call) = true;
    } else if (name == "--socket") {
      if (!take_value() || value->empty()) return fail("--socket needs a path");
      o.socket_path = *value;
    } else if (name == "--timeout") {
      long ms;
      if (!take_value() || !ParseNumber(*value, 1, INT_MAX, ms)) {
        return fail("--timeout needs a positive number of milliseconds");
      }
      o.timeout_ms = static_cast<int>(ms);
    } else if (name == "--count") {
      long n;
      if (!take_value() || !ParseNumber(*value, 1, LONG_MAX, n)) {
        return fail("--count needs a positive number");
      }
      o.count = n;
    } else {
      return fail("unknown option " + name);
    }
  }

  if (help) {
    o.command = Command::kHelp;
    return parsed;
  }
  if (positional.empty()) return fail("no command given");
  const std::optional<Command> command = CommandNamed(positional.front());
  if (!command) return fail("unknown command \"" + positional.front() + "\"");
  o.command = *command;
  o.args.assign(positional.begin() + 1, positional.end());

  size_t min_args = 1, max_args = 1;
  switch (o.command) {
    case Command::kHelp:
      min_args = max_args = 0;
      break;
    case Command::kCall:
      min_args = 2, max_args = 3;
      break;
    default:
      break;
  }
  if (o.args.size() < min_args || o.args.size() > max_args) {
    return fail("wrong number of arguments for " + positional.front());
  }
  if (o.count && o.command != Command::kListen) return fail("--count is for listen only");
  if (method_call && envelope) return fail("--method-call and --envelope exclude each other");
  if (method_call || envelope) {
    if (o.command != Command::kEncode && o.command != Command::kDecode) {
      return fail("--method-call and --envelope are for encode and decode only");
    }
    o.form = method_call ? CodecForm::kMethodCall : CodecForm::kEnvelope;
  }
  return parsed;
}

}  // namespace corvane::ctl
