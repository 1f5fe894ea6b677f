# The runner of a Flutter Linux build, made by this host. Include it from the Flutter project's
# linux/CMakeLists.txt in place of the template's `add_subdirectory("runner")`:
#
#   set(CORVANE_HOST_DIR "/path/to/corvane-host")
#   include("${CORVANE_HOST_DIR}/packaging/flutter/corvane_runner.cmake")
#
# It expects what the template has defined by then: BINARY_NAME, the `flutter` and
# `flutter_assemble` targets (add_subdirectory(${FLUTTER_MANAGED_DIR})) and PkgConfig::GTK.
if(NOT DEFINED CORVANE_HOST_DIR)
  message(FATAL_ERROR "set CORVANE_HOST_DIR to the corvane-host checkout before including this")
endif()

# The host's libraries, built against the Flutter tool's flutter_linux headers and engine.
set(CORVANE_FLUTTER_DIR "${CMAKE_CURRENT_SOURCE_DIR}/flutter/ephemeral" CACHE PATH "" FORCE)
set(CORVANE_BUILD_TESTS OFF CACHE BOOL "" FORCE)
set(CORVANE_BUILD_BENCH OFF CACHE BOOL "" FORCE)
add_subdirectory("${CORVANE_HOST_DIR}" corvane-host EXCLUDE_FROM_ALL)

add_executable(${BINARY_NAME} "${CORVANE_HOST_DIR}/packaging/flutter/main.cc")
target_link_libraries(${BINARY_NAME} PRIVATE corvane_flutter flutter PkgConfig::GTK)
add_dependencies(${BINARY_NAME} flutter_assemble)
# As the template's runner: the bundle is assembled by the install step, not run from here.
set_target_properties(${BINARY_NAME} PROPERTIES
  RUNTIME_OUTPUT_DIRECTORY "${CMAKE_BINARY_DIR}/intermediates_do_not_run")
# Plug-ins are found by their registration functions at start-up, in the host's own order, so
# their libraries must stay linked though nothing names them.
set_target_properties(${BINARY_NAME} PROPERTIES ENABLE_EXPORTS ON)
target_link_options(${BINARY_NAME} PRIVATE "LINKER:--no-as-needed")
