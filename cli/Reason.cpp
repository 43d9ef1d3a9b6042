#include "Reason.h"

#include <algorithm>
#include <iterator>

#include "AgentLog.h"
#include "Pieces.h"
#include "ScriptRules.h"
#include "ServerURL.h"
#include "StandardStreams.h"

namespace VarnScripts {
namespace {

using VarnScriptRepository::FailedStep;
using VarnScriptRepository::RequestStep;
using VarnScriptRepository::ScriptEnd;

constexpr std::string_view kCodeNames[] = {
    "list_unavailable",   "list_untrusted",       "list_unreadable",     "not_listed",
    "document_unlisted",  "document_unavailable", "document_unreadable", "document_incomplete",
    "script_unavailable", "checksum_mismatch",    "interpreter_unknown", "interpreter_missing",
    "start_failed",       "locked_out",           "unsafe_directory",    "foreign_record",
    "local_state_failed", "out_of_memory",
};

// `subject` is what the step names, `url` its URL on the server, `cause` a colon and why.
struct StepRow {
  RequestStep step;
  ReasonCode code;
  std::string_view sentence;
};

constexpr StepRow kSteps[] = {
    {RequestStep::listDownload, ReasonCode::listUnavailable,
     "The list of customer {customer} can't be fetched from {url}{cause}"},
    {RequestStep::listRead, ReasonCode::listUnreadable,
     "The list of customer {customer}, {subject}, can't be read{cause}"},
    {RequestStep::listDecode, ReasonCode::listUnreadable,
     "The list of customer {customer} is no list of scripts; it is damaged, or something else came "
     "in "
     "its place"},
    {RequestStep::listLookUp, ReasonCode::notListed,
     "The server's list of customer {customer} has no script {id}"},
    {RequestStep::documentLookUp, ReasonCode::documentUnlisted,
     "The server's list names no data document of script {id}"},
    {RequestStep::documentDownload, ReasonCode::documentUnavailable,
     "The data document of script {id} can't be fetched from {url}{cause}"},
    {RequestStep::documentRead, ReasonCode::documentUnreadable,
     "The data document of script {id}, {subject}, can't be read{cause}"},
    {RequestStep::documentDecode, ReasonCode::documentUnreadable,
     "The data document of script {id} is no such document; it is damaged, or something else came "
     "in "
     "its place"},
    {RequestStep::fileLookUp, ReasonCode::documentIncomplete,
     "The data document of script {id} has no file {subject}"},
    {RequestStep::fileDownload, ReasonCode::scriptUnavailable,
     "The file of script {id} can't be fetched from {url}{cause}"},
    {RequestStep::checksumLookUp, ReasonCode::documentIncomplete,
     "The data document of script {id} has no checksum of the script's file"},
    {RequestStep::checksumTest, ReasonCode::checksumMismatch,
     "{subject} is not what the server's checksum says{cause}"},
    {RequestStep::definitionLookUp, ReasonCode::documentIncomplete,
     "The data document of script {id} does not define the script"},
    {RequestStep::interpreterLookUp, ReasonCode::interpreterUnknown,
     "No interpreter is known for {subject}; a script's name ends in {extensions}"},
};

// In place of the first row when the list was fetched and does not count.
constexpr StepRow kUntrusted = {RequestStep::listDownload, ReasonCode::listUntrusted,
                                "The list of customer {customer} from {url} is not trusted{cause}"};

// The texts are the server's, and a line of the reason is no place for a long one.
constexpr std::size_t kMostOfAText = 1024;

std::string shortened(std::string_view text) {
  const std::string_view beginning = beginningOf(text, kMostOfAText);
  return std::string(beginning) + (beginning.size() < text.size() ? "…" : "");
}

std::string extensions() {
  std::string list;
  for (const auto& interpreter : VarnScriptRepository::interpreters()) {
    if (!list.empty()) list += ", ";
    list.append(".").append(interpreter.extension);
  }
  return list;
}

std::string whyMissing([[maybe_unused]] const std::string& launchPath) {
#ifndef __APPLE__
  if (launchPath.ends_with("/osascript")) return ": AppleScript runs on macOS alone";
#endif
  return "; script {id} needs it";
}

bool isJSONOnStandardError(const AgentLog::LogSettings& log) {
  return log.format == AgentLog::LogSettings::Format::json && log.writesToStandardError();
}

// Whether what is written to standard error belongs into the log: not where it would stand there
// twice.
bool hasRecords(const AgentLog::LogSettings& log) {
  return isJSONOnStandardError(log) || !log.file.empty() || log.target;
}

}  // namespace

std::string_view nameOf(ReasonCode code) { return kCodeNames[static_cast<std::size_t>(code)]; }
static_assert(std::size(kCodeNames) == static_cast<std::size_t>(ReasonCode::outOfMemory) + 1);

Reason inUse(const std::string& scriptID, int processID) {
  return {ReasonCode::lockedOut, "Script " + scriptID + " is in use by " + processText(processID)};
}

Reason fileInUse(const std::string& path, int processID) {
  return {ReasonCode::lockedOut, path + " is in use by " + processText(processID)};
}

Reason lockNotTaken(const std::string& lockPath, const std::error_code& error) {
  return {ReasonCode::lockedOut,
          "Request lock " + lockPath + " can't be taken: " + error.message()};
}

Reason documentStays(const std::string& scriptID, const std::string& markPath,
                     const std::error_code& error) {
  return {ReasonCode::localStateFailed, "Data document of script " + scriptID +
                                            ", whose version is not recorded, or " + markPath +
                                            " can't be removed: " + error.message()};
}

void ReasonFinder::moduleFailed(const std::string& subject, const std::string& cause) {
  failedSubject_ = subject;
  failedCause_ = cause;
}

void ReasonFinder::stepFailed(const FailedStep& failed) {
  const auto* row = std::ranges::find(kSteps, failed.step, &StepRow::step);
  if (row == std::end(kSteps)) return;
  const bool isTold = failed.cause.empty() && failedSubject_ == failed.subject;
  const bool isRefused = isTold && !listRefusal_.empty() && listRefusal_ == failedCause_;
  if (isRefused && failed.step == kUntrusted.step) row = &kUntrusted;
  reason_ = {row->code,
             filled(row->sentence, failed.subject, isTold ? failedCause_ : failed.cause)};
}

void ReasonFinder::scriptStarts(const VarnScriptRepository::ScriptStart& start) {
  launchPath_ = start.launchPath;
}

void ReasonFinder::interpreterMissing(const std::string& launchPath) {
  reason_ = {ReasonCode::interpreterMissing,
             filled("{subject} is missing" + whyMissing(launchPath), launchPath, {})};
}

void ReasonFinder::scriptEnded(const ScriptEnd& end) {
  if (end.how == ScriptEnd::How::launchPathMissing) {
    interpreterMissing(launchPath_);
  } else if (end.how == ScriptEnd::How::launchFailed) {
    reason_ = {ReasonCode::startFailed,
               filled("{subject} can't be started for script {id}{cause}", launchPath_, end.cause)};
  }
}

std::string ReasonFinder::filled(std::string_view pattern, std::string_view subject,
                                 std::string_view cause) const {
  const auto value = [&](std::string_view name) -> std::string {
    if (name == "customer") return shortened(settings_.agent.customerID);
    if (name == "id") return shortened(scriptID_);
    if (name == "subject") return shortened(subject);
    if (name == "cause") return cause.empty() ? "" : ": " + shortened(cause);
    if (name == "extensions") return extensions();
    return shortened(AgentUtils::withoutSecrets(
        AgentUtils::urlOfServerPath(settings_.agent.serverURL, subject)));
  };
  std::string sentence;
  while (true) {
    const std::size_t open = pattern.find('{');
    sentence += pattern.substr(0, open);
    if (open == pattern.npos) return sentence;
    const std::size_t close = pattern.find('}', open);
    sentence += value(pattern.substr(open + 1, close - open - 1));
    pattern.remove_prefix(close + 1);
  }
}

bool showsWarnings(const AgentLog::LogSettings& log) {
  return !log.quiet && !log.writesToStandardError();
}

void writeReason(std::string_view sentence, const Settings& settings) {
  if (hasRecords(settings.log)) {
    AgentLog::logError(std::string(sentence), "varn-scripts", "writeReason(_:)", __LINE__);
  }
  if (!isJSONOnStandardError(settings.log)) writeErrorLine(sentence);
}

void writeRemark(const std::string& remark, const Settings& settings) {
  if (hasRecords(settings.log)) {
    AgentLog::logInfo(remark, "varn-scripts", "writeRemark(_:)", __LINE__);
  }
  if (!isJSONOnStandardError(settings.log) && !settings.log.quiet) {
    writeErrorLine("varn-scripts: " + remark);
  }
}

bool writeAnswer(std::string_view text, const Settings& settings) {
  std::error_code error;
  writeOutput(text, error);
  if (error) writeOutputFailure(error, settings);
  return !error;
}

void writeOutputFailure(const std::error_code& error, const Settings& settings) {
  const std::string failure = outputFailure(error);
  if (hasRecords(settings.log)) {
    AgentLog::logError(failure, "varn-scripts", "writeOutputFailure(_:)", __LINE__);
  }
  if (!isJSONOnStandardError(settings.log)) writeErrorLine("varn-scripts: " + failure);
}

std::string processText(int processID) {
  return processID > 0 ? "process " + std::to_string(processID) : "another process";
}

}  // namespace VarnScripts
