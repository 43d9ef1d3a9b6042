// Standard error as a destination.

#pragma once

#include <spdlog/common.h>

#include <chrono>

#include "LogSettings.h"

namespace AgentLog {

/// A sink for standard error, each record as one line of `format`. Whoever does not read, as a
/// terminal that has been stopped, is waited for no longer than `wait`, and not for each record
/// anew: the thread that writes may have a script's limit to look at.
[[nodiscard]] spdlog::sink_ptr makeStandardErrorLog(LogSettings::Format format,
                                                    std::chrono::milliseconds wait);

}  // namespace AgentLog
