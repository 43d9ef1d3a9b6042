// Downloads from a server that is a directory (file://).

#pragma once

#include <string>

#include "DownloadTarget.h"

namespace AgentUtils {

/// Copies the file that `url` names to `target`. Throws `DownloadFailure` when the URL names
/// another host, or when what it names is not a regular file or can't be read.
void copyFromFileServer(const std::string& url, DownloadTarget& target);

}  // namespace AgentUtils
