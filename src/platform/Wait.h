// Waiting for a child and for what it writes, and taking that: all that the process runner asks of
// the operating system while a child runs.

#pragma once

#include <cstddef>

#include "FileDescriptor.h"
#include "platform/Child.h"
#include "platform/Clock.h"

namespace VarnScriptRepository::platform {

/// What a wait has found; each may be there without the other.
struct Ready {
  bool output;
  bool end;
};

/// Waits for output or the end of the file in `readingEnd`, for the end of `child`, or until
/// `deadline`. An empty `readingEnd` is not watched. There may be less output than it says, even
/// none, and the wait may be over before anything has come.
[[nodiscard]] Ready waitForOutputOrEnd(const FileDescriptor& readingEnd, const Child& child,
                                       AwakeClock::time_point deadline) noexcept;

/// Reads at most `most` bytes, which is not 0, from `readingEnd` to `bytes`; gives how many there
/// were, 0 when there is nothing now. At the end of the file `readingEnd` is closed, and empty from
/// then on.
[[nodiscard]] std::size_t readHeld(FileDescriptor& readingEnd, char* bytes,
                                   std::size_t most) noexcept;

}  // namespace VarnScriptRepository::platform
