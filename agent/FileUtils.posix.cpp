// File operations of the bundled agent utilities. No state; any thread. Nothing throws.

#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>

#include "AgentUtils.h"
#include "FileDescriptor.h"

namespace AgentUtils {
namespace {

constexpr mode_t kDirectoryMode = 0700;

/// Whether the system would take the whole text for the path, and not what stands before a NUL.
bool isPath(const std::string& text) {
  return !text.empty() && text.find('\0') == std::string::npos;
}

bool isDirectory(const std::string& path) {
  struct stat status {};
  return stat(path.c_str(), &status) == 0 && S_ISDIR(status.st_mode);
}

/// Makes one directory; false with `errno` when it can't be made or exists.
bool makeDirectory(const std::string& path) {
  if (mkdir(path.c_str(), kDirectoryMode) != 0) return false;
  // The umask may have taken away more than it should.
  const FileDescriptor made(open(path.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
  return made.isOpen() && fchmod(made.get(), kDirectoryMode) == 0;
}

/// Makes the directory unless there is one. Somebody else may make it at the same time.
bool ensureDirectory(const std::string& path) {
  return isDirectory(path) || makeDirectory(path) || (errno == EEXIST && isDirectory(path));
}

}  // namespace

bool FileUtils::isFileExists(const std::string& atPath) const {
  struct stat status {};
  return isPath(atPath) && stat(atPath.c_str(), &status) == 0;
}

bool FileUtils::createDirectory(const std::string& atPath, bool withIntermediateDirectories) const {
  if (!isPath(atPath)) return false;
  if (!withIntermediateDirectories) return makeDirectory(atPath);
  // From the top, one parent after the other: where `atPath` has a slash, a parent ends.
  for (std::size_t slash = atPath.find('/', 1); slash != std::string::npos;
       slash = atPath.find('/', slash + 1)) {
    if (!ensureDirectory(atPath.substr(0, slash))) return false;
  }
  return ensureDirectory(atPath);
}

}  // namespace AgentUtils
