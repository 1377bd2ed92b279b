# SPDX-License-Identifier: Apache-2.0
# What an installed tree has beside the programs and libraries, which stand with their targets: a CMake package,
# pkg-config files, documentation, man pages, the example and completions. Nothing in it names the folder it was
# installed to, so that the tree may be moved.
include(CMakePackageConfigHelpers)

set(package_folder ${CMAKE_INSTALL_LIBDIR}/cmake/metadata_lib)
set(pkgconfig_folder ${CMAKE_INSTALL_LIBDIR}/pkgconfig)

# --- CMake: find_package(metadata_lib), with the component host_runtime where it was built
install(EXPORT metadata_lib FILE metadata_libTargets.cmake NAMESPACE metadata_lib:: DESTINATION ${package_folder}
        COMPONENT dev)
configure_package_config_file(${PROJECT_SOURCE_DIR}/cmake/metadata_libConfig.cmake.in
                              ${PROJECT_BINARY_DIR}/metadata_libConfig.cmake INSTALL_DESTINATION ${package_folder}
                              NO_CHECK_REQUIRED_COMPONENTS_MACRO
                              PATH_VARS CMAKE_INSTALL_LIBDIR CMAKE_INSTALL_INCLUDEDIR)
write_basic_package_version_file(${PROJECT_BINARY_DIR}/metadata_libConfigVersion.cmake COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/metadata_libConfig.cmake ${PROJECT_BINARY_DIR}/metadata_libConfigVersion.cmake
        DESTINATION ${package_folder} COMPONENT dev)

# --- pkg-config: the prefix is where the file stands. An absolute LIBDIR cannot be moved and stays as it is.
if(IS_ABSOLUTE ${CMAKE_INSTALL_LIBDIR})
  set(pc_prefix ${CMAKE_INSTALL_PREFIX})
  set(pc_libdir ${CMAKE_INSTALL_LIBDIR})
else()
  file(RELATIVE_PATH pc_prefix /prefix/${pkgconfig_folder} /prefix)
  string(REGEX REPLACE "/$" "" pc_prefix "\${pcfiledir}/${pc_prefix}")
  set(pc_libdir "\${prefix}/${CMAKE_INSTALL_LIBDIR}")
endif()
cmake_path(ABSOLUTE_PATH CMAKE_INSTALL_INCLUDEDIR BASE_DIRECTORY "\${prefix}" OUTPUT_VARIABLE pc_includedir)
set(pc_files metadata_lib)
if(METADATA_BUILD_HOST)
  list(APPEND pc_files metadata_host_runtime)
endif()
foreach(name IN LISTS pc_files)
  configure_file(${PROJECT_SOURCE_DIR}/cmake/${name}.pc.in ${PROJECT_BINARY_DIR}/${name}.pc @ONLY)
  install(FILES ${PROJECT_BINARY_DIR}/${name}.pc DESTINATION ${pkgconfig_folder} COMPONENT dev)
endforeach()

# --- documentation, and an example that builds against the installed tree; a project that adds this one as a folder has
# its own
if(NOT PROJECT_IS_TOP_LEVEL)
  return()
endif()
set(METADATA_ZSH_COMPLETION_DIR ${CMAKE_INSTALL_DATADIR}/zsh/site-functions CACHE STRING "Where zsh finds completions")
install(FILES README.md CHANGELOG.md CONTRIBUTING.md LICENSE NOTICE DESTINATION ${CMAKE_INSTALL_DOCDIR} COMPONENT doc)
install(DIRECTORY docs DESTINATION ${CMAKE_INSTALL_DOCDIR} COMPONENT doc FILES_MATCHING PATTERN *.md
        PATTERN *.svg PATTERN man EXCLUDE)
install(DIRECTORY example DESTINATION ${CMAKE_INSTALL_DOCDIR} COMPONENT doc)
install(FILES docs/man/metadata_lib.3 DESTINATION ${CMAKE_INSTALL_MANDIR}/man3 COMPONENT dev)
if(METADATA_BUILD_HOST)
  foreach(program mdencoder mdfeed make_geoid_grid)
    install(FILES docs/man/${program}.1 DESTINATION ${CMAKE_INSTALL_MANDIR}/man1 COMPONENT tools)
    install(FILES completions/${program}.bash RENAME ${program} COMPONENT tools
            DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions)
    install(FILES completions/_${program} COMPONENT tools DESTINATION ${METADATA_ZSH_COMPLETION_DIR})
  endforeach()
  install(FILES docs/man/mdencoder.ini.5 DESTINATION ${CMAKE_INSTALL_MANDIR}/man5 COMPONENT tools)
endif()
