#include "WritableByOthers.h"

#include <sys/stat.h>

#include <mutex>
#include <set>

#include "AgentLog.h"

namespace AgentUtils {
namespace {

/// True for the first call with `path`.
bool isFirstReport(const std::string& path) {
  static std::mutex& mutex = *new std::mutex;
  // Never destroyed: a download may be under way while static objects go.
  static std::set<std::string>& reported = *new std::set<std::string>;
  const std::lock_guard lock(mutex);
  return reported.insert(path).second;
}

}  // namespace

void reportWhenWritableByOthers(const std::string& path, const std::string& source,
                                const std::string& operation) noexcept {
  try {
    struct stat status {};
    if (stat(path.c_str(), &status) != 0) return;
    if ((status.st_mode & (S_IWGRP | S_IWOTH)) == 0 || !isFirstReport(path)) return;
    AgentLog::logInfo("Writable by others than its owner: " + path, source, operation,
                      __builtin_LINE());
  } catch (...) {
    // Out of memory: the warning is lost, the work goes on.
  }
}

}  // namespace AgentUtils
