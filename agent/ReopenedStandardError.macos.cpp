// macOS: the name of a descriptor only doubles it, so that a terminal alone can be opened again, by
// its own name.

#include "ReopenedStandardError.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <utility>

namespace AgentLog {

posix::FileDescriptor reopenStandardError() {
  std::array<char, 128> name{};
  if (::ttyname_r(STDERR_FILENO, name.data(), name.size()) != 0) return {};
  posix::FileDescriptor terminal(
      ::open(name.data(), O_WRONLY | O_NONBLOCK | O_NOCTTY | O_NOFOLLOW | O_CLOEXEC));
  struct stat meant {};
  struct stat opened {};
  const bool isMeant = terminal && ::fstat(STDERR_FILENO, &meant) == 0 &&
                       ::fstat(terminal.get(), &opened) == 0 && S_ISCHR(opened.st_mode) &&
                       opened.st_rdev == meant.st_rdev;
  return isMeant ? std::move(terminal) : posix::FileDescriptor();
}

}  // namespace AgentLog
