# What is installed: the libraries, the headers, a CMake package, a pkg-config file.

include(CMakePackageConfigHelpers)
set(installedHeaders ${CMAKE_INSTALL_INCLUDEDIR}/ipsec-helpers)
set(installedPackage ${CMAKE_INSTALL_LIBDIR}/cmake/IpsecHelpers)

install(TARGETS ipsechelpers ipsecshim ${installedPlatform} EXPORT IpsecHelpersTargets)
install(FILES include/Ipsec.h include/IpsecDaemon.h include/IpsecVersion.h DESTINATION ${installedHeaders})
install(DIRECTORY platform/ DESTINATION ${installedHeaders}/platform
  FILES_MATCHING PATTERN "*.h" PATTERN "linux" EXCLUDE PATTERN "openssl" EXCLUDE PATTERN "testing" EXCLUDE)

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
