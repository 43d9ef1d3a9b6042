// Linux: names that begin with "user." are for whoever may read and write the file.

#include "FileAttributes.h"

#include <sys/xattr.h>

namespace AgentUtils {

std::int64_t changeTime(const struct stat& status) {
  constexpr std::int64_t kNanosecondsPerSecond = 1'000'000'000;
  return status.st_ctim.tv_sec * kNanosecondsPerSecond + status.st_ctim.tv_nsec;
}

std::string fileAttribute(const FileDescriptor& file, const char* name, std::size_t mostBytes) {
  std::string value(mostBytes, '\0');
  const ssize_t size = ::fgetxattr(file.get(), name, value.data(), value.size());
  value.resize(size < 0 ? 0 : static_cast<std::size_t>(size));
  return value;
}

void setFileAttribute(const FileDescriptor& file, const char* name, const std::string& value) {
  static_cast<void>(::fsetxattr(file.get(), name, value.data(), value.size(), 0));
}

bool removeFileAttribute(const FileDescriptor& file, const char* name) {
  return ::fremovexattr(file.get(), name) == 0;
}

}  // namespace AgentUtils
