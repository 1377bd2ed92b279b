# SPDX-License-Identifier: Apache-2.0
# Debian packages: `cpack` in a folder that the preset package or package-aarch64 built, which have the folders of /usr.
# scripts/packages makes and tries them all.
set(METADATA_MAINTAINER "metadata_lib developers <maintainers@metadata-lib.invalid>" CACHE STRING
    "Who answers for the packages, as Debian's field Maintainer has it")

set(debian ${PROJECT_SOURCE_DIR}/packaging/debian)
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_CONTACT ${METADATA_MAINTAINER})
set(CPACK_PACKAGING_INSTALL_PREFIX ${CMAKE_INSTALL_PREFIX})
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_ENABLE_COMPONENT_DEPENDS ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SOURCE metadata-lib)
set(CPACK_DEBIAN_PACKAGE_RELEASE 1)
set(CPACK_DEBIAN_COMPRESSION_TYPE xz)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
set(CPACK_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE
    WORLD_READ WORLD_EXECUTE)
set(CPACK_PRE_BUILD_SCRIPTS ${debian}/finish_files.cmake)
set(CPACK_POST_BUILD_SCRIPTS ${debian}/finish_packages.cmake)
set(CPACK_PROJECT_CONFIG_FILE ${debian}/environment.cmake)
set(CPACK_METADATA_DEBIAN ${debian})
set(CPACK_METADATA_SYSROOT ${CMAKE_SYSROOT})
set(CPACK_READELF_EXECUTABLE ${CMAKE_READELF})
set(CPACK_OBJCOPY_EXECUTABLE ${CMAKE_OBJCOPY})
if(CMAKE_SYSTEM_PROCESSOR MATCHES "^(aarch64|arm64)$")
  set(CPACK_DEBIAN_PACKAGE_ARCHITECTURE arm64)
elseif(CMAKE_SYSTEM_PROCESSOR MATCHES "^(x86_64|AMD64)$")
  set(CPACK_DEBIAN_PACKAGE_ARCHITECTURE amd64)
endif()

# metadata_package(<component> <package> <section> <Multi-Arch> <synopsis> <description>)
set(CPACK_COMPONENTS_ALL)
macro(metadata_package component package section multi_arch synopsis description)
  string(TOUPPER ${component} upper)
  list(APPEND CPACK_COMPONENTS_ALL ${component})
  set(CPACK_DEBIAN_${upper}_PACKAGE_NAME ${package})
  set(CPACK_DEBIAN_${upper}_PACKAGE_SECTION ${section})
  set(CPACK_DEBIAN_${upper}_DESCRIPTION "${synopsis}\n${description}")
  set(CPACK_METADATA_MULTI_ARCH_${package} ${multi_arch})
endmacro()
# The debug information of a package, which finish_files.cmake takes out of its files.
macro(metadata_debug_package component)
  string(TOUPPER ${component} upper)
  set(package ${CPACK_DEBIAN_${upper}_PACKAGE_NAME})
  metadata_package(${component}_dbgsym ${package}-dbgsym debug same "debug symbols for ${package}"
                   "This package has the symbols that a debugger needs for the files of\n${package}.")
  set(CPACK_COMPONENT_${upper}_DEPENDS ${component})
endmacro()
set(about "The metadata library receives KLV (MISB ST 0601) and Cursor-on-Target from
serial lines, UDP and the ancillary data of video inputs, converts, rewrites
and relays it, and hands it to a video encoder.")

metadata_package(library libmetadata-lib${PROJECT_VERSION_MAJOR} libs same "metadata ingest for video encoders"
                 "${about}\n.\nThis package has the shared library.")
set(CPACK_DEBIAN_LIBRARY_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_LIBRARY_PACKAGE_SUGGESTS metadata-tools)
# What other packages that are linked with the library depend on.
set(soversion ${PROJECT_VERSION_MAJOR})
file(CONFIGURE OUTPUT ${PROJECT_BINARY_DIR}/shlibs
     CONTENT "libmetadata_lib ${soversion} libmetadata-lib${soversion} (>= ${PROJECT_VERSION})\n")
set(CPACK_DEBIAN_LIBRARY_PACKAGE_CONTROL_EXTRA ${debian}/library/triggers ${PROJECT_BINARY_DIR}/shlibs)
metadata_debug_package(library)

metadata_package(dev libmetadata-lib-dev libdevel same "metadata ingest for video encoders - development"
                 "${about}\n.\nThis package has the headers, the Linux host runtime as an archive, and what
CMake and pkg-config need to find them.")
set(CPACK_COMPONENT_DEV_DEPENDS library)

if(METADATA_BUILD_HOST)
  set(CPACK_DEBIAN_DEV_PACKAGE_DEPENDS
      "libspdlog-dev, libfmt-dev, libinih-dev, libavformat-dev, libavcodec-dev, libavutil-dev")
  metadata_package(tools metadata-tools video foreign "stand-in encoder and traffic source for the metadata library"
                   "${about}\n.\nThis package has the programs mdencoder, which stands in for an encoder,
mdfeed, which makes traffic, and make_geoid_grid, which makes the geoid grid
that the library loads.")
  set(CPACK_COMPONENT_TOOLS_DEPENDS library)
  set(CPACK_DEBIAN_TOOLS_PACKAGE_DEPENDS "proj-data")
  set(CPACK_DEBIAN_TOOLS_PACKAGE_SHLIBDEPS ON)
  set(CPACK_DEBIAN_TOOLS_PACKAGE_CONTROL_EXTRA ${debian}/tools/postinst ${debian}/tools/postrm)
  metadata_debug_package(tools)
endif()

metadata_package(doc metadata-lib-doc doc foreign "metadata ingest for video encoders - documentation"
                 "${about}\n.\nThis package has the guide for encoders, the reference of the interface, the
wire formats and an example in C.")
set(CPACK_DEBIAN_DOC_PACKAGE_ARCHITECTURE all)

include(CPack)
