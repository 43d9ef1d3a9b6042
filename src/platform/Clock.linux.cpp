#include "platform/Clock.h"

#include <time.h>

namespace VarnScriptRepository::platform {

AwakeClock::time_point AwakeClock::now() noexcept {
  timespec now{};
  ::clock_gettime(CLOCK_MONOTONIC, &now);
  return time_point(std::chrono::seconds(now.tv_sec) + std::chrono::nanoseconds(now.tv_nsec));
}

}  // namespace VarnScriptRepository::platform
