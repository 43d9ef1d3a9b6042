// What the pieces that are measured within one process share: a directory for their files, and the
// rows of the stores.

#pragma once

#include <cstdlib>
#include <filesystem>
#include <string>

namespace bench {

constexpr int kRows = 1000;
constexpr const char* kRow =
    R"({"version":"1795248929145","scriptPath":"/opt/agent/client-data/7/scripts-repository/x.sh"})";

inline std::string key(int number) { return std::to_string(100000 + number); }

/// An empty directory below the one that VARN_BENCH_DIRECTORY names.
inline std::string freshDirectory(const std::string& name) {
  const char* const parent = std::getenv("VARN_BENCH_DIRECTORY");
  if (parent == nullptr) std::abort();
  const std::string path = std::string(parent) + "/" + name;
  std::filesystem::remove_all(path);
  std::filesystem::create_directories(path);
  return path;
}

}  // namespace bench
