# What `cmake --install` puts in place: libraries, public headers, a CMake package and pkg-config files.
include(CMakePackageConfigHelpers)

set(DISKSTREAM_PACKAGE_DIR "${CMAKE_INSTALL_LIBDIR}/cmake/diskstream")
set(DISKSTREAM_PC_DIR "${CMAKE_INSTALL_LIBDIR}/pkgconfig")
# The pkg-config files find their prefix from where they lie, so that an installed tree can be moved.
file(RELATIVE_PATH DISKSTREAM_PREFIX_FROM_PC "/prefix/${DISKSTREAM_PC_DIR}" "/prefix")

# The seam to the system is ours alone, but for what the public headers include.
set(DISKSTREAM_PUBLIC_PLATFORM_HEADERS Export.h Files.h GuidRecord.h SharedLibrary.h posix/GuidRecordPosix.h NtfsVolumeRecord.h
  posix/NtfsVolumeRecordPosix.h)

# Public headers keep their paths below include/diskstream; what lies in a folder `detail` isn't public.
function(diskstream_install_headers)
  foreach(folder IN LISTS ARGN)
    install(DIRECTORY "${PROJECT_SOURCE_DIR}/${folder}/"
      DESTINATION "${CMAKE_INSTALL_INCLUDEDIR}/diskstream/${folder}"
      FILES_MATCHING PATTERN "*.h" PATTERN "detail" EXCLUDE)
  endforeach()
endfunction()

# Installs the targets named behind `name` as one export set, with a pkg-config file beside it.
function(diskstream_install_part name)
  install(TARGETS ${ARGN} EXPORT ${name}Targets)
  install(EXPORT ${name}Targets NAMESPACE diskstream:: DESTINATION "${DISKSTREAM_PACKAGE_DIR}")
  configure_file("${PROJECT_SOURCE_DIR}/cmake/${name}.pc.in" "${PROJECT_BINARY_DIR}/package/${name}.pc" @ONLY)
  install(FILES "${PROJECT_BINARY_DIR}/package/${name}.pc" DESTINATION "${DISKSTREAM_PC_DIR}")
endfunction()

function(diskstream_install_package)
  set(config "${PROJECT_BINARY_DIR}/package/diskstreamConfig.cmake")
  set(version "${PROJECT_BINARY_DIR}/package/diskstreamConfigVersion.cmake")
  configure_package_config_file("${PROJECT_SOURCE_DIR}/cmake/diskstreamConfig.cmake.in" "${config}"
    INSTALL_DESTINATION "${DISKSTREAM_PACKAGE_DIR}")
  # Before 1.0 a minor version may change the interface.
  write_basic_package_version_file("${version}" COMPATIBILITY SameMinorVersion)
  install(FILES "${config}" "${version}" DESTINATION "${DISKSTREAM_PACKAGE_DIR}")
endfunction()

set(coreTargets diskstream_static)
set(agentTargets diskstream_agent_static)
if(DISKSTREAM_BUILD_SHARED)
  list(APPEND coreTargets diskstream)
  list(APPEND agentTargets diskstream_agent)
endif()

foreach(header IN LISTS DISKSTREAM_PUBLIC_PLATFORM_HEADERS)
  get_filename_component(folder "platform/${header}" DIRECTORY)
  install(FILES "${PROJECT_SOURCE_DIR}/platform/${header}"
    DESTINATION "${CMAKE_INSTALL_INCLUDEDIR}/diskstream/${folder}")
endforeach()
set(publicFolders ${DISKSTREAM_CORE_FOLDERS})
list(REMOVE_ITEM publicFolders platform)
foreach(folder IN LISTS publicFolders)
  if(EXISTS "${PROJECT_SOURCE_DIR}/${folder}")
    diskstream_install_headers(${folder})
  endif()
endforeach()
diskstream_install_part(diskstream ${coreTargets})
# A program that needs only the core doesn't look for the agent's libraries, so the agent is a part of its own.
if(TARGET diskstream_agent_static)
  diskstream_install_headers(agent hypervisor)
  diskstream_install_part(diskstream-agent ${agentTargets})
endif()
diskstream_install_package()
