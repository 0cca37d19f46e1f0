# Compiles every header of the tree alone, once: each must bring what it needs. A header that its own
# source includes before anything else is compiled alone there, if that source is built as well.
file(GLOB_RECURSE headers RELATIVE ${CMAKE_SOURCE_DIR} CONFIGURE_DEPENDS
  TunnelIntfSnmp/*.h platform/*.h os/*.h statedb/*.h sources/*.h agent/*.h ctl/*.h tests/*.h
  bench/*.h)
set(units)
foreach(header ${headers})
  string(REGEX REPLACE "\\.h$" ".cpp" source ${CMAKE_SOURCE_DIR}/${header})
  if(EXISTS ${source} AND (BUILD_BENCH OR NOT header MATCHES "^bench/")
     AND (BUILD_TESTING OR NOT header MATCHES "^tests/"))
    file(STRINGS ${source} first REGEX "^#include" LIMIT_COUNT 1)
    if(first STREQUAL "#include \"${header}\"")
      continue()
    endif()
  endif()
  set(unit ${CMAKE_BINARY_DIR}/headers/${header}.cpp)
  file(CONFIGURE OUTPUT ${unit} CONTENT "#include \"${header}\" // IWYU pragma: keep\n" @ONLY)
  list(APPEND units ${unit})
endforeach()
add_library(checkHeaders OBJECT ${units})
# Nothing of it is run or looked into.
target_compile_options(checkHeaders PRIVATE -O0 -g0)
if(SANITIZE)
  target_compile_options(checkHeaders PRIVATE -fno-sanitize=all)
endif()
target_link_libraries(checkHeaders PRIVATE PkgConfig::NETSNMP absl::btree fmt::fmt)
