# spdlog and its formatting library, from their headers alone.
include(CMakeFindDependencyMacro)
find_dependency(Threads)
add_library(spdlog::spdlog INTERFACE IMPORTED)
target_compile_definitions(spdlog::spdlog INTERFACE SPDLOG_FMT_EXTERNAL FMT_HEADER_ONLY)
target_include_directories(spdlog::spdlog INTERFACE ${CMAKE_CURRENT_LIST_DIR}/../../../include)
target_link_libraries(spdlog::spdlog INTERFACE Threads::Threads)
