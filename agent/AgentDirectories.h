// What a host does for directories whose files it uses without downloading any: a download looks
// after its own directory, an up-to-date script's directory is looked after through here.

#pragma once

#include <string>
#include <string_view>

namespace AgentUtils {

/// How the name of a file begins that a download is still writing.
inline constexpr std::string_view kDownloadPrefix = ".varn-download-";

/// Writes one log line when `directory` may be written by its group or by others; one line for each
/// directory in the life of the process. Any thread; never throws.
void reportOpenDirectory(const std::string& directory) noexcept;

/// Removes the temporary files that downloads of killed processes have left in `directory`; those
/// of downloads that are still under way stay. Any thread; never throws.
void removeLeftDownloads(const std::string& directory) noexcept;

}  // namespace AgentUtils
