# SPDX-License-Identifier: Apache-2.0
# Run by cpack on the finished packages, for what its generator cannot say: the field Multi-Arch, and a library without
# maintainer scripts, since the trigger of its own calls ldconfig. The order of the sums, dates, permissions and the way
# of compressing do not depend on where, when and by whom a package is made, so that it is the same bit by bit.
cmake_policy(VERSION 3.25)

function(run)
  execute_process(COMMAND ${ARGV} COMMAND_ERROR_IS_FATAL ANY OUTPUT_QUIET)
endfunction()

foreach(file IN LISTS CPACK_PACKAGE_FILES)
  set(folder ${file}.unpacked)
  run(dpkg-deb --raw-extract ${file} ${folder})
  file(READ ${folder}/DEBIAN/control control)
  string(REGEX MATCH "Package: ([^\n]+)" package "${control}")
  set(package ${CMAKE_MATCH_1})
  string(STRIP "${control}" control)
  file(WRITE ${folder}/DEBIAN/control "${control}\nMulti-Arch: ${CPACK_METADATA_MULTI_ARCH_${package}}\n")
  if(EXISTS ${folder}/DEBIAN/triggers)
    file(REMOVE ${folder}/DEBIAN/postinst ${folder}/DEBIAN/postrm)
  endif()
  file(STRINGS ${folder}/DEBIAN/md5sums sums)
  list(SORT sums)
  list(JOIN sums "\n" sums)
  file(WRITE ${folder}/DEBIAN/md5sums "${sums}\n")
  run(chmod -R u=rwX,go=rX ${folder})
  run(find ${folder} -exec touch --no-dereference --date=@$ENV{SOURCE_DATE_EPOCH} {} +)
  run(dpkg-deb --root-owner-group -Zxz --threads-max=1 --build ${folder} ${file})
  file(REMOVE_RECURSE ${folder})
endforeach()
