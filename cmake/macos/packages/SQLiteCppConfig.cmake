# SQLiteCpp: its headers, and a stub that cross-compile.sh makes of the calls that are compiled.
add_library(SQLiteCpp UNKNOWN IMPORTED)
set_target_properties(SQLiteCpp PROPERTIES
  IMPORTED_LOCATION ${CMAKE_CURRENT_LIST_DIR}/../../libSQLiteCpp.tbd)
target_include_directories(SQLiteCpp INTERFACE ${CMAKE_CURRENT_LIST_DIR}/../../../include)
