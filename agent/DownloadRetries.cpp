#include "DownloadRetries.h"

#include <algorithm>
#include <charconv>
#include <system_error>

#include "Validators.h"

namespace AgentUtils {
namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;

constexpr std::uint32_t kMostDoublings = 5;
// Others wait for their turn while a download pauses.
constexpr seconds kLongestAsked{60};
constexpr std::chrono::minutes kPatience{5};
constexpr seconds kDay{86400};

}  // namespace

bool isTransientStatus(long status) {
  constexpr long kTransient[] = {408, 425, 429, 500, 502, 503, 504};
  return std::ranges::find(kTransient, status) != std::end(kTransient);
}

std::optional<seconds> askedPause(std::string_view retryAfter, std::string_view date) {
  std::int64_t value = 0;
  const char* const end = retryAfter.data() + retryAfter.size();
  const auto [stop, error] = std::from_chars(retryAfter.data(), end, value);
  if (stop == end && error == std::errc::result_out_of_range) return kDay;
  if (stop != end || error != std::errc()) {
    const auto until = secondsOfHTTPDate(retryAfter);
    const auto from = secondsOfHTTPDate(date);
    if (!until || !from) return std::nullopt;
    value = *until - *from;
  }
  return seconds(std::clamp<std::int64_t>(value, 0, kDay.count()));
}

std::optional<milliseconds> DownloadRetries::next(std::optional<seconds> askedPause, double chance,
                                                  Clock::time_point now) {
  if (made_ == most_ || askedPause.value_or(seconds(0)) > kLongestAsked) return std::nullopt;
  const milliseconds step = seconds(1) * (1 << std::min(made_, kMostDoublings));
  const milliseconds least = std::max<milliseconds>(askedPause.value_or(seconds(0)), step / 2);
  const milliseconds pause =
      least + milliseconds(static_cast<std::int64_t>(static_cast<double>(step.count()) * chance));
  if (now - begin_ + pause > kPatience) return std::nullopt;
  ++made_;
  return pause;
}

}  // namespace AgentUtils
