// macOS: the calls take an offset as well, which only resource forks have a use for.

#include "FileAttributes.h"

#if __has_include(<sys/xattr.h>)
#include <sys/xattr.h>
#else
// Cross compilers come with the system's functions, but not with every one of its headers.
extern "C" {
ssize_t fgetxattr(int file, const char* name, void* value, size_t size, uint32_t position,
                  int options);
int fsetxattr(int file, const char* name, const void* value, size_t size, uint32_t position,
              int options);
int fremovexattr(int file, const char* name, int options);
}
#endif

namespace AgentUtils {

std::int64_t changeTime(const struct stat& status) {
  constexpr std::int64_t kNanosecondsPerSecond = 1'000'000'000;
  return status.st_ctimespec.tv_sec * kNanosecondsPerSecond + status.st_ctimespec.tv_nsec;
}

std::string fileAttribute(const FileDescriptor& file, const char* name, std::size_t mostBytes) {
  std::string value(mostBytes, '\0');
  const ssize_t size = ::fgetxattr(file.get(), name, value.data(), value.size(), 0, 0);
  value.resize(size < 0 ? 0 : static_cast<std::size_t>(size));
  return value;
}

void setFileAttribute(const FileDescriptor& file, const char* name, const std::string& value) {
  static_cast<void>(::fsetxattr(file.get(), name, value.data(), value.size(), 0, 0));
}

bool removeFileAttribute(const FileDescriptor& file, const char* name) {
  return ::fremovexattr(file.get(), name, 0) == 0;
}

}  // namespace AgentUtils
