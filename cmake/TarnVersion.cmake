# Finds the commit the source tree is at ("unknown" outside a git checkout) and writes
# ${PROJECT_BINARY_DIR}/generated/tarn_version.h (TARN_VERSION, TARN_COMMIT). The header is
# rewritten only when its text changes, and CMake runs again after each commit or checkout,
# so the commit stays current.
find_package(Git QUIET)
set(TARN_COMMIT "unknown")
if(GIT_FOUND)
  execute_process(COMMAND ${GIT_EXECUTABLE} describe --always --dirty --abbrev=12
    WORKING_DIRECTORY ${PROJECT_SOURCE_DIR}
    OUTPUT_VARIABLE tarn_describe OUTPUT_STRIP_TRAILING_WHITESPACE
    RESULT_VARIABLE tarn_describe_result ERROR_QUIET)
  if(tarn_describe_result EQUAL 0 AND tarn_describe)
    set(TARN_COMMIT "${tarn_describe}")
    execute_process(COMMAND ${GIT_EXECUTABLE} rev-parse --absolute-git-dir
      WORKING_DIRECTORY ${PROJECT_SOURCE_DIR}
      OUTPUT_VARIABLE tarn_git_dir OUTPUT_STRIP_TRAILING_WHITESPACE ERROR_QUIET)
    if(EXISTS "${tarn_git_dir}/logs/HEAD")
      set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS "${tarn_git_dir}/logs/HEAD")
    endif()
  endif()
endif()

set(TARN_VERSION "${PROJECT_VERSION}")
configure_file(${CMAKE_CURRENT_LIST_DIR}/tarn_version.h.in
  ${PROJECT_BINARY_DIR}/generated/tarn_version.h @ONLY)

# Linking tarn_version makes #include "tarn_version.h" work. The macros are in the header,
# not compile definitions, so that a commit recompiles only the files that include it.
add_library(tarn_version INTERFACE)
target_include_directories(tarn_version INTERFACE ${PROJECT_BINARY_DIR}/generated)
