// The clock of limits and waits, one source file for each system.

#pragma once

#include <chrono>

namespace VarnScriptRepository::platform {

/// Counts the time in which the computer is awake. It never goes back, whatever is set.
struct AwakeClock {
  using duration = std::chrono::nanoseconds;
  using rep = duration::rep;
  using period = duration::period;
  using time_point = std::chrono::time_point<AwakeClock>;
  static constexpr bool is_steady = true;

  [[nodiscard]] static time_point now() noexcept;
};

}  // namespace VarnScriptRepository::platform
