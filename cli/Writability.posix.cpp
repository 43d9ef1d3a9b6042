#include "Writability.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include "Calls.h"

namespace VarnScripts {
namespace {

using posix::lastError;

std::error_code whyNotAccessible(const std::string& path, int mode) {
  // With the rights that an open would have.
  return ::faccessat(AT_FDCWD, path.c_str(), mode, AT_EACCESS) == 0 ? std::error_code()
                                                                    : lastError();
}

}  // namespace

std::error_code whyNoFileIn(const std::string& directory) {
  std::string place = directory;
  struct stat status {};
  while (::stat(place.c_str(), &status) != 0) {
    if (errno != ENOENT || place == "/") return lastError();
    place = posix::directoryOf(place);
  }
  if (!S_ISDIR(status.st_mode)) return std::make_error_code(std::errc::not_a_directory);
  return whyNotAccessible(place, W_OK | X_OK);
}

std::error_code whyNotOpened(const std::string& path) {
  struct stat status {};
  if (::lstat(path.c_str(), &status) != 0) {
    return errno == ENOENT ? whyNoFileIn(posix::directoryOf(path)) : lastError();
  }
  if (S_ISLNK(status.st_mode)) {
    return std::make_error_code(std::errc::too_many_symbolic_link_levels);
  }
  if (S_ISDIR(status.st_mode)) return std::make_error_code(std::errc::is_a_directory);
  return whyNotAccessible(path, R_OK | W_OK);
}

std::error_code whyNotRemoved(const std::string& path) {
  struct stat status {};
  if (::lstat(path.c_str(), &status) != 0) {
    return errno == ENOENT ? std::error_code() : lastError();
  }
  if (S_ISDIR(status.st_mode)) return std::make_error_code(std::errc::is_a_directory);
  return whyNoFileIn(posix::directoryOf(path));
}

}  // namespace VarnScripts
