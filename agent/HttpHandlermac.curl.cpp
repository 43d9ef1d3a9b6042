// The bundled downloader: a server path becomes a URL, the URL's file arrives in a temporary file,
// the temporary file takes the target's place. What the target already is, byte for byte, the
// server is not asked to send again. What may have failed by chance is tried again. The only state
// is the settings and the connections that wait for the next download. Any thread; nothing throws.

#include <chrono>
#include <cstddef>
#include <exception>
#include <optional>
#include <string>
#include <thread>

#include "AgentLog.h"
#include "AgentSettings.h"
#include "AgentUtils.h"
#include "Calls.h"
#include "DownloadRetries.h"
#include "DownloadTarget.h"
#include "DownloadTrust.h"
#include "FileServer.h"
#include "HttpTransfer.h"
#include "KeptCopy.h"
#include "ServerURL.h"
#include "WritableByOthers.h"
#include "signing/ListSignature.h"

namespace AgentUtils {
namespace {

constexpr const char* kSource = "HttpHandlermac";
constexpr const char* kOperation = "downloadFileWithRootPermission(fromURL:toPath:)";
constexpr int kMostRedirects = 5;

/// What a download found to do.
enum class Outcome {
  arrived,   ///< the file is complete and takes the target's place
  unchanged  ///< the target is what the server has
};

/// Asks with what is kept, if anything is; from an answer on that says nothing of it, it is gone.
Outcome fetchOverHTTP(const std::string& asked, const AgentSettings& settings,
                      DownloadTarget& target, std::optional<KeptCopy>& kept) {
  DownloadPace pace(settings.slowestWindow, DownloadPace::Clock::now());
  std::string url = asked;
  for (int redirects = 0; redirects <= kMostRedirects;) {
    const Reply reply =
        transfer(url, kept ? kept->validators() : Validators{}, settings, target, pace);
    switch (reply.kind) {
      case Reply::Kind::body:
        if (redirects == 0) keepWithFile(target.temporaryFile(), asked, reply.validators);
        return Outcome::arrived;
      case Reply::Kind::notModified:
        if (kept->isUntouched()) return Outcome::unchanged;
        break;
      case Reply::Kind::refused:
        break;
      case Reply::Kind::redirect:
        if (!mayRedirect(url, reply.redirect)) {
          throw DownloadFailure("redirected to " + withoutSecrets(reply.redirect));
        }
        url = reply.redirect;
        ++redirects;
        break;
    }
    // Whatever is asked next is asked for whole.
    kept.reset();
  }
  throw DownloadFailure("more than " + std::to_string(kMostRedirects) + " redirects");
}

bool isOverHTTP(const std::string& url) {
  return hasScheme(url, "http") || hasScheme(url, "https");
}

Outcome fetch(const std::string& url, const std::string& fromURL, const AgentSettings& settings,
              DownloadTarget& target, std::optional<KeptCopy>& kept) {
  if (isOverHTTP(url)) return fetchOverHTTP(url, settings, target, kept);
  if (!hasScheme(url, "file")) throw DownloadFailure("no server of a known kind is configured");
  if (hasParentComponent(percentDecoded(fromURL))) {
    throw DownloadFailure("the server path leads out of the server's directory");
  }
  const auto path = pathOfFileURL(url);
  if (path && settings.beforeServerFileUse) settings.beforeServerFileUse(*path);
  copyFromFileServer(url, target);
  return Outcome::arrived;
}

/// The signature at a server path. It passes through a temporary file beside `toPath`, of which
/// nothing stays.
std::string fetchSignature(const std::string& fromURL, const std::string& toPath,
                           const AgentSettings& settings) {
  constexpr std::size_t most = signing::kLongestSignatureFile;
  DownloadTarget target(toPath, most, "longer than a signature file may be");
  std::optional<KeptCopy> none;
  static_cast<void>(
      fetch(urlOfServerPath(settings.serverURL, fromURL), fromURL, settings, target, none));
  return wholeContent(target.temporaryFile(), most);
}

/// What an earlier download has left of `url`, when the server may be asked whether it is still
/// that. The validators are about the URL that was asked for. What a redirect leads to may be
/// another file each time, so its answer is neither asked for with them nor are its own kept.
std::optional<KeptCopy> keptCopyOf(const std::string& url, const std::string& toPath,
                                   const AgentSettings& settings, const DownloadTrust& trust) {
  if (!isOverHTTP(url)) return std::nullopt;
  noteFetchedFile(toPath);
  std::optional<KeptCopy> kept = KeptCopy::find(toPath, url, settings.maxDownload);
  if (kept && trust.isOfBoundFile() && !trust.isContent(kept->digest())) return std::nullopt;
  if (kept && trust.isOfList() && !trust.mayBeUnchangedSince(kept->received())) return std::nullopt;
  return kept;
}

/// Whether the copy that the server says is unchanged may stay in use.
bool mayStay(const KeptCopy& kept, const DownloadTrust& trust) {
  if (!trust.isOfList()) return true;
  bool isUntouched = false;
  const bool isAccepted = trust.acceptsKeptList(
      kept.digest(), [&] { return kept.content(); }, [&] { isUntouched = kept.isUntouched(); });
  return isAccepted && isUntouched;
}

/// One try, with a temporary file of its own, which is gone when it has failed.
void downloadHeldAgainst(const DownloadTrust& trust, const std::string& fromURL,
                         const std::string& toPath, const AgentSettings& settings) {
  DownloadTarget target(toPath, settings.maxDownload);
  const std::string url = urlOfServerPath(settings.serverURL, fromURL);
  std::optional<KeptCopy> kept = keptCopyOf(url, toPath, settings, trust);
  if (fetch(url, fromURL, settings, target, kept) == Outcome::unchanged) {
    if (mayStay(*kept, trust)) return;
    kept.reset();
    static_cast<void>(fetch(url, fromURL, settings, target, kept));
  }
  trust.accept(target, [&] {
    if (settings.beforeFileUse) settings.beforeFileUse(toPath);
    target.commit(settings.syncsDownloads ? Durability::synced : Durability::unsynced);
  });
}

/// The same. That the list before counts no more is a part of why there is none.
void downloadOnce(const std::string& fromURL, const std::string& toPath,
                  const AgentSettings& settings) {
  const DownloadTrust::FetchSignature signatureAt = [&](const std::string& serverPath) {
    return fetchSignature(serverPath, toPath, settings);
  };
  const DownloadTrust trust(settings, fromURL, signatureAt);
  try {
    downloadHeldAgainst(trust, fromURL, toPath, settings);
  } catch (const ListRefusal&) {
    throw;
  } catch (const TransientFailure& failure) {
    throw TransientFailure(trust.withRemarkOnLastList(failure.what()), failure.askedPause());
  } catch (const DownloadFailure& failure) {
    throw DownloadFailure(trust.withRemarkOnLastList(failure.what()));
  }
}

/// "1.5" for 1500.
std::string secondsText(std::chrono::milliseconds time) {
  return std::to_string(time.count() / 1000) + '.' + std::to_string(time.count() % 1000 / 100);
}

/// The pause before the next try, and nothing when there was no need for one. Throws what the last
/// try threw.
std::optional<std::chrono::milliseconds> pauseAfterTry(const std::string& fromURL,
                                                       const std::string& toPath,
                                                       const AgentSettings& settings,
                                                       DownloadRetries& retries) {
  try {
    downloadOnce(fromURL, toPath, settings);
    return std::nullopt;
  } catch (const TransientFailure& failure) {
    const auto now = DownloadRetries::Clock::now();
    // No two computers have the same fraction of a second.
    const std::chrono::duration<double> chance = now.time_since_epoch() % std::chrono::seconds(1);
    const auto pause = retries.next(failure.askedPause(), chance.count(), now);
    if (!pause) throw;
    AgentLog::logInfo("Trying again in " + secondsText(*pause) + " s: the download of " + fromURL +
                          " failed: " + failure.what(),
                      kSource, kOperation, __LINE__);
    return pause;
  }
}

void waitForRetry(std::chrono::milliseconds pause, const AgentSettings& settings) {
  if (settings.waitForRetry) return settings.waitForRetry(pause);
  std::this_thread::sleep_for(pause);
}

void download(const std::string& fromURL, const std::string& toPath) {
  const AgentSettings& current = settings();
  requireInside(toPath, current.basePath);
  requireOutsideTrustState(toPath, current);
  const std::string directory = posix::directoryOf(toPath);
  reportWhenWritableByOthers(directory, kSource, kOperation);
  DownloadRetries retries(current.retries, DownloadRetries::Clock::now());
  while (const auto pause = pauseAfterTry(fromURL, toPath, current, retries))
    waitForRetry(*pause, current);
  sweepTemporaryFiles(directory);
}

}  // namespace

void prepareDownloads() {
  const std::size_t keys = settings().trustedKeys.size();
  AgentLog::logInfo(keys == 0 ? "Lists are not verified: no key is trusted"
                              : "Lists are verified: signatures by " +
                                    std::to_string(settings().signaturesNeeded) + " of " +
                                    std::to_string(keys) + " trusted keys are needed",
                    "DownloadTrust", "prepareDownloads()", __LINE__);
  const std::string& server = settings().serverURL;
  const bool isPlain = hasScheme(server, "http");
  if (!isPlain && !hasScheme(server, "https")) return;
  if (!startTransfers()) return;
  // With keys, who is on the way decides nothing.
  if (!isPlain || isOnThisComputer(server) || keys > 0) return;
  AgentLog::logInfo(
      "Plain http:// server: who is on the way to " + hostOf(server) + " decides what is run here",
      kSource, "prepareDownloads()", __LINE__);
}

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
      if (settings().onFailure) settings().onFailure(fromURL, failure.what());
    }
  } catch (...) {
    // Out of memory while telling of it.
  }
  return false;
}

}  // namespace AgentUtils
