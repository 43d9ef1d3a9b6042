#include "publish/SyncFiles.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>

#include "platform/FileDescriptor.h"

namespace VarnScripts::publishing {

using VarnScriptRepository::platform::FileDescriptor;
using VarnScriptRepository::platform::retryOnInterrupt;

void syncPath(const std::string& path, std::error_code& error) {
  error.clear();
  const FileDescriptor file(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
  if (!file || retryOnInterrupt([&] { return ::fsync(file.get()); }) != 0) {
    error.assign(errno, std::generic_category());
  }
}

}  // namespace VarnScripts::publishing
