// Brings written files to the disk.

#pragma once

#include <string>
#include <system_error>
#include <vector>

namespace VarnScripts::publishing {

/// Returns when the bytes of all files in `paths` are on the disk. They lie in the file system of
/// the open file or directory `descriptor`. After a failure `error` tells why; the result is the
/// path that it was met at, empty when none.
[[nodiscard]] std::string syncFiles(const std::vector<std::string>& paths, int descriptor,
                                    std::error_code& error);

}  // namespace VarnScripts::publishing
