#include "WritableByOthers.h"

#include <sys/stat.h>

#include <mutex>
#include <set>
#include <utility>

#include "AgentLog.h"

namespace AgentUtils {
namespace {

/// True for the first call for what `status` is of.
bool isFirstReport(const struct stat& status) {
  using Key = std::pair<dev_t, ino_t>;
  static std::mutex& mutex = *new std::mutex;
  // Never destroyed: a download may be under way while static objects go.
  static std::set<Key>& reported = *new std::set<Key>;
  const std::lock_guard lock(mutex);
  return reported.emplace(status.st_dev, status.st_ino).second;
}

}  // namespace

void reportWhenWritableByOthers(const std::string& path, const std::string& source,
                                const std::string& operation, int line) noexcept {
  try {
    struct stat status {};
    if (::stat(path.c_str(), &status) != 0) return;
    if ((status.st_mode & (S_IWGRP | S_IWOTH)) == 0 || !isFirstReport(status)) return;
    AgentLog::logInfo("Writable by others than its owner: " + path, source, operation, line);
  } catch (...) {
    // Out of memory: the warning is lost, the work goes on.
  }
}

}  // namespace AgentUtils
