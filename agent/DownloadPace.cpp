#include "DownloadPace.h"

#include "DownloadTarget.h"

namespace AgentUtils {

void DownloadPace::check(Clock::time_point now) {
  const auto passed = std::chrono::duration_cast<std::chrono::milliseconds>(now - begin_);
  if (passed < window_) return;
  if (received_ * 1000 < static_cast<std::uint64_t>(passed.count()) * 1024) {
    throw DownloadFailure("too slow: " + std::to_string(received_) + " bytes in " +
                          std::to_string(passed.count() / 1000) + " seconds");
  }
  begin_ = now;
  received_ = 0;
}

}  // namespace AgentUtils
