// What the bundled agent modules are configured with. The host calls `configure` once, before the
// library's first use and before any other thread; the modules only read.

#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "AgentUtils.h"
#include "VarnExport.h"

namespace AgentUtils {

/// What became of the server's list while keys are trusted.
struct ListJudgement {
  std::string refusal{};                ///< why it does not count, a sentence; empty when it does
  std::vector<std::string> signedBy{};  ///< the names of the keys: "293CBC668E52E64C"
  std::uint64_t serial = 0;             ///< the highest that they have signed
  std::string expires{};                ///< when it counts no more: "2026-12-22T11:30:00Z"
};

/// The settings of the bundled modules. An empty text means "not given".
struct AgentSettings {
  std::string basePath{};  ///< absolute, no trailing slash
  /// As `basePath`; BASE/data/CUSTOMER, or BASE/data without a customer, when empty.
  std::string dataPath{};
  std::string customerID{};  ///< one component of a path: "acme"
  std::string serverURL{};   ///< https://, http:// or file://, without user name and password
  std::string caFile{};  ///< PEM file of the authorities that are trusted; the system's when empty
  std::string clientCert{};  ///< PEM file
  std::string clientKey{};   ///< PEM file
  std::string proxy{};       ///< proxy URL; the environment's proxies when empty
  /// Headers that every request to the server has beside the downloader's own, each "Name: value".
  /// Like the client certificate and what `netrcFile` holds they are for that server alone, by its
  /// scheme, host and port: none that it redirects to gets them. Nothing writes them anywhere.
  std::vector<std::string> requestHeaders{};
  /// A file in the netrc format with a login for the server's host; none is looked for when empty.
  /// Read with every download. Who else may read it is the host's to look at.
  std::string netrcFile{};
  /// The public keys whose signatures on the server's list count, in the format of minisign: a line
  /// that begins with "RW" for each. With any, the list is taken only when enough of them have
  /// signed it, not yet expired and not older than what was accepted before; everything else only
  /// from a path that has the SHA-256 of its content in its name. Without any, what comes from the
  /// server is taken. Documents that lie on the computer are held against the list as well; a host
  /// that links these modules to the library's units itself asks for that:
  /// `VarnScriptRepository::setDocumentTest(AgentUtils::isBoundDocument)`.
  std::vector<std::string> trustedKeys{};
  /// How many different ones of the keys have to have signed a list.
  std::uint32_t signaturesNeeded = 1;
  /// Whether it is remembered which lists were accepted, in the data directory. A host that only
  /// looks, and changes nothing, leaves it: then a list is held against what is remembered.
  bool remembersLists = true;
  /// Whether a downloaded file is on the disk before it takes its place, so that a loss of power
  /// leaves the old file or the new one, whole. A host that downloads to a directory which it
  /// removes in the end leaves it.
  bool syncsDownloads = true;
  /// The time, in place of the system's clock. May be empty.
  std::function<std::chrono::system_clock::time_point()> clock{};
  /// How the downloader names itself to servers; "VarnScriptRepository/" and the library's version
  /// when empty.
  std::string userAgent{};
  /// How often a download over HTTP that failed for a reason that may pass is tried again: no
  /// connection, one that broke off, status 408, 425, 429, 500, 502, 503 or 504. The pauses between
  /// the tries grow from about 1 s on; a server's wish for up to a minute is followed, and one for
  /// more is the end. No try begins more than five minutes after the first one.
  std::uint32_t retries = 2;
  /// Waits before a further try, on the downloading thread, in place of a sleep. What it throws
  /// makes the download fail. May be empty.
  std::function<void(std::chrono::milliseconds pause)> waitForRetry{};
  /// The most that one download may receive, and the most that it may write after any transfer
  /// decompression, in bytes.
  std::uint64_t maxDownload = std::uint64_t{1} << 30;
  /// A download over HTTP that brings less than 1 KiB/s over this time is given up.
  std::chrono::milliseconds slowestWindow = std::chrono::minutes(5);
  /// Called now and then during a download with the bytes so far and the bytes announced (0 when
  /// unknown), on the downloading thread. May be empty.
  std::function<void(std::uint64_t received, std::uint64_t total)> onDownloadProgress{};
  /// Called with the full path of a file before a download replaces it and before its checksum is
  /// tested, on the thread that does so. A host that locks the file here keeps others from
  /// replacing what it has just verified. What it throws makes the download or the test fail. May
  /// be empty.
  std::function<void(const std::string& path)> beforeFileUse{};
  /// Called after the test of a file's checksum with its full path and the outcome, on the testing
  /// thread. May be empty.
  std::function<void(const std::string& path, bool isValid)> afterChecksumTest{};
  /// Called with the server path of a download that failed, or the path of a file that did not pass
  /// the test of its checksum, and why, on that thread; after the log's line. May be empty; what it
  /// throws is of no consequence.
  std::function<void(const std::string& subject, const std::string& cause)> onFailure{};
  /// Called after the server's list was judged by its signatures, and has taken its place when it
  /// counts, on the downloading thread. May be empty; what it throws is of no consequence.
  std::function<void(const ListJudgement& judgement)> onListJudged{};
  /// Called after a row of the store was written with its key, on the writing thread. What it
  /// throws reaches the writer as a failed write. May be empty.
  std::function<void(const std::string& key)> afterRowWrite{};
  /// Called with the path of a file of a file:// server before it is read, on the downloading
  /// thread. What it throws makes the download fail. May be empty.
  std::function<void(const std::string& path)> beforeServerFileUse{};
};

/// Takes over `settings` and sets `gv_globvars` from them.
///
/// Throws `std::invalid_argument` when they would put files where the host did not mean, such as
/// into the root directory: without a base path, with a relative base or data path, and with a
/// customer ID that is no one component of a path; and when no list could be accepted: with a
/// trusted key that is none, more signatures needed than there are keys, or a customer ID that no
/// signature can name. `what()` is a sentence that names the member ("AgentSettings::basePath is
/// relative: agent"). Then the settings taken over before are still in force.
VARN_EXPORT void configure(AgentSettings settings);

/// The settings taken over last, the data path filled in; all empty before.
[[nodiscard]] VARN_EXPORT const AgentSettings& settings();

/// Starts the libraries behind downloads over HTTP and HTTPS, which otherwise start with the first
/// one: what they take from the environment (OPENSSL_CONF, SSLKEYLOGFILE) they take here. Writes a
/// warning to the log when the server is a plain http:// one on another computer and no key is
/// trusted, and before that
/// a line that says whether lists are verified. Called once, after `configure`, by a host that
/// cares about any of it.
VARN_EXPORT void prepareDownloads();

/// Whether the data document at `path` on this computer is the one that `serverPath` in the list
/// names by its SHA-256; true for every document while no key is trusted. The file is only read.
/// Any thread; never throws: what can't be read is not that document.
[[nodiscard]] VARN_EXPORT bool isBoundDocument(const std::string& path,
                                               const std::string& serverPath) noexcept;

}  // namespace AgentUtils
