// When a download is tried again that failed for a reason that may pass. Pure; time and chance are
// handed in.

#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "DownloadTarget.h"

namespace AgentUtils {

/// A failure that may not come again: no connection, one that broke off, a server that is
/// overloaded. Never one that says what is wrong here, or with the file.
class TransientFailure : public DownloadFailure {
 public:
  explicit TransientFailure(const std::string& what,
                            std::optional<std::chrono::seconds> askedPause = std::nullopt)
      : DownloadFailure(what), askedPause_(askedPause) {}

  /// How long the server wants to be left alone; nothing when it does not say.
  [[nodiscard]] std::optional<std::chrono::seconds> askedPause() const { return askedPause_; }

 private:
  std::optional<std::chrono::seconds> askedPause_;
};

/// Whether another request may well be answered otherwise than with this status.
[[nodiscard]] bool isTransientStatus(long status);

/// What a `Retry-After` header asks for: a number of seconds, or a date, which counts from that of
/// the answer's own `Date` header. Nothing when it is neither. Never more than a day.
[[nodiscard]] std::optional<std::chrono::seconds> askedPause(std::string_view retryAfter,
                                                             std::string_view date);

/// The further tries of one download.
class DownloadRetries {
 public:
  using Clock = std::chrono::steady_clock;

  DownloadRetries(std::uint32_t most, Clock::time_point begin) : most_(most), begin_(begin) {}

  /// The pause before the next try: about 1, 2, 4 s and so on up to 32 s, and not less than the
  /// server asks for. `chance`, from 0 to 1, spreads the tries of many computers. Nothing when
  /// there is to be no other try: there were `most`, the server asks for more than a minute, or it
  /// would begin more than five minutes after the download did.
  [[nodiscard]] std::optional<std::chrono::milliseconds> next(
      std::optional<std::chrono::seconds> askedPause, double chance, Clock::time_point now);

 private:
  std::uint32_t most_;
  Clock::time_point begin_;
  std::uint32_t made_ = 0;
};

}  // namespace AgentUtils
