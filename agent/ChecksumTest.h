// The test of a file's checksum by itself, for a host that looks and must change nothing:
// `VyCryptography` has the downloader distrust what fails.

#pragma once

#include <string>

namespace AgentUtils {

/// Why the file at `path` is not what a checksum of this type says; null when it is. The file is
/// only read, after the host's `beforeFileUse`, whose exceptions pass. Any thread.
[[nodiscard]] const char* complaintAboutFile(const std::string& path, const std::string& type,
                                             const std::string& checksum);

}  // namespace AgentUtils
