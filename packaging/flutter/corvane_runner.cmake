# The runner of a Flutter Linux build, made by this host. Include it from the Flutter project's
# linux/CMakeLists.txt in place of the template's `add_subdirectory("runner")`:
#
#   set(CORVANE_HOST_DIR "/path/to/corvane-host")
#   include("${CORVANE_HOST_DIR}/packaging/flutter/corvane_runner.cmake")
#
# It expects what the template has defined by then: BINARY_NAME, the `flutter` and
# `flutter_assemble` targets (add_subdirectory(${FLUTTER_MANAGED_DIR})) and PkgConfig::GTK; the
# template's include(flutter/generated_plugins.cmake) after it links the app's plug-ins.
if(NOT DEFINED CORVANE_HOST_DIR)
  message(FATAL_ERROR "set CORVANE_HOST_DIR to the corvane-host checkout before including this")
endif()

# The host's libraries, built against the Flutter tool's flutter_linux headers and engine, which
# flutter_assemble puts in flutter/ephemeral (so a configure after `flutter clean` works). A
# build that made corvane_flutter already (the host's own tests) uses that one.
if(NOT TARGET corvane_flutter)
  set(CORVANE_FLUTTER_DIR "${CMAKE_CURRENT_SOURCE_DIR}/flutter/ephemeral" CACHE PATH "" FORCE)
  set(CORVANE_BUILD_TESTS OFF CACHE BOOL "" FORCE)
  set(CORVANE_BUILD_BENCH OFF CACHE BOOL "" FORCE)
  add_subdirectory("${CORVANE_HOST_DIR}" corvane-host EXCLUDE_FROM_ALL)
  add_dependencies(corvane_flutter flutter_assemble)
endif()

# The app's plug-ins, from the files the Flutter tool generated for it, at build time.
set(CORVANE_APP_PLUGINS "${CMAKE_CURRENT_BINARY_DIR}/corvane_app_plugins.cc")
set(CORVANE_REGISTRANT "${CMAKE_CURRENT_SOURCE_DIR}/flutter/generated_plugin_registrant.cc")
set(CORVANE_PLUGIN_LIST "${CMAKE_CURRENT_SOURCE_DIR}/flutter/generated_plugins.cmake")
add_custom_command(
  OUTPUT "${CORVANE_APP_PLUGINS}"
  COMMAND "${CMAKE_COMMAND}" "-DREGISTRANT=${CORVANE_REGISTRANT}"
          "-DPLUGINS=${CORVANE_PLUGIN_LIST}" "-DOUTPUT=${CORVANE_APP_PLUGINS}"
          -P "${CMAKE_CURRENT_LIST_DIR}/app_plugins.cmake"
  DEPENDS "${CORVANE_REGISTRANT}" "${CORVANE_PLUGIN_LIST}" "${CMAKE_CURRENT_LIST_DIR}/app_plugins.cmake"
  COMMENT "Registering the app's plug-ins as the Flutter tool listed them")

add_executable(${BINARY_NAME} "${CMAKE_CURRENT_LIST_DIR}/main.cc" "${CORVANE_APP_PLUGINS}")
target_link_libraries(${BINARY_NAME} PRIVATE corvane_flutter flutter PkgConfig::GTK)
target_compile_features(${BINARY_NAME} PRIVATE cxx_std_17)
add_dependencies(${BINARY_NAME} flutter_assemble)
# As the template's runner: the bundle is assembled by the install step, not run from here.
set_target_properties(${BINARY_NAME} PROPERTIES
  RUNTIME_OUTPUT_DIRECTORY "${CMAKE_BINARY_DIR}/intermediates_do_not_run")
