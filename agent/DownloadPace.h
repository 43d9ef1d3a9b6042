// The floor under the speed of a download. A pure value; the time is handed in.

#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>

namespace AgentUtils {

/// Gives a download up that has brought less than 1 KiB/s over a whole window of time; one window
/// follows the other from the download's beginning on.
class DownloadPace {
 public:
  using Clock = std::chrono::steady_clock;

  DownloadPace(std::chrono::milliseconds window, Clock::time_point now)
      : window_(window), begin_(now) {}

  /// Counts bytes of whatever the server sends.
  void receive(std::size_t count) { received_ += count; }

  /// To be called at least once in a window. Throws `DownloadFailure`.
  void check(Clock::time_point now);

 private:
  std::chrono::milliseconds window_;
  Clock::time_point begin_;  ///< of the window
  std::uint64_t received_ = 0;
};

}  // namespace AgentUtils
