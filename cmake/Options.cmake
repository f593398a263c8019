# Compiler options and switches shared by every target, as one interface library.
option(VELLUM_TESTS "Build the tests" ON)
option(VELLUM_BENCH "Build the benchmarks" ON)
option(VELLUM_FUZZ "Build the fuzz targets (clang only, with VELLUM_SANITIZE=fuzzer-no-link,...)" OFF)
option(VELLUM_LOCK_ANALYSIS "Check lock annotations (clang only)" OFF)
set(VELLUM_SANITIZE "" CACHE STRING "Sanitizers, as -fsanitize= takes them: address,undefined or thread")

if(NOT CMAKE_BUILD_TYPE)
  set(CMAKE_BUILD_TYPE RelWithDebInfo CACHE STRING "" FORCE)
endif()

add_library(vellum_options INTERFACE)
target_compile_options(vellum_options INTERFACE -Wall -Wextra -Wpedantic -Wshadow -Wnon-virtual-dtor -Werror)
if(VELLUM_SANITIZE)
  target_compile_options(vellum_options INTERFACE -fsanitize=${VELLUM_SANITIZE} -fno-omit-frame-pointer
    -fno-sanitize-recover=all)
  target_link_options(vellum_options INTERFACE -fsanitize=${VELLUM_SANITIZE})
endif()
if(VELLUM_LOCK_ANALYSIS)
  target_compile_options(vellum_options INTERFACE -Wthread-safety -Wthread-safety-beta)
endif()

find_program(CCACHE ccache)
if(CCACHE)
  set(CMAKE_CXX_COMPILER_LAUNCHER ${CCACHE})
endif()
