# SPDX-License-Identifier: Apache-2.0
# How optimised builds are hardened, for everything of this folder and below it. Debug builds and sanitizers have checks
# of their own. tests/abi/hardening_test.py looks for each of these in what was built.
#
# What is compiled marks itself for indirect branch tracking and shadow stacks (x86-64), branch target identification
# and pointer authentication (64-bit Arm). The linker marks a file when everything in it is marked. It is not forced to:
# the start files of a C library without such marks (Debian 12's are) have an _init without landing pad, at which a
# machine that enforces them would end the process while it loads.
option(METADATA_HARDENING "Harden optimised builds" ON)
if(NOT METADATA_HARDENING OR METADATA_SANITIZE)
  return()
endif()

include(CheckCompilerFlag)
set(hardening -fstack-protector-strong)
if(CMAKE_SYSTEM_PROCESSOR MATCHES "^(x86_64|AMD64)$")
  list(APPEND hardening -fcf-protection=full)
elseif(CMAKE_SYSTEM_PROCESSOR MATCHES "^(aarch64|arm64)$")
  list(APPEND hardening -mbranch-protection=standard)
endif()
# clang 14 has it for some processors.
set(CMAKE_REQUIRED_FLAGS -Werror)
check_compiler_flag(CXX -fstack-clash-protection METADATA_HAS_STACK_CLASH_PROTECTION)
unset(CMAKE_REQUIRED_FLAGS)
if(METADATA_HAS_STACK_CLASH_PROTECTION)
  list(APPEND hardening -fstack-clash-protection)
endif()
# A level that the compiler or the integrator sets already would be defined twice.
list(APPEND hardening -U_FORTIFY_SOURCE -D_FORTIFY_SOURCE=2)
set(hardening_link -Wl,-z,relro -Wl,-z,now -Wl,-z,separate-code -Wl,-z,noexecstack -Wl,-z,text)

set(optimised $<CONFIG:Release,RelWithDebInfo,MinSizeRel>)
add_compile_options("$<${optimised}:${hardening}>")
add_link_options("$<${optimised}:${hardening_link}>")
if(PROJECT_IS_TOP_LEVEL)
  include(CheckPIESupported)
  check_pie_supported(LANGUAGES C CXX)
endif()
