add_library(nlohmann_json::nlohmann_json INTERFACE IMPORTED)
target_include_directories(nlohmann_json::nlohmann_json INTERFACE ${CMAKE_CURRENT_LIST_DIR}/../../../include)
