# SPDX-License-Identifier: Apache-2.0
# Read by cpack before it makes packages.

# The packages carry the date of the changelog, not that of their making, unless the environment gives another one.
if(NOT DEFINED ENV{SOURCE_DATE_EPOCH})
  execute_process(COMMAND dpkg-parsechangelog -l ${CPACK_METADATA_DEBIAN}/changelog -S Timestamp
                  OUTPUT_VARIABLE epoch OUTPUT_STRIP_TRAILING_WHITESPACE COMMAND_ERROR_IS_FATAL ANY)
  set(ENV{SOURCE_DATE_EPOCH} ${epoch})
endif()

# What a package for another machine depends on stands in the sysroot it was built against, and dpkg-shlibdeps is told to
# look there.
if(CPACK_METADATA_SYSROOT)
  set(ENV{DEB_HOST_ARCH} ${CPACK_DEBIAN_PACKAGE_ARCHITECTURE})
  set(ENV{METADATA_SYSROOT} ${CPACK_METADATA_SYSROOT})
  set(ENV{PATH} "${CPACK_METADATA_DEBIAN}/cross:$ENV{PATH}")
endif()
