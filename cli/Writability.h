// Which errors this process would meet if it made, opened or removed a file, found out without
// doing any of it. The system may decide otherwise when it is really done. Any thread.

#pragma once

#include <string>
#include <system_error>

namespace VarnScripts {

/// Why no file can be made in `directory` (absolute), where it and those above it are made first
/// when they are missing; no error when one can.
[[nodiscard]] std::error_code whyNoFileIn(const std::string& directory);

/// Why the file at `path` can't be opened for reading and writing, or made when it is missing.
[[nodiscard]] std::error_code whyNotOpened(const std::string& path);

/// Why what is at `path` can't be removed as a file; nothing there is no error.
[[nodiscard]] std::error_code whyNotRemoved(const std::string& path);

}  // namespace VarnScripts
