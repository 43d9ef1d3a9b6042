// The rotating log file as a destination.

#pragma once

#include <spdlog/common.h>

#include <string>

#include "LogSettings.h"

namespace AgentLog {

/// A sink for the file at `path`, mode 0600: each record is added to it as one line of `format`. It
/// gives its name to a new file before it grows beyond 10 MiB, and three older ones stay; a line is
/// never divided between two, nor mixed with those of other processes. Throws `std::runtime_error`
/// when the file can't be opened, or when somebody else has a say in it.
[[nodiscard]] spdlog::sink_ptr makeLogFile(std::string path, LogSettings::Format format);

}  // namespace AgentLog
