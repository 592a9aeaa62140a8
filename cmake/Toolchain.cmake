# How everything here is compiled, our own code and GoogleTest built from source alike.

set(CMAKE_CXX_STANDARD 20)
set(CMAKE_CXX_STANDARD_REQUIRED ON)
set(CMAKE_CXX_EXTENSIONS OFF)
set(CMAKE_CXX_VISIBILITY_PRESET hidden)
set(CMAKE_VISIBILITY_INLINES_HIDDEN ON)
# The same objects go into the shared and into the static library, so that sources compile once.
set(CMAKE_POSITION_INDEPENDENT_CODE ON)

if(NOT CMAKE_BUILD_TYPE)
  set(CMAKE_BUILD_TYPE Release CACHE STRING "Debug, Release or RelWithDebInfo" FORCE)
endif()
# -Og keeps the debugger honest and makes the tests several times as fast as -O0. A preset may say otherwise.
if(CMAKE_CXX_FLAGS_DEBUG STREQUAL "-g")
  set(CMAKE_CXX_FLAGS_DEBUG "-Og -g")
endif()

find_program(DISKSTREAM_CCACHE ccache)
if(DISKSTREAM_CCACHE AND NOT CMAKE_CXX_COMPILER_LAUNCHER)
  # What a precompiled header defines counts with the header, so results with one can be kept too.
  set(CMAKE_CXX_COMPILER_LAUNCHER "${CMAKE_COMMAND}" -E env CCACHE_SLOPPINESS=pch_defines,time_macros
    "${DISKSTREAM_CCACHE}")
endif()

if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
  add_compile_options(-fpch-preprocess)  # which ccache needs to see through a precompiled header
endif()

if(NOT WIN32)
  # Offsets of 64 bits on a 32-bit machine too.
  add_compile_definitions(_FILE_OFFSET_BITS=64)
endif()

# The container's own checks: an index outside a vector ends a test run instead of reading on.
add_compile_definitions($<$<CONFIG:Debug>:_GLIBCXX_ASSERTIONS>)

if(DISKSTREAM_SANITIZE)
  add_compile_options(-fsanitize=${DISKSTREAM_SANITIZE} -fno-sanitize-recover=all -fno-omit-frame-pointer)
  add_link_options(-fsanitize=${DISKSTREAM_SANITIZE})
endif()

if(DISKSTREAM_BUILD_FUZZERS)
  if(NOT CMAKE_CXX_COMPILER_ID MATCHES "Clang")
    message(FATAL_ERROR "libFuzzer is part of clang: configure with the preset fuzz.")
  endif()
  add_compile_options(-fsanitize=fuzzer-no-link)
endif()

if(DISKSTREAM_COVERAGE)
  add_compile_options(--coverage)
  add_link_options(--coverage)
endif()

if(DISKSTREAM_HARDEN)
  add_compile_definitions(_FORTIFY_SOURCE=2)
  add_compile_options(-fstack-protector-strong)
  add_link_options(-Wl,-z,relro -Wl,-z,now)
endif()

if(WIN32)
  # A test program copied to a Windows machine needs nothing beside it.
  add_link_options(-static)
endif()
