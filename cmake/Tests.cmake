include(GoogleTest)

set(DISKSTREAM_TEST_DEFINITIONS
  DISKSTREAM_SAMPLES_DIR="${DISKSTREAM_SAMPLES_DIR}"
  DISKSTREAM_TESTS_DIR="${PROJECT_SOURCE_DIR}/tests")

# Under the sanitizers, and on another machine's system, a process takes longer to begin than most tests do.
set(processes 0)
if(DISKSTREAM_SANITIZE OR CMAKE_CROSSCOMPILING)
  set(processes 12)
endif()
set(DISKSTREAM_TEST_PROCESSES ${processes} CACHE STRING "Processes that share the tests of a program; 0: one for each test")

# What a test under the sanitizers runs with: an allocation beyond the machine fails as it does without them, and every
# report ends the test. Empty in other builds.
set(DISKSTREAM_TEST_ENVIRONMENT "")
set(DISKSTREAM_TIMEOUT_FACTOR 1)
if(DISKSTREAM_SANITIZE)
  set(DISKSTREAM_TEST_ENVIRONMENT
    "ASAN_OPTIONS=allocator_may_return_null=1:detect_leaks=1"
    "UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1")
  set(DISKSTREAM_TIMEOUT_FACTOR 4)
endif()

# GoogleTest as Debian built it, or, for machines for which Debian has no build of it, from the sources it ships.
macro(diskstream_find_googletest)
  if(DISKSTREAM_GOOGLETEST_FROM_SOURCE)
    set(INSTALL_GTEST OFF)
    add_subdirectory(/usr/src/googletest "${PROJECT_BINARY_DIR}/googletest" EXCLUDE_FROM_ALL SYSTEM)
  else()
    find_package(GTest REQUIRED)
  endif()
endmacro()

# Each test in a process of its own is ctest's own test. With so many processes in all, each runs some of the tests, and
# what each test did lies in gtest/, one file for each process.
function(diskstream_discover_tests name timeout)
  if(NOT DISKSTREAM_TEST_PROCESSES)
    # The list of tests is asked for when ctest runs, not at build time: a cross-built program can't run here.
    gtest_discover_tests(${name} DISCOVERY_MODE PRE_TEST DISCOVERY_TIMEOUT 60
      PROPERTIES TIMEOUT ${timeout} LABELS ${name} ENVIRONMENT "${DISKSTREAM_TEST_ENVIRONMENT}")
    return()
  endif()
  math(EXPR lastShard "${DISKSTREAM_TEST_PROCESSES} - 1")
  foreach(shard RANGE ${lastShard})
    # A path of this machine would be none to a program of another.
    add_test(NAME ${name}.${shard} WORKING_DIRECTORY "${PROJECT_BINARY_DIR}"
      COMMAND ${name} --gtest_brief=1 "--gtest_output=xml:gtest/${name}-${shard}.xml")
    set_tests_properties(${name}.${shard} PROPERTIES TIMEOUT ${timeout} LABELS ${name} ENVIRONMENT
      "GTEST_TOTAL_SHARDS=${DISKSTREAM_TEST_PROCESSES};GTEST_SHARD_INDEX=${shard};${DISKSTREAM_TEST_ENVIRONMENT}")
  endforeach()
endfunction()

# The sources of a test program as they are compiled. Where sources are united, ten tests are one source, made anew when one
# of them changes; what helps them is compiled by itself.
function(diskstream_test_sources result name)
  if(NOT DISKSTREAM_UNITE_TESTS)
    set(${result} ${ARGN} PARENT_SCOPE)
    return()
  endif()
  set(united ${ARGN})
  list(FILTER united EXCLUDE REGEX "_test\\.cpp$")
  set(sources ${ARGN})
  list(FILTER sources INCLUDE REGEX "_test\\.cpp$")
  set(script "${PROJECT_SOURCE_DIR}/cmake/unite-tests.awk")
  list(LENGTH sources count)
  math(EXPR last "${count} - 1")
  foreach(first RANGE 0 ${last} 10)
    list(SUBLIST sources ${first} 10 batch)
    list(TRANSFORM batch REPLACE "^([^/].*)$" "${CMAKE_CURRENT_SOURCE_DIR}/\\1")
    set(file "${CMAKE_CURRENT_BINARY_DIR}/united/${name}-${first}.cpp")
    add_custom_command(OUTPUT "${file}" COMMAND awk -f "${script}" ${batch} > "${file}" DEPENDS ${batch} "${script}"
      COMMENT "Uniting ${file}" VERBATIM)
    list(APPEND united "${file}")
  endforeach()
  file(MAKE_DIRECTORY "${CMAKE_CURRENT_BINARY_DIR}/united")
  set(${result} ${united} PARENT_SCOPE)
endfunction()

# diskstream_add_tests(name TIMEOUT seconds [COMMAND_UNDER_TEST] LIBRARIES ... SOURCES ...)
# Makes a test program, whose tests are ctest's under the program's name as their label. Nothing happens as
# long as there are no sources. With COMMAND_UNDER_TEST the tests know where the built command lies.
function(diskstream_add_tests name)
  cmake_parse_arguments(PARSE_ARGV 1 ARG "COMMAND_UNDER_TEST" "TIMEOUT" "LIBRARIES;SOURCES")
  if(NOT ARG_SOURCES)
    return()
  endif()
  diskstream_test_sources(sources ${name} ${ARG_SOURCES})
  add_executable(${name} ${sources})
  diskstream_own_target(${name})
  if(DISKSTREAM_UNITE_TESTS)
    # gcc takes the lines of another source for a header's, which shouldn't make classes of what is its own.
    target_compile_options(${name} PRIVATE $<$<CXX_COMPILER_ID:GNU>:-Wno-subobject-linkage>)
  endif()
  target_compile_definitions(${name} PRIVATE ${DISKSTREAM_TEST_DEFINITIONS})
  target_link_libraries(${name} PRIVATE $<TARGET_NAME_IF_EXISTS:test_support> ${ARG_LIBRARIES}
    GTest::gmock_main GTest::gmock GTest::gtest)
  # Half of the time that a test takes to compile goes to GoogleTest's header.
  target_precompile_headers(${name} PRIVATE <gtest/gtest.h> <string> <vector>)
  if(CMAKE_BUILD_TYPE STREQUAL "Debug" AND NOT DISKSTREAM_COVERAGE)
    # Tests compile twice as fast unoptimised, and don't wait for themselves: the sources do the work.
    target_compile_options(${name} PRIVATE -O0 -g1)
  endif()
  if(ARG_COMMAND_UNDER_TEST)
    target_compile_definitions(${name} PRIVATE DISKSTREAM_COMMAND="$<TARGET_FILE:diskstream_tool>")
    add_dependencies(${name} diskstream_tool)
  endif()
  math(EXPR timeout "${ARG_TIMEOUT} * ${DISKSTREAM_TIMEOUT_FACTOR}")
  diskstream_discover_tests(${name} ${timeout})
endfunction()
