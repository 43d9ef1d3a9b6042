// Times as signatures and the state of trust have them: RFC 3339 in UTC, to the second. Pure
// functions; any thread.

#pragma once

#include <chrono>
#include <optional>
#include <string>
#include <string_view>

namespace AgentUtils::signing {

using UTCTime = std::chrono::sys_seconds;

/// The time that a text of exactly the form "2026-11-22T11:30:00Z" names; nothing for any other,
/// and for a day or a time of day that there is none of.
[[nodiscard]] std::optional<UTCTime> utcTimeFrom(std::string_view text);

/// The text of `time`, in that form. What is before the year 0 or after 9999 is shown as the first
/// or the last second that can be.
[[nodiscard]] std::string utcTimeText(UTCTime time);

}  // namespace AgentUtils::signing
