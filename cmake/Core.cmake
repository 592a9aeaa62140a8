# The core: the standard library and the system, nothing else. Its folders in the order in which they may use each
# other; one without sources yet is passed over.
set(DISKSTREAM_CORE_FOLDERS platform foundation VirtualServer/VMInfo ntfs archive)

find_package(Threads REQUIRED)

diskstream_sources(coreSources ${DISKSTREAM_CORE_FOLDERS})
if(NOT coreSources)
  message(FATAL_ERROR "There are no sources in ${DISKSTREAM_CORE_FOLDERS}.")
endif()

add_library(diskstream_objects OBJECT ${coreSources})
diskstream_own_target(diskstream_objects)
diskstream_precompile(diskstream_objects)
diskstream_unite_library(diskstream_objects)
# In ELF one set of objects serves both libraries; where there is only a static library, nothing is exported.
if(DISKSTREAM_BUILD_SHARED)
  target_compile_definitions(diskstream_objects PRIVATE DISKSTREAM_SHARED_BUILD)
else()
  target_compile_definitions(diskstream_objects PRIVATE DISKSTREAM_STATIC)
endif()

diskstream_libraries(diskstream_objects diskstream diskstream_static diskstream)
# Static users need the system's libraries as well; the shared library brings them along by itself.
set(DISKSTREAM_SYSTEM_LIBRARIES Threads::Threads ${CMAKE_DL_LIBS})
if(WIN32)
  list(APPEND DISKSTREAM_SYSTEM_LIBRARIES rpcrt4)
endif()
target_link_libraries(diskstream_static PUBLIC ${DISKSTREAM_SYSTEM_LIBRARIES})
if(DISKSTREAM_BUILD_SHARED)
  target_link_libraries(diskstream PRIVATE ${DISKSTREAM_SYSTEM_LIBRARIES})
  add_library(diskstream::diskstream ALIAS diskstream)
endif()
add_library(diskstream::diskstream_static ALIAS diskstream_static)

# Linked whole, the library shows whether the Windows side has all that is asked of it.
if(WIN32)
  add_library(diskstream_whole MODULE EXCLUDE_FROM_ALL $<TARGET_OBJECTS:diskstream_objects>)
  target_link_libraries(diskstream_whole PRIVATE ${DISKSTREAM_SYSTEM_LIBRARIES})
  set_target_properties(diskstream_whole PROPERTIES LINKER_LANGUAGE CXX)
endif()
