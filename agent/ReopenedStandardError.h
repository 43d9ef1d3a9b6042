// A second way to standard error. Its flags are its own: to keep oneself from waiting there, or to
// lock a file, changes nothing for the other processes that have the first.

#pragma once

#include "FileDescriptor.h"

namespace AgentLog {

/// What standard error is, a terminal, a pipe or a file, opened once more to be written to without
/// waiting, and closed on exec. Empty where the system does not let it be. Any thread.
[[nodiscard]] posix::FileDescriptor reopenStandardError();

}  // namespace AgentLog
