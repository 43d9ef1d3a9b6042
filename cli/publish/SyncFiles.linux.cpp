#include "publish/SyncFiles.h"

#include <unistd.h>

#include "Calls.h"

namespace VarnScripts::publishing {
namespace {

// Up to here, syncing single files is kinder to whoever else writes to the same file system.
constexpr std::size_t kMostSingleFiles = 32;

}  // namespace

std::string syncFiles(const std::vector<std::string>& paths, int descriptor,
                      std::error_code& error) {
  error.clear();
  if (paths.size() > kMostSingleFiles) {
    // One wait for the disk in place of one for each file.
    if (::syncfs(descriptor) != 0) error = posix::lastError();
    return error ? paths.front() : "";
  }
  for (const std::string& path : paths) {
    posix::syncPath(path, error);
    if (error) return path;
  }
  return "";
}

}  // namespace VarnScripts::publishing
