# Read by cpack before it makes packages. What a package for another machine depends on stands in the sysroot it was
# built against, and dpkg-shlibdeps is told to look there.
if(CPACK_METADATA_SYSROOT)
  set(ENV{DEB_HOST_ARCH} ${CPACK_DEBIAN_PACKAGE_ARCHITECTURE})
  set(ENV{METADATA_SYSROOT} ${CPACK_METADATA_SYSROOT})
  set(ENV{PATH} "${CPACK_METADATA_DEBIAN}/cross:$ENV{PATH}")
endif()
