#include "AgentDirectories.h"

#include "DownloadTarget.h"
#include "WritableByOthers.h"

namespace AgentUtils {

void reportOpenDirectory(const std::string& directory) noexcept {
  try {
    reportWhenWritableByOthers(directory, "AgentDirectories", "reportOpenDirectory(_:)");
  } catch (...) {
    // Out of memory: the warning is lost, the work goes on.
  }
}

void removeLeftDownloads(const std::string& directory) noexcept { sweepTemporaryFiles(directory); }

}  // namespace AgentUtils
