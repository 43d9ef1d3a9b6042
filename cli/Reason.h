// Why no script was run: a sentence that a person can act on, and a code that a program can. Found
// from what the library and its modules tell of a request.

#pragma once

#include <string>
#include <string_view>
#include <system_error>
#include <utility>

#include "Settings.h"
#include "VarnScriptRepository/ScriptRunObserver.h"

namespace VarnScripts {

/// All causes there are. Their names in the object of `run --json` are these with underscores.
enum class ReasonCode {
  listUnavailable,      ///< the server's list can't be fetched
  listUntrusted,        ///< it is not signed as it must be, or not the newest
  listUnreadable,       ///< it can't be read, or is no list
  notListed,            ///< it has no such script
  documentUnlisted,     ///< it names no data document for the script
  documentUnavailable,  ///< the data document can't be fetched
  documentUnreadable,   ///< it can't be read, or is no data document
  documentIncomplete,   ///< it lacks the script's file, checksum or definition
  scriptUnavailable,    ///< the script file can't be fetched
  checksumMismatch,     ///< it is not what the server's checksum says
  interpreterUnknown,   ///< the script's name tells no interpreter
  interpreterMissing,   ///< the interpreter is not on this computer
  startFailed,          ///< the system can't start it
  lockedOut,            ///< the request's turn can't be taken
  unsafeDirectory,      ///< somebody else could change what the request uses
  foreignRecord,        ///< the local record is another customer's
  localStateFailed,     ///< what an earlier request left can't be put right
  outOfMemory,          ///< there is not enough memory
};

/// "list_unavailable" for `ReasonCode::listUnavailable`.
[[nodiscard]] std::string_view nameOf(ReasonCode code);

struct Reason {
  ReasonCode code;
  std::string sentence;
};

// ---- The host's own reasons, for what it does before the library's first step ----------------

/// Another process runs the script; 0 for one that is not known.
[[nodiscard]] Reason inUse(const std::string& scriptID, int processID);
/// Another process uses the script file at `path`, which several scripts may have.
[[nodiscard]] Reason fileInUse(const std::string& path, int processID);
/// The lock file can't be made, opened or locked.
[[nodiscard]] Reason lockNotTaken(const std::string& lockPath, const std::error_code& error);
/// The data document that an interrupted request has left, or its mark, can't be removed.
[[nodiscard]] Reason documentStays(const std::string& scriptID, const std::string& markPath,
                                   const std::error_code& error);

/// Watches one request, on its thread, and gives the reason when nothing was run.
class ReasonFinder : public VarnScriptRepository::ScriptRunObserver {
 public:
  /// `settings` as long as this.
  ReasonFinder(std::string scriptID, const Settings& settings)
      : scriptID_(std::move(scriptID)), settings_(settings) {}

  /// What a module says of a download or a checksum test that failed, which the failed step of the
  /// request is about that comes next.
  void moduleFailed(const std::string& subject, const std::string& cause);

  /// What the downloader says of the list's signatures.
  void listJudged(const AgentUtils::ListJudgement& list) { listRefusal_ = list.refusal; }

  void stepFailed(const VarnScriptRepository::FailedStep& failed) override;
  void scriptStarts(const VarnScriptRepository::ScriptStart& start) override;
  void scriptEnded(const VarnScriptRepository::ScriptEnd& end) override;
  void interpreterMissing(const std::string& launchPath);

  /// Why nothing was run. When nothing was reported, there was no memory for it.
  [[nodiscard]] const Reason& reason() const { return reason_; }

 private:
  [[nodiscard]] std::string filled(std::string_view pattern, std::string_view subject,
                                   std::string_view cause) const;

  const std::string scriptID_;
  const Settings& settings_;
  std::string failedSubject_;
  std::string failedCause_;
  std::string listRefusal_;
  std::string launchPath_;
  Reason reason_{ReasonCode::outOfMemory, "There is not enough memory"};
};

/// Whether warnings are written to standard error by themselves: where there is no log of which
/// they are a part, unless quiet.
[[nodiscard]] bool showsWarnings(const AgentLog::LogSettings& log);

/// Writes the sentence as the last line of standard error: as a record of the log when the log
/// there is JSON, otherwise plain. A log elsewhere gets it as a record, too.
void writeReason(std::string_view sentence, const Settings& settings);

/// Writes a remark on a request that went well, likewise, and nothing of it when quiet.
void writeRemark(const std::string& remark, const Settings& settings);

/// Writes the answer of a request to standard output. A failure is told as a reason is. True when
/// all of it was written.
bool writeAnswer(std::string_view text, const Settings& settings);

/// Tells why an answer could not be written, likewise.
void writeOutputFailure(const std::error_code& error, const Settings& settings);

/// "process 12", or "another process" where the system does not say which.
[[nodiscard]] std::string processText(int processID);

}  // namespace VarnScripts
