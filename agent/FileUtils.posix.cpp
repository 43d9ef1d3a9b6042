// File operations of the bundled agent utilities. No state; any thread. Nothing throws.

#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>

#include "AgentUtils.h"
#include "FileDescriptor.h"

namespace AgentUtils {
namespace {

using posix::FileDescriptor;

constexpr mode_t kDirectoryMode = 0700;

/// Whether the system would take the whole text for the path, and not what stands before a NUL.
bool isPath(const std::string& text) {
  return !text.empty() && text.find('\0') == std::string::npos;
}

bool isDirectory(const std::string& path) {
  struct stat status {};
  return ::stat(path.c_str(), &status) == 0 && S_ISDIR(status.st_mode);
}

FileDescriptor openedParent(const std::string& path) {
  const std::size_t slash = path.rfind('/');
  const std::string parent = slash == path.npos ? "." : path.substr(0, slash + 1);
  return FileDescriptor(::open(parent.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
}

/// Makes one directory and opens it; not open, with `errno`, when it can't be made. One that
/// exists, since somebody else made it at the same time, is as good where it `mayExist`. All by
/// descriptors: whoever may write to the parent could put a link in the new directory's place.
FileDescriptor makeDirectory(const FileDescriptor& parent, const std::string& name, bool mayExist) {
  const bool made = mkdirat(parent.get(), name.c_str(), kDirectoryMode) == 0;
  if (!made && !(mayExist && errno == EEXIST)) return {};
  FileDescriptor directory(
      ::openat(parent.get(), name.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
  // The umask may have taken away more than it should.
  if (made && directory && ::fchmod(directory.get(), kDirectoryMode) != 0) return {};
  return directory;
}

}  // namespace

bool FileUtils::isFileExists(const std::string& atPath) const {
  struct stat status {};
  return isPath(atPath) && ::stat(atPath.c_str(), &status) == 0;
}

bool FileUtils::createDirectory(const std::string& atPath, bool withIntermediateDirectories) const {
  if (!isPath(atPath)) return false;
  FileDescriptor parent;
  if (!withIntermediateDirectories) {
    parent = openedParent(atPath);
    return static_cast<bool>(makeDirectory(parent, atPath.substr(atPath.rfind('/') + 1), false));
  }
  // From the top: where `atPath` has a slash, a parent ends.
  for (std::size_t start = 0; start < atPath.size();) {
    const std::size_t slash = std::min(atPath.find('/', start), atPath.size());
    const std::string name = atPath.substr(start, slash - start);
    const std::string directory = atPath.substr(0, slash);
    start = slash + 1;
    if (name.empty() || (!parent && isDirectory(directory))) continue;
    if (!parent) parent = openedParent(directory);
    if (!parent) return false;
    parent = makeDirectory(parent, name, true);
    if (!parent) return false;
  }
  return true;
}

}  // namespace AgentUtils
