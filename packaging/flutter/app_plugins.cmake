# Writes OUTPUT, the definition of corvane::flutter::GeneratedAppPlugins(), from what the Flutter
# tool generated for the app: REGISTRANT (linux/flutter/generated_plugin_registrant.cc, one
# registrar request and registration call per native plug-in) and PLUGINS
# (linux/flutter/generated_plugins.cmake, whose FLUTTER_PLUGIN_LIST names the same plug-ins).
# Run as a build step: cmake -DREGISTRANT=... -DPLUGINS=... -DOUTPUT=... -P app_plugins.cmake
cmake_minimum_required(VERSION 3.16)

file(READ "${REGISTRANT}" registrant)
# Semicolons would split CMake's lists of matches; the statements read the same without them.
string(REPLACE ";" " " registrant "${registrant}")
file(READ "${PLUGINS}" plugins_cmake)

set(space "[ \t\r\n]*")
set(pair_regex "g_autoptr\\(FlPluginRegistrar\\)${space}([A-Za-z0-9_]+)_registrar${space}=${space}")
string(APPEND pair_regex "fl_plugin_registry_get_registrar_for_plugin\\(${space}registry,${space}")
string(APPEND pair_regex "\"([^\"]*)\"${space}\\)${space}([A-Za-z0-9_]+)\\(")
string(REGEX MATCHALL "${pair_regex}" pairs "${registrant}")

# The native plug-ins the tool listed for the build; the registrant must register exactly these.
set(listed "")
if(plugins_cmake MATCHES "list\\(APPEND FLUTTER_PLUGIN_LIST([^)]*)\\)")
  string(REGEX MATCHALL "[A-Za-z0-9_]+" listed "${CMAKE_MATCH_1}")
endif()

set(declarations "")
set(entries "")
set(packages "")
set(window_created "nullptr")
foreach(pair IN LISTS pairs)
  string(REGEX REPLACE "${pair_regex}" "\\1;\\2;\\3" fields "${pair}")
  list(GET fields 0 package)
  list(GET fields 1 registrar)
  list(GET fields 2 function)
  list(APPEND packages ${package})
  string(APPEND declarations "void ${function}(FlPluginRegistrar* registrar);\n")
  string(APPEND entries "      {\"${package}\", \"${registrar}\", &${function}},\n")
  if(package STREQUAL "desktop_multi_window")
    string(APPEND declarations "void desktop_multi_window_plugin_set_window_created_callback("
           "corvane::flutter::WindowCreatedCallback callback);\n")
    set(window_created "&desktop_multi_window_plugin_set_window_created_callback")
  endif()
endforeach()

if(NOT packages STREQUAL listed)
  message(FATAL_ERROR "${REGISTRANT} registers [${packages}] but ${PLUGINS} lists [${listed}]: "
                      "run 'flutter pub get' so the Flutter tool writes both again")
endif()

file(WRITE "${OUTPUT}.new" "// Generated from ${REGISTRANT}; do not edit.
#include \"flutter/app_plugins.h\"

extern \"C\" {
${declarations}}

namespace corvane::flutter {

const AppPluginList& GeneratedAppPlugins() {
  static const AppPluginList plugins{{
${entries}  }, ${window_created}};
  return plugins;
}

}  // namespace corvane::flutter
")
# Rewritten only when it changed, so an unchanged app does not relink.
execute_process(COMMAND ${CMAKE_COMMAND} -E copy_if_different "${OUTPUT}.new" "${OUTPUT}")
file(REMOVE "${OUTPUT}.new")
