#include "host/command_line.h"

#include <glib.h>

namespace corvane::host {

namespace {

// Matches "--name VALUE" and "--name=VALUE"; advances `i` past what it used.
bool TakeValue(const std::string& name, int argc, char** argv, int& i, std::string* value,
               std::string* error) {
  const std::string arg = argv[i];
  if (arg.size() > name.size() && arg.compare(0, name.size() + 1, name + "=") == 0) {
    *value = arg.substr(name.size() + 1);
  } else if (i + 1 < argc) {
    *value = argv[++i];
  } else {
    *error = "option " + name + " needs a value";
    return false;
  }
  if (value->empty()) {
    *error = "option " + name + " needs a non-empty value";
    return false;
  }
  return true;
}

bool Matches(const std::string& arg, const std::string& name) {
  return arg == name || arg.compare(0, name.size() + 1, name + "=") == 0;
}

}  // namespace

std::optional<HostOptions> ParseCommandLine(int argc, char** argv, std::string* error) {
  HostOptions options;
  bool only_documents = false;
  for (int i = 1; i < argc; ++i) {
    const std::string arg = argv[i];
    if (only_documents || arg.empty() || arg[0] != '-' || arg == "-") {
      options.documents.push_back(arg);
    } else if (arg == "--") {
      only_documents = true;
    } else if (arg == "--help" || arg == "-h") {
      options.help = true;
    } else if (arg == "--headless") {
      options.headless = true;
    } else if (arg == "--print-registrations") {
      options.print_registrations = true;
    } else if (Matches(arg, "--engine-socket")) {
      if (!TakeValue("--engine-socket", argc, argv, i, &options.engine_socket, error)) {
        return std::nullopt;
      }
    } else if (Matches(arg, "--info")) {
      std::string file;
      if (!TakeValue("--info", argc, argv, i, &file, error)) return std::nullopt;
      options.info_file = file;
    } else {
      *error = "unknown option " + arg;
      return std::nullopt;
    }
  }
  return options;
}

std::string HelpText(const std::string& default_socket_path) {
  return "Usage: corvane-host [OPTION...] [FILE...]\n"
         "\n"
         "The native host of Corvane: owns the main window and offers the native services to\n"
         "the Flutter engine over the engine socket. FILEs are project documents to open; a\n"
         "second launch hands them to the running host.\n"
         "\n"
         "Options:\n"
         "  --engine-socket PATH   serve the engine on the Unix socket PATH\n"
         "                         (default: " +
         default_socket_path +
         ")\n"
         "  --headless             no window, same channels; automatic without a display\n"
         "  --info FILE            read the information dictionary (a key file with an [Info]\n"
         "                         group: BundleIdentifier, CorvaneICloudContainer) from FILE\n"
         "                         instead of the built-in one\n"
         "  --print-registrations  print the start-up registrations in order and exit without\n"
         "                         opening the socket; one line each, tab-separated:\n"
         "                         REGISTRAR SERVICE CHANNELS STATUS, where CHANNELS is a\n"
         "                         comma-separated list or \"-\" and STATUS is \"registered\" or\n"
         "                         \"not linked\"\n"
         "  --help                 show this help and exit\n"
         "\n"
         "Exit status:\n"
         "  0  normal end: the window was closed, or SIGINT or SIGTERM arrived\n"
         "  1  the engine socket could not be started: another host serves it, its folder\n"
         "     is a link, another user's, or open to others, or something other than a stale\n"
         "     socket is at the path\n"
         "  2  bad command line, or the --info FILE is missing, unreadable or has no [Info]\n"
         "     group\n";
}

std::string DocumentUrl(const std::string& argument, const std::string& cwd) {
  if (gchar* scheme = g_uri_parse_scheme(argument.c_str())) {
    g_free(scheme);
    return argument;
  }
  gchar* path = g_canonicalize_filename(argument.c_str(), cwd.empty() ? nullptr : cwd.c_str());
  gchar* uri = g_filename_to_uri(path, nullptr, nullptr);
  std::string url = uri ? uri : "";
  g_free(uri);
  g_free(path);
  return url;
}

}  // namespace corvane::host
