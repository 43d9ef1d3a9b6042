#include "TemporaryDirectory.h"

#include <stdlib.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>

namespace VarnScripts {

TemporaryDirectory::TemporaryDirectory(std::error_code& error) {
  error.clear();
  const char* const place = ::getenv("TMPDIR");
  std::string path = place != nullptr && place[0] == '/' ? place : "/tmp";
  path += "/varn-scripts-XXXXXX";
  if (::mkdtemp(path.data()) == nullptr) {
    error.assign(errno, std::generic_category());
    return;
  }
  path_ = path;
}

void removeDirectory(const std::string& path) noexcept {
  // What is made between the listing of the directory and its removal needs another try.
  constexpr int attempts = 100;
  std::error_code error = std::make_error_code(std::errc::directory_not_empty);
  for (int attempt = 0; error && attempt < attempts; ++attempt) {
    std::filesystem::remove_all(path, error);
  }
}

TemporaryDirectory::~TemporaryDirectory() {
  if (!path_.empty()) removeDirectory(path_);
}

std::string TemporaryDirectory::pathOf(const std::string& name) const { return path_ + "/" + name; }

}  // namespace VarnScripts
