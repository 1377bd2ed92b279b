# SPDX-License-Identifier: Apache-2.0
# Run by cpack on the files of all packages before they are packed: debug information goes to packages of its own, man
# pages are compressed, and each package gets its copyright and changelog, as Debian wants them.
cmake_policy(VERSION 3.25)

function(run)
  execute_process(COMMAND ${ARGV} COMMAND_ERROR_IS_FATAL ANY)
endfunction()

# Moves the debug information of one file to where debuggers look for it by the file's build identifier.
function(split_debug_information file debug)
  execute_process(COMMAND ${CPACK_READELF_EXECUTABLE} -n ${file} OUTPUT_VARIABLE notes COMMAND_ERROR_IS_FATAL ANY)
  if(NOT notes MATCHES "Build ID: ([0-9a-f][0-9a-f])([0-9a-f]+)")
    message(FATAL_ERROR "${file} has no build identifier")
  endif()
  set(symbols ${debug}/lib/debug/.build-id/${CMAKE_MATCH_1}/${CMAKE_MATCH_2}.debug)
  get_filename_component(folder ${symbols} DIRECTORY)
  file(MAKE_DIRECTORY ${folder})
  run(${CPACK_OBJCOPY_EXECUTABLE} --only-keep-debug --compress-debug-sections ${file} ${symbols})
  run(${CPACK_OBJCOPY_EXECUTABLE} --strip-unneeded --remove-section=.comment --add-gnu-debuglink=${symbols} ${file})
  file(CHMOD ${symbols} PERMISSIONS OWNER_READ OWNER_WRITE GROUP_READ WORLD_READ)
endfunction()

foreach(component IN LISTS CPACK_COMPONENTS_ALL)
  string(TOUPPER ${component} upper)
  set(files ${CPACK_TEMPORARY_INSTALL_DIRECTORY}/${component}${CPACK_PACKAGING_INSTALL_PREFIX})
  if(${component}_dbgsym IN_LIST CPACK_COMPONENTS_ALL)
    file(GLOB binaries ${files}/bin/* ${files}/lib/*/*.so.*)
    foreach(binary IN LISTS binaries)
      if(NOT IS_SYMLINK ${binary})
        split_debug_information(${binary} ${CPACK_TEMPORARY_INSTALL_DIRECTORY}/${component}_dbgsym/usr)
      endif()
    endforeach()
  endif()
  file(GLOB_RECURSE archives ${files}/lib/*.a)
  if(archives)
    run(${CPACK_OBJCOPY_EXECUTABLE} --strip-debug --enable-deterministic-archives ${archives})
  endif()

  set(documents ${files}/share/doc/${CPACK_DEBIAN_${upper}_PACKAGE_NAME})
  file(COPY ${CPACK_METADATA_DEBIAN}/copyright ${CPACK_METADATA_DEBIAN}/changelog DESTINATION ${documents}
       FILE_PERMISSIONS OWNER_READ OWNER_WRITE GROUP_READ WORLD_READ)
  file(RENAME ${documents}/changelog ${documents}/changelog.Debian)
  run(gzip -9nf ${documents}/changelog.Debian)
  file(GLOB_RECURSE pages ${files}/share/man/*.[1-8])
  if(pages)
    run(gzip -9nf ${pages})
  endif()
endforeach()
# The copyright file has it.
file(REMOVE ${CPACK_TEMPORARY_INSTALL_DIRECTORY}/doc${CPACK_PACKAGING_INSTALL_PREFIX}/share/doc/metadata_lib/LICENSE)
