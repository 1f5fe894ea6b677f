// The standard plug-ins of a Flutter Linux build are shared libraries linked into the runner;
// each exports `<snake_case plug-in class>_register_with_registrar`. The start-up table names
// them by their registrar names, so a plug-in is registered in the table's order by looking
// its function up among the program's symbols.
#pragma once

#include <string>
#include <vector>

typedef struct _FlPluginRegistrar FlPluginRegistrar;

namespace corvane::flutter {

// "UrlLauncherPlugin" -> "url_launcher_plugin"; runs of capitals stay one word
// ("FPPPackageInfoPlusPlugin" -> "fpp_package_info_plus_plugin").
std::string SnakeCase(const std::string& camel);

// The function names to look for, most likely first: the name as it is, then with a platform
// word ("darwin", "macos") turned into "linux", then without it.
std::vector<std::string> RegisterFunctionNames(const std::string& registrar);

using RegisterFunction = void (*)(FlPluginRegistrar* registrar);
// Null when no plug-in of that name is part of this program.
RegisterFunction FindRegisterFunction(const std::string& registrar);

}  // namespace corvane::flutter
