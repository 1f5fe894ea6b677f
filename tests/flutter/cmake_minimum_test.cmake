# What a Flutter app's build includes of the host must configure with CMake 3.16, the oldest the
# runner supports (this machine has a newer one). Run: cmake -DROOT=<checkout> -P <this file>
file(GLOB_RECURSE files ${ROOT}/src/CMakeLists.txt ${ROOT}/src/*.cmake ${ROOT}/apps/CMakeLists.txt
     ${ROOT}/packaging/CMakeLists.txt ${ROOT}/packaging/*.cmake)
list(APPEND files ${ROOT}/CMakeLists.txt)
# Later features, as regular expressions, each with the version that brought it.
set(later "cmake_minimum_required\\(VERSION (3\\.(1[7-9]|[2-9][0-9])|[4-9])=3.17+" "ZIP_LISTS=3.17"
          "cmake_path=3.20" "cmake_language=3.18" "block\\(=3.25" "file\\(CONFIGURE=3.18"
          "string\\(JSON=3.19" "PROJECT_IS_TOP_LEVEL=3.21" "\\$<LINK_LIBRARY=3.24"
          "find_(library|program|file|path)\\([^)]*REQUIRED=3.18" "\\$<PATH=3.24" "FILE_SET=3.23"
          "check_linker_flag=3.18" "\\$<TARGET_RUNTIME_DLLS=3.21" "return\\(PROPAGATE=3.25"
          "add_library\\([^)]*INTERFACE[^)]*\\.(cc|h)=3.19")
foreach(file IN LISTS files)
  file(READ ${file} text)
  string(REGEX REPLACE "#[^\n]*" "" text "${text}")
  foreach(feature IN LISTS later)
    string(REGEX REPLACE "=[0-9.+]+$" "" pattern "${feature}")
    if(text MATCHES "${pattern}")
      message(SEND_ERROR "${file} uses ${feature}")
    endif()
  endforeach()
endforeach()
