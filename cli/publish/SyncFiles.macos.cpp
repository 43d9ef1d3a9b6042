#include "publish/SyncFiles.h"

#include "Calls.h"

namespace VarnScripts::publishing {

std::string syncFiles(const std::vector<std::string>& paths, int /*descriptor*/,
                      std::error_code& error) {
  error.clear();
  for (const std::string& path : paths) {
    posix::syncPath(path, error);
    if (error) return path;
  }
  return "";
}

}  // namespace VarnScripts::publishing
