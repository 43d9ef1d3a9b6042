#include "TemporaryDirectory.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>

TemporaryDirectory::TemporaryDirectory() {
  std::string name = (std::filesystem::temp_directory_path() / "varn-agent-XXXXXX").string();
  if (mkdtemp(name.data()) == nullptr) std::abort();
  path_ = std::filesystem::canonical(name).string();
}

TemporaryDirectory::~TemporaryDirectory() {
  std::error_code ignored;
  std::filesystem::remove_all(path_, ignored);
}

std::string TemporaryDirectory::operator/(std::string_view name) const {
  return path_ + '/' + std::string(name);
}

std::vector<std::string> TemporaryDirectory::names() const {
  std::vector<std::string> names;
  for (const auto& entry : std::filesystem::directory_iterator(path_)) {
    names.push_back(entry.path().filename().string());
  }
  std::ranges::sort(names);
  return names;
}

Umask::Umask(mode_t mask) : previous_(umask(mask)) {}
Umask::~Umask() { umask(previous_); }

void writeFile(const std::string& path, std::string_view content) {
  std::ofstream file(path, std::ios::binary);
  file << content;
  file.close();
  ASSERT_TRUE(file) << path;
}

std::string readFile(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  if (!file) return "(none)";
  return {std::istreambuf_iterator<char>(file), {}};
}

mode_t modeOf(const std::string& path) {
  struct stat status {};
  if (lstat(path.c_str(), &status) != 0) {
    ADD_FAILURE() << "nothing at " << path;
    return 0;
  }
  return status.st_mode & 07777;
}
