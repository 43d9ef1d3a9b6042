// Linux: the name of a descriptor leads to what it has open.

#include "ReopenedStandardError.h"

#include <fcntl.h>

namespace AgentLog {

posix::FileDescriptor reopenStandardError() {
  return posix::FileDescriptor(::open("/dev/fd/2", O_WRONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
}

}  // namespace AgentLog
