# SPDX-FileCopyrightText: The ipsec-helpers authors
# SPDX-License-Identifier: Apache-2.0

# What is installed: the libraries, the headers, a CMake package, a pkg-config file.

include(CMakePackageConfigHelpers)
set(installedHeaders ${CMAKE_INSTALL_INCLUDEDIR}/ipsec-helpers)
set(installedPackage ${CMAKE_INSTALL_LIBDIR}/cmake/IpsecHelpers)

install(TARGETS ipsechelpers ipsecshim ${installedPlatform} EXPORT IpsecHelpersTargets)
install(FILES include/Ipsec.h include/IpsecDaemon.h include/IpsecVersion.h DESTINATION ${installedHeaders})

# In the tree these headers include each other by the include path, so that a platform may replace some of them. Once
# installed, they belong together and each is found beside the other: a program's own folder platform/ may then come
# first in the include path.
foreach(name AgentTypes CryptoShim CryptoTypes Framework Log Process Trace Vrf)
  set(header ${PROJECT_SOURCE_DIR}/platform/${name}.h)
  set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${header})
  file(READ ${header} text)
  string(REPLACE "#include \"platform/" "#include \"" text "${text}")
  file(WRITE ${PROJECT_BINARY_DIR}/installed/platform/${name}.h "${text}")
endforeach()
install(DIRECTORY ${PROJECT_BINARY_DIR}/installed/platform DESTINATION ${installedHeaders})

install(EXPORT IpsecHelpersTargets NAMESPACE IpsecHelpers:: DESTINATION ${installedPackage})
configure_package_config_file(packaging/IpsecHelpersConfig.cmake.in IpsecHelpersConfig.cmake
  INSTALL_DESTINATION ${installedPackage})
write_basic_package_version_file(IpsecHelpersConfigVersion.cmake COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/IpsecHelpersConfig.cmake ${PROJECT_BINARY_DIR}/IpsecHelpersConfigVersion.cmake
  DESTINATION ${installedPackage})
# The prefix is relative to the pkg-config file, so that it is right for any prefix given to cmake --install.
file(RELATIVE_PATH IPSEC_PREFIX_FROM_PKGCONFIG /prefix/${CMAKE_INSTALL_LIBDIR}/pkgconfig /prefix)
configure_file(packaging/ipsechelpers.pc.in ipsechelpers.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/ipsechelpers.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)

# What brings Debian's strongSwan daemon to use the library's files, and the page about it.
install(FILES docs/strongswan.md DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/ipsec-helpers)
install(PROGRAMS examples/strongswan/setup.sh DESTINATION ${CMAKE_INSTALL_DATADIR}/ipsec-helpers/strongswan)
install(FILES examples/strongswan/ipsec-helpers.conf examples/strongswan/apparmor-charon
  DESTINATION ${CMAKE_INSTALL_DATADIR}/ipsec-helpers/strongswan)
