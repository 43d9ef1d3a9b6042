add_library(CLI11::CLI11 INTERFACE IMPORTED)
target_include_directories(CLI11::CLI11 INTERFACE ${CMAKE_CURRENT_LIST_DIR}/../../../include)
