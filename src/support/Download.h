// One download through the agent.

#pragma once

#include <string>

#include "AgentUtils.h"
#include "support/Guard.h"

namespace VarnScriptRepository {

/// Fetches the server path `fromURL` to the local file `toPath` with a downloader of its own. True
/// on success; a downloader that throws has failed.
[[nodiscard]] inline bool download(const std::string& fromURL, const std::string& toPath) {
  return guarded(false, [&] {
    return AgentUtils::HttpHandlermac::initWithServerInfo().downloadFileWithRootPermission(fromURL,
                                                                                           toPath);
  });
}

}  // namespace VarnScriptRepository
