#include "platform/Clock.h"

#include <time.h>

namespace VarnScriptRepository::platform {

AwakeClock::time_point AwakeClock::now() noexcept {
  // The monotonic clock, and with it the standard library's steady one, goes on during sleep here.
  return time_point(std::chrono::nanoseconds(
      static_cast<duration::rep>(::clock_gettime_nsec_np(CLOCK_UPTIME_RAW))));
}

}  // namespace VarnScriptRepository::platform
