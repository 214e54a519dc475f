# SPDX-FileCopyrightText: The ipsec-helpers authors
# SPDX-License-Identifier: Apache-2.0

# What makes an error in memory harder to exploit. A distribution that brings such flags of its own switches these off
# with IPSEC_HARDENING=OFF. tests/whole/hardening.py reads from the libraries whether they have it.

add_compile_options(-fstack-protector-strong)
# Fortified functions need optimisation, and the sanitizers watch the plain ones. Level 3 needs g++ 12.
if(NOT IPSEC_SANITIZE)
  set(oldGcc $<AND:$<CXX_COMPILER_ID:GNU>,$<VERSION_LESS:$<CXX_COMPILER_VERSION>,12>>)
  add_compile_options($<$<CONFIG:Release,RelWithDebInfo,MinSizeRel>:-U_FORTIFY_SOURCE>
                      $<$<CONFIG:Release,RelWithDebInfo,MinSizeRel>:-D_FORTIFY_SOURCE=$<IF:${oldGcc},2,3>>)
endif()
add_link_options(LINKER:-z,relro LINKER:-z,now LINKER:-z,noexecstack)
if(CMAKE_SYSTEM_PROCESSOR MATCHES "x86|AMD64")
  # Shadow stacks and indirect branch tracking. The start files of Debian 12 and 13 are not marked for either. They keep
  # to the rules of shadow stacks, which the linker is told; but they have no landing pad for an indirect call.
  add_compile_options(-fcf-protection=full)
  add_link_options(LINKER:-z,shstk)
endif()
