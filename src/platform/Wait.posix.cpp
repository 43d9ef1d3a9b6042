#include "platform/Wait.h"

#include <poll.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <climits>
#include <cstdint>
#include <thread>

#include "Calls.h"

namespace VarnScriptRepository::platform {
namespace {

/// How often the child is asked for where no descriptor tells its end, or where poll fails.
constexpr std::chrono::milliseconds kAskInterval{10};

/// What poll takes for a wait until `deadline`: milliseconds, rounded up so that the deadline has
/// passed when the wait is over; -1 for the end of time.
int pollTimeout(AwakeClock::time_point deadline) {
  if (deadline == AwakeClock::time_point::max()) return -1;
  const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - AwakeClock::now());
  return static_cast<int>(std::clamp<std::int64_t>(left.count(), 0, INT_MAX));
}

}  // namespace

Ready waitForOutputOrEnd(const FileDescriptor& readingEnd, const Child& child,
                         AwakeClock::time_point deadline) noexcept {
  const bool endTells = child.endDescriptor() >= 0;
  int timeout = pollTimeout(deadline);
  if (!endTells && (timeout < 0 || timeout > kAskInterval.count())) {
    timeout = static_cast<int>(kAskInterval.count());
  }
  // Negative descriptors are passed over: the pipe after its end of file, which a living child may
  // leave behind, and the child's end where nothing tells it.
  std::array<pollfd, 2> watched{pollfd{readingEnd.get(), POLLIN, 0},
                                pollfd{child.endDescriptor(), POLLIN, 0}};
  if (::poll(watched.data(), watched.size(), timeout) >= 0) {
    const bool hasOutput = watched[0].revents != 0;
    if (!endTells) return {hasOutput, child.hasEnded()};
    if ((watched[1].revents & ~POLLIN) == 0) return {hasOutput, watched[1].revents != 0};
    // The descriptor is of no use, or tells more than the end: the child itself is asked.
    if (!hasOutput && !child.hasEnded()) std::this_thread::sleep_for(kAskInterval);
    return {hasOutput, child.hasEnded()};
  }
  // An interrupted wait is just over. A poll that fails out of memory must not become a busy loop;
  // reading and asking do without it.
  if (errno != EINTR) std::this_thread::sleep_for(kAskInterval);
  return {true, child.hasEnded()};
}

std::size_t readHeld(FileDescriptor& readingEnd, char* bytes, std::size_t most) noexcept {
  const ssize_t got =
      posix::retryOnInterrupt([&] { return ::read(readingEnd.get(), bytes, most); });
  if (got > 0) return static_cast<std::size_t>(got);
  const bool nothingNow = got < 0 && (errno == EAGAIN || errno == EWOULDBLOCK);
  if (!nothingNow) readingEnd.reset();
  return 0;
}

}  // namespace VarnScriptRepository::platform
