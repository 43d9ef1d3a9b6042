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

TemporaryDirectory::~TemporaryDirectory() {
  std::error_code ignored;
  if (!path_.empty()) std::filesystem::remove_all(path_, ignored);
}

std::string TemporaryDirectory::pathOf(const std::string& name) const { return path_ + "/" + name; }

}  // namespace VarnScripts
