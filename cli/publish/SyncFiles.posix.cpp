#include "publish/SyncFiles.h"

#include <fcntl.h>
#include <unistd.h>

#include "Calls.h"

namespace VarnScripts::publishing {

void syncPath(const std::string& path, std::error_code& error) {
  error.clear();
  const posix::FileDescriptor file(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
  if (!file || posix::retryOnInterrupt([&] { return ::fsync(file.get()); }) != 0) {
    error = posix::lastError();
  }
}

}  // namespace VarnScripts::publishing
