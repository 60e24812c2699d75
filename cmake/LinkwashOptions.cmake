# Developer options in one place: warnings, sanitizers and the values baked into the library.
option(LINKWASH_WERROR "Treat compiler warnings as errors" OFF)
option(LINKWASH_SANITIZE "Build with AddressSanitizer and UndefinedBehaviorSanitizer" OFF)
option(LINKWASH_BENCHMARKS "Build the Google Benchmark targets" ON)
option(LINKWASH_TESTS "Build the tests" ON)
option(LINKWASH_FUZZ "Build the libFuzzer targets (clang only; instruments every library)" OFF)

set(LINKWASH_RULES_HOST "rules.linkwash.example" CACHE STRING "Host serving signed rule releases")
set(LINKWASH_UPDATES_HOST "updates.linkwash.example" CACHE STRING "Host serving app and catalog metadata")
set(LINKWASH_REPORT_RECIPIENT "reports@linkwash.example" CACHE STRING "Address missed-tracker reports go to")
set(LINKWASH_BUILD_NUMBER "1" CACHE STRING "Build number reported next to the version")

add_library(linkwash_warnings INTERFACE)
target_compile_options(linkwash_warnings INTERFACE -Wall -Wextra -Wpedantic -Wshadow -Wnon-virtual-dtor)
if(LINKWASH_WERROR)
  target_compile_options(linkwash_warnings INTERFACE -Werror)
endif()

if(LINKWASH_SANITIZE)
  add_compile_options(-fsanitize=address,undefined -fno-sanitize-recover=all -fno-omit-frame-pointer)
  add_compile_definitions(_GLIBCXX_ASSERTIONS)
  add_link_options(-fsanitize=address,undefined)
endif()

if(LINKWASH_FUZZ)
  # Coverage for the fuzzers and sanitizers for what they find, in every library they reach.
  add_compile_options(-fsanitize=fuzzer-no-link,address,undefined -fno-sanitize-recover=all
                      -fno-omit-frame-pointer)
  add_compile_definitions(_GLIBCXX_ASSERTIONS)
  add_link_options(-fsanitize=address,undefined)
endif()

# Each subsystem is its own library so that a dependency not declared here fails to link.
function(linkwash_library name)
  cmake_parse_arguments(ARG "" "" "SOURCES;DEPS;PRIVATE_DEPS" ${ARGN})
  add_library(linkwash_${name} ${ARG_SOURCES})
  add_library(linkwash::${name} ALIAS linkwash_${name})
  target_include_directories(linkwash_${name} PUBLIC ${PROJECT_SOURCE_DIR})
  target_link_libraries(linkwash_${name} PUBLIC ${ARG_DEPS} PRIVATE linkwash_warnings ${ARG_PRIVATE_DEPS})
endfunction()

# One GoogleTest executable per subsystem, registered with CTest test by test.
function(linkwash_test name)
  if(NOT LINKWASH_TESTS)
    return()
  endif()
  cmake_parse_arguments(ARG "" "" "SOURCES;DEPS" ${ARGN})
  add_executable(${name} ${ARG_SOURCES})
  target_link_libraries(${name} PRIVATE ${ARG_DEPS} linkwash_test_support GTest::gtest GTest::gmock GTest::gtest_main linkwash_warnings)
  gtest_discover_tests(${name} DISCOVERY_TIMEOUT 60
    PROPERTIES ENVIRONMENT "LINKWASH_SOURCE_DIR=${PROJECT_SOURCE_DIR};LINKWASH_BIN_DIR=${CMAKE_BINARY_DIR}/bin")
endfunction()
