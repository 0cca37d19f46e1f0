# Compiles every header of the tree alone, once: each must bring what it needs.
file(GLOB_RECURSE headers RELATIVE ${CMAKE_SOURCE_DIR} CONFIGURE_DEPENDS
  TunnelIntfSnmp/*.h platform/*.h statedb/*.h sources/*.h agent/*.h ctl/*.h tests/*.h bench/*.h)
set(units)
foreach(header ${headers})
  set(unit ${CMAKE_BINARY_DIR}/headers/${header}.cpp)
  file(CONFIGURE OUTPUT ${unit} CONTENT "#include \"${header}\" // IWYU pragma: keep\n" @ONLY)
  list(APPEND units ${unit})
endforeach()
add_library(checkHeaders OBJECT ${units})
target_link_libraries(checkHeaders PRIVATE PkgConfig::NETSNMP absl::btree fmt::fmt)
