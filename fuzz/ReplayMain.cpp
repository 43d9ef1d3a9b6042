// Runs a target over corpus files, for builds without a fuzzing engine: each argument is a file or
// a directory of files.

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "Input.h"

namespace {

void replay(const std::filesystem::path& path) {
  std::ifstream file(path, std::ios::binary);
  const std::string bytes((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
  LLVMFuzzerTestOneInput(reinterpret_cast<const std::uint8_t*>(bytes.data()), bytes.size());
}

}  // namespace

int main(int count, char** arguments) {
  int replayed = 0;
  for (const std::string& argument : std::vector<std::string>(arguments + 1, arguments + count)) {
    if (!std::filesystem::is_directory(argument)) {
      replay(argument);
      ++replayed;
      continue;
    }
    for (const auto& entry : std::filesystem::directory_iterator(argument)) {
      replay(entry.path());
      ++replayed;
    }
  }
  std::printf("replayed %d inputs\n", replayed);
  return replayed > 0 ? 0 : 1;
}
