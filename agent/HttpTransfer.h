// One HTTP or HTTPS exchange, without its redirects.

#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>

#include "AgentSettings.h"
#include "DownloadTarget.h"

namespace AgentUtils {

/// Fetches `url` into `target`. Gives nothing when the whole body has arrived, or the URL that the
/// server redirects to. Throws `DownloadFailure` on anything else: another status than 200, a body
/// that is shorter than announced, a certificate that does not verify, a stall.
[[nodiscard]] std::optional<std::string> transfer(const std::string& url,
                                                  const AgentSettings& settings,
                                                  DownloadTarget& target);

}  // namespace AgentUtils
