# SPDX-License-Identifier: Apache-2.0
# The reference and the pages in HTML, made by doxygen, of which every warning is an error. Packages have them.
option(METADATA_BUILD_DOC "Build the documentation in HTML (needs doxygen and Python)" OFF)
if(NOT METADATA_BUILD_DOC)
  return()
endif()

find_package(Doxygen REQUIRED)
find_package(Python3 REQUIRED COMPONENTS Interpreter)
configure_file(${PROJECT_SOURCE_DIR}/docs/Doxyfile.in ${PROJECT_BINARY_DIR}/Doxyfile @ONLY)
file(GLOB documented CONFIGURE_DEPENDS ${PROJECT_SOURCE_DIR}/*.md ${PROJECT_SOURCE_DIR}/docs/*.*
     ${PROJECT_SOURCE_DIR}/docs/formats/*.md ${PROJECT_SOURCE_DIR}/docs/outputs/*.md
     ${PROJECT_SOURCE_DIR}/docs/sources/*.md ${PROJECT_SOURCE_DIR}/host/*.h)
add_custom_command(OUTPUT ${PROJECT_BINARY_DIR}/doc.done
  COMMAND ${CMAKE_COMMAND} -E rm -rf ${PROJECT_BINARY_DIR}/doc
  COMMAND ${CMAKE_COMMAND} -E make_directory ${PROJECT_BINARY_DIR}/doc
  COMMAND Doxygen::doxygen ${PROJECT_BINARY_DIR}/Doxyfile
  COMMAND ${CMAKE_COMMAND} -E touch ${PROJECT_BINARY_DIR}/doc.done
  DEPENDS ${documented} ${PROJECT_BINARY_DIR}/Doxyfile ${PROJECT_SOURCE_DIR}/host_runtime/host_runtime.h
          ${PROJECT_SOURCE_DIR}/metadata_lib/include/metadata_lib.h
  WORKING_DIRECTORY ${PROJECT_SOURCE_DIR} VERBATIM)
add_custom_target(documentation ALL DEPENDS ${PROJECT_BINARY_DIR}/doc.done)
install(DIRECTORY ${PROJECT_BINARY_DIR}/doc/html DESTINATION ${CMAKE_INSTALL_DOCDIR} COMPONENT doc)
