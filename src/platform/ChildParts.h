// What the source files behind Child.h share.

#pragma once

#include <cstdint>
#include <string>
#include <system_error>
#include <vector>

#include "Calls.h"
#include "platform/Child.h"

namespace VarnScriptRepository::platform {

using posix::lastError;
using posix::retryOnInterrupt;

/// `fd`, or a duplicate beyond the standard descriptors that closes on exec. Empty on failure.
[[nodiscard]] FileDescriptor beyondStandardDescriptors(FileDescriptor fd) noexcept;

/// Whether a text can be handed to the system: it ends at its first NUL byte.
[[nodiscard]] bool hasNUL(const Program& program) noexcept;

/// `argv` of the program, ended by a null pointer. Points into `program`.
[[nodiscard]] std::vector<char*> argumentPointers(const Program& program);

/// What a status says as `waitpid` gives it.
[[nodiscard]] EndStatus statusFromWait(int status) noexcept;

}  // namespace VarnScriptRepository::platform
