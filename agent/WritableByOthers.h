// The one warning about files and directories that anybody but their owner may change: whoever can
// write where scripts and records lie decides what runs here.

#pragma once

#include <string>

namespace AgentUtils {

/// Writes one log line when `path`, a file or directory, is writable by its group or by others; one
/// line for each in the life of the process, by whatever path. Nothing when it can't be looked at.
/// `source`, `operation` and `line` go into the line. Any thread; never throws.
void reportWhenWritableByOthers(const std::string& path, const std::string& source,
                                const std::string& operation, int line = __builtin_LINE()) noexcept;

}  // namespace AgentUtils
