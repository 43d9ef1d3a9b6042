#include "Files.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <fstream>
#include <iterator>

Umask::Umask(mode_t mask) : previous_(::umask(mask)) {}
Umask::~Umask() { ::umask(previous_); }

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
  if (::lstat(path.c_str(), &status) != 0) {
    ADD_FAILURE() << "nothing at " << path;
    return 0;
  }
  return status.st_mode & 07777;
}
