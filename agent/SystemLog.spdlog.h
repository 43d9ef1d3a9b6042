// The system's log as a destination: syslog(3), or the journal of systemd in builds that know it.

#pragma once

#include <spdlog/common.h>

#include "LogSettings.h"

namespace AgentLog {

/// A sink for `target`: each record as one line of `format`, in text without its time and level,
/// which the system's log has by itself. Records carry the name of the program. Throws
/// `std::invalid_argument` when this build does not know the target.
[[nodiscard]] spdlog::sink_ptr makeSystemLog(LogSettings::Target target,
                                             LogSettings::Format format);

}  // namespace AgentLog
