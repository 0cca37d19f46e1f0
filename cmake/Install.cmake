# What an installation holds, and where. Its three components are Debian's three packages: the
# programs with what they need; "dlmod", the module that snmpd itself loads; and "development", what
# somebody needs who loads the plug-in into an agent of their own.
include(CMakePackageConfigHelpers)
set(CMAKE_INSTALL_DEFAULT_COMPONENT_NAME programs)

install(TARGETS tunnelsnmpd RUNTIME DESTINATION ${CMAKE_INSTALL_SBINDIR})
install(TARGETS tunnelsnmpctl RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
install(TARGETS TunnelIntfSnmpPlatform EXPORT TunnelIntfSnmpTargets
  LIBRARY DESTINATION ${PRIVATE_LIBRARIES} NAMELINK_COMPONENT development)
install(TARGETS TunnelIntfSnmp LIBRARY DESTINATION ${PRIVATE_LIBRARIES})
set_target_properties(tunnelsnmpd PROPERTIES INSTALL_RPATH "$ORIGIN/../${PRIVATE_LIBRARIES}")
set_target_properties(TunnelIntfSnmp PROPERTIES INSTALL_RPATH "$ORIGIN")
install(TARGETS tunnelIntf LIBRARY DESTINATION ${PRIVATE_LIBRARIES} COMPONENT dlmod)
set_target_properties(tunnelIntf PROPERTIES INSTALL_RPATH "$ORIGIN")

install(FILES mibs/VELMORA-TUNNEL-MIB.txt DESTINATION ${CMAKE_INSTALL_DATADIR}/snmp/mibs)
foreach(section 1 5 8)
  file(GLOB pages CONFIGURE_DEPENDS ${CMAKE_SOURCE_DIR}/docs/man/tunnelsnmp*.${section})
  install(FILES ${pages} DESTINATION ${CMAKE_INSTALL_MANDIR}/man${section})
endforeach()
install(FILES docs/man/tunnel-dlmod.8 DESTINATION ${CMAKE_INSTALL_MANDIR}/man8 COMPONENT dlmod)
file(GLOB completions CONFIGURE_DEPENDS ${CMAKE_SOURCE_DIR}/packaging/completion/tunnelsnmp*)
install(FILES ${completions} DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions)
file(GLOB completions CONFIGURE_DEPENDS ${CMAKE_SOURCE_DIR}/packaging/completion/_tunnelsnmp*)
install(FILES ${completions} DESTINATION ${CMAKE_INSTALL_DATADIR}/zsh/vendor-completions)

install(DIRECTORY platform DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/TunnelIntfSnmp
  COMPONENT development FILES_MATCHING PATTERN "*.h" PATTERN src EXCLUDE)
set(PACKAGE_PLACE ${CMAKE_INSTALL_LIBDIR}/cmake/TunnelIntfSnmp)
install(EXPORT TunnelIntfSnmpTargets NAMESPACE TunnelIntfSnmp:: DESTINATION ${PACKAGE_PLACE}
  COMPONENT development)
set(PLUGIN ${PRIVATE_LIBRARIES}/libTunnelIntfSnmp.so)
configure_package_config_file(cmake/TunnelIntfSnmpConfig.cmake.in TunnelIntfSnmpConfig.cmake
  INSTALL_DESTINATION ${PACKAGE_PLACE} PATH_VARS PLUGIN)
write_basic_package_version_file(TunnelIntfSnmpConfigVersion.cmake COMPATIBILITY ExactVersion)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/TunnelIntfSnmpConfig.cmake
  ${CMAKE_CURRENT_BINARY_DIR}/TunnelIntfSnmpConfigVersion.cmake
  DESTINATION ${PACKAGE_PLACE} COMPONENT development)

# From the folder of the .pc file to the prefix, so that an installation can be moved.
set(PKGCONFIG_PLACE ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
file(RELATIVE_PATH PREFIX_FROM_PKGCONFIG /${PKGCONFIG_PLACE} /)
configure_file(cmake/tunnelintfsnmp.pc.in tunnelintfsnmp.pc @ONLY)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/tunnelintfsnmp.pc DESTINATION ${PKGCONFIG_PLACE}
  COMPONENT development)
