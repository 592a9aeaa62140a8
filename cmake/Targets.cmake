# What our own targets have in common. Nothing here reaches GoogleTest or another library.

# -Wsign-conversion stays out: sizes and offsets pass between the unsigned numbers of the interfaces and the signed
# ones of the system in every call, and a cast at each of them would hide the one that matters. clang counts it as part
# of -Wconversion, gcc doesn't.
set(DISKSTREAM_WARNINGS -Wall -Wextra -Wpedantic -Wshadow -Wconversion -Wno-sign-conversion -Wold-style-cast
  -Wnon-virtual-dtor -Woverloaded-virtual -Wformat=2 -Wimplicit-fallthrough -Werror)
if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
  list(APPEND DISKSTREAM_WARNINGS -Wduplicated-cond -Wlogical-op)
  if(CMAKE_CXX_COMPILER_VERSION VERSION_LESS 13)
    # gcc 12 sees overlapping copies inside std::string's operator+ where there are none.
    list(APPEND DISKSTREAM_WARNINGS -Wno-restrict)
  endif()
else()
  # clang warns as well where a format is passed on together with its va_list, which is how a log works.
  list(APPEND DISKSTREAM_WARNINGS -Wno-format-nonliteral)
endif()

# A target of ours sees the whole house from the top of the repository and is compiled with all warnings.
function(diskstream_own_target target)
  target_compile_features(${target} PUBLIC cxx_std_20)
  target_compile_options(${target} PRIVATE ${DISKSTREAM_WARNINGS})
  target_include_directories(${target} PUBLIC "$<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}>")
endfunction()

# For a target whose headers take far longer to compile than its own lines. One change then compiles all of it again, so
# that it is for those who build once.
function(diskstream_unite target)
  if(DISKSTREAM_UNITE)
    set_target_properties(${target} PROPERTIES UNITY_BUILD ON UNITY_BUILD_BATCH_SIZE 8)
    # gcc takes a source that is included for a header, which shouldn't make classes of what is its own.
    target_compile_options(${target} PRIVATE $<$<CXX_COMPILER_ID:GNU>:-Wno-subobject-linkage>)
  endif()
endfunction()

# The same for a library, for those who work on the rest. Whether each source includes what it uses, a build for use tells.
function(diskstream_unite_library target)
  if(DISKSTREAM_UNITE_LIBRARIES)
    diskstream_unite(${target})
  endif()
endfunction()

# The standard headers that most sources include take longer to compile than what the sources say. Each source includes
# what it uses all the same: a build for use compiles without this, since a header of the system, once precompiled, counts
# as ours, and gcc 12, optimising, warns of copies inside std::string that never happen.
function(diskstream_precompile target)
  if(NOT CMAKE_BUILD_TYPE STREQUAL "Debug")
    return()
  endif()
  target_precompile_headers(${target} PRIVATE <algorithm> <array> <cstdint> <cstring> <functional> <map> <memory>
    <optional> <string> <utility> <vector>)
endfunction()

# Sources of the folders named, relative to the top. They are globbed, and the glob is looked at again in every build, so
# that a new source needs no change here. Of posix/ and windows/ only the system's own is taken, at any depth, as of tests
# whose names end in _posix_test and _windows_test.
function(diskstream_sources result)
  set(sources "")
  foreach(folder IN LISTS ARGN)
    file(GLOB_RECURSE found CONFIGURE_DEPENDS "${PROJECT_SOURCE_DIR}/${folder}/*.cpp")
    list(APPEND sources ${found})
  endforeach()
  if(WIN32)
    list(FILTER sources EXCLUDE REGEX "/posix/|_posix_test\\.cpp$")
  else()
    list(FILTER sources EXCLUDE REGEX "/windows/|_windows_test\\.cpp$")
  endif()
  set(${result} "${sources}" PARENT_SCOPE)
endfunction()

# The objects of `objects` become the shared library `shared` and the static one `static`, both named `fileName` on disk.
function(diskstream_libraries objects shared static fileName)
  add_library(${static} STATIC)
  set(libraries ${static})
  if(DISKSTREAM_BUILD_SHARED)
    add_library(${shared} SHARED)
    list(APPEND libraries ${shared})
    set_target_properties(${shared} PROPERTIES VERSION ${PROJECT_VERSION} SOVERSION ${PROJECT_VERSION_MAJOR})
    target_link_options(${shared} PRIVATE -Wl,--no-undefined)
  endif()
  foreach(library IN LISTS libraries)
    diskstream_own_target(${library})
    target_sources(${library} PRIVATE $<TARGET_OBJECTS:${objects}>)
    target_include_directories(${library} PUBLIC "$<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}/diskstream>")
    set_target_properties(${library} PROPERTIES OUTPUT_NAME ${fileName} LINKER_LANGUAGE CXX)
  endforeach()
  target_compile_definitions(${static} INTERFACE DISKSTREAM_STATIC)
endfunction()
