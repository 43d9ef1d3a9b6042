// The bundled downloader: a server path becomes a URL, the URL's file arrives in a temporary file,
// the temporary file takes the target's place. The only state is the settings. Any thread; nothing
// throws.

#include <exception>
#include <string>

#include "AgentLog.h"
#include "AgentSettings.h"
#include "AgentUtils.h"
#include "DownloadTarget.h"
#include "FileServer.h"
#include "HttpTransfer.h"
#include "ServerURL.h"
#include "WritableByOthers.h"

namespace AgentUtils {
namespace {

constexpr const char* kSource = "HttpHandlermac";
constexpr const char* kOperation = "downloadFileWithRootPermission(fromURL:toPath:)";
constexpr int kMostRedirects = 5;

/// A document may name any path; what it names must not lead out of the agent's directories.
void requireInside(const std::string& toPath, const std::string& basePath) {
  if (toPath.find('\0') != toPath.npos) throw DownloadFailure("the target's name holds a NUL");
  if (toPath.starts_with(basePath + '/') && hasParentComponent(toPath.substr(basePath.size()))) {
    throw DownloadFailure("the target leads out of its directory: " + toPath);
  }
}

void fetchOverHTTP(std::string url, const AgentSettings& settings, DownloadTarget& target) {
  for (int redirects = 0; redirects <= kMostRedirects; ++redirects) {
    const auto redirect = transfer(url, settings, target);
    if (!redirect) return;
    if (!mayRedirect(url, *redirect)) throw DownloadFailure("redirected to " + *redirect);
    url = *redirect;
  }
  throw DownloadFailure("more than " + std::to_string(kMostRedirects) + " redirects");
}

void fetch(const std::string& url, const std::string& fromURL, const AgentSettings& settings,
           DownloadTarget& target) {
  if (hasScheme(url, "http") || hasScheme(url, "https")) {
    fetchOverHTTP(url, settings, target);
    return;
  }
  if (!hasScheme(url, "file")) throw DownloadFailure("no server of a known kind is configured");
  if (hasParentComponent(percentDecoded(fromURL))) {
    throw DownloadFailure("the server path leads out of the server's directory");
  }
  copyFromFileServer(url, target);
}

void download(const std::string& fromURL, const std::string& toPath) {
  const AgentSettings& current = settings();
  requireInside(toPath, current.basePath);
  const std::string directory = directoryOf(toPath);
  reportWhenWritableByOthers(directory, kSource, kOperation);
  DownloadTarget target(toPath, current.maxDownload);
  fetch(urlOfServerPath(current.serverURL, fromURL), fromURL, current, target);
  if (current.beforeFileUse) current.beforeFileUse(toPath);
  target.commit();
  sweepTemporaryFiles(directory);
}

}  // namespace

HttpHandlermac HttpHandlermac::initWithServerInfo() { return {}; }

bool HttpHandlermac::downloadFileWithRootPermission(const std::string& fromURL,
                                                    const std::string& toPath) {
  try {
    try {
      download(fromURL, toPath);
      return true;
    } catch (const std::exception& failure) {
      AgentLog::logInfo("Download of " + fromURL + " failed: " + failure.what(), kSource,
                        kOperation, __LINE__);
    }
  } catch (...) {
    // Out of memory while telling of it.
  }
  return false;
}

}  // namespace AgentUtils
