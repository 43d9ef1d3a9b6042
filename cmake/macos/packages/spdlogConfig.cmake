# spdlog and its formatting library, from their headers alone.
include(CMakeFindDependencyMacro)
find_dependency(Threads)
add_library(spdlog::spdlog_header_only INTERFACE IMPORTED)
target_compile_definitions(spdlog::spdlog_header_only INTERFACE
  SPDLOG_FMT_EXTERNAL FMT_HEADER_ONLY)
target_include_directories(spdlog::spdlog_header_only INTERFACE
  ${CMAKE_CURRENT_LIST_DIR}/../../../include)
target_link_libraries(spdlog::spdlog_header_only INTERFACE Threads::Threads)
