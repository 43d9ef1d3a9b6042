#include "Run.h"

#include <chrono>
#include <cstdint>
#include <exception>
#include <optional>
#include <string>
#include <string_view>
#include <system_error>
#include <utility>
#include <vector>

#include "AgentDirectories.h"
#include "AgentModules.h"
#include "Directories.h"
#include "ExitStatus.h"
#include "LiveOutput.h"
#include "Outcome.h"
#include "PathGuard.h"
#include "Pieces.h"
#include "Progress.h"
#include "Reason.h"
#include "RecordOwner.h"
#include "RequestFiles.h"
#include "ScriptRepositoryMetaProcessor.h"
#include "ScriptTurn.h"
#include "SignalForwarding.h"
#include "StandardStreams.h"
#include "VarnScriptRepository/ScriptRepositoryHost.h"
#include "VarnScriptRepository/ScriptRepositoryLocalMeta.h"
#include "VarnScriptRepository/ScriptRepositoryProcessor.h"
#include "VarnScriptRepository/ScriptRunObserver.h"

namespace VarnScripts {
namespace {

using VarnScriptRepository::ProcessingResult;
using VarnScriptRepository::ScriptRepositoryConstants;
using VarnScriptRepository::ScriptRepositoryMetaProcessor;
using VarnScriptRepository::ScriptRepositoryProcessor;
using VarnScriptRepository::ScriptTurn;

// The version that a request runs is the one that the list names.
std::string versionOnServer(const std::string& scriptID) {
  return ScriptRepositoryMetaProcessor::shared().getModifiedTime(scriptID).value_or("");
}

// Has the request's script watched for as long as this lives.
class RunWatch final : VarnScriptRepository::ScriptRunObserver {
 public:
  RunWatch(const std::string& scriptID, SignalForwarding& signals, Progress& progress,
           LiveOutput& output, ReasonFinder& reason)
      : scriptID_(scriptID),
        signals_(signals),
        progress_(progress),
        output_(output),
        reason_(reason) {
    VarnScriptRepository::setScriptRunObserver(this);
  }
  ~RunWatch() override { VarnScriptRepository::setScriptRunObserver(nullptr); }

  // The script that ran, when one did. Moved out: a copy could fail, after a script has run.
  [[nodiscard]] std::optional<ScriptRun> takeRun() noexcept { return std::move(run_); }

 private:
  void stepFailed(const VarnScriptRepository::FailedStep& step) override {
    reason_.stepFailed(step);
  }
  void scriptStarts(const VarnScriptRepository::ScriptStart& start) override {
    signals_.scriptStarts();
    progress_.showRun(start.limit);
    reason_.scriptStarts(start);
    path_ = start.scriptPath;
  }
  void scriptStarted(int processID) override {
    signals_.scriptStarted(processID);
    run_ = {std::chrono::system_clock::now(), versionOnServer(scriptID_), std::move(path_)};
  }
  void outputTaken(std::string_view output) override { output_.take(output); }
  void processEnded() override { signals_.scriptIsGone(); }
  void scriptEnded(const VarnScriptRepository::ScriptEnd& end) override {
    // Also the end of one that could not be started.
    signals_.scriptIsGone();
    progress_.endRun();
    reason_.scriptEnded(end);
    if (!run_) return;
    run_->end = end;
    run_->end.cause = {};
  }

  const std::string& scriptID_;
  SignalForwarding& signals_;
  Progress& progress_;
  LiveOutput& output_;
  ReasonFinder& reason_;
  std::string path_;
  std::optional<ScriptRun> run_;
};

void write(const CommandLine& line, const Settings& settings, const Outcome& outcome,
           const WrittenOutput& written) {
  if (!line.json) return writeText(outcome, settings, written);
  bool isWhole = true;
  Pieces pieces([&](std::string_view piece) { isWhole = isWhole && writeAnswer(piece, settings); });
  addJSON(line.scriptID, outcome, settings, pieces);
  pieces.end();
}

int report(const CommandLine& line, const Settings& settings, const Outcome& outcome,
           const WrittenOutput& written) {
  try {
    write(line, settings, outcome, written);
  } catch (const std::exception&) {
    // Only when out of memory, and a script that has run has run.
    writeOutOfMemory();
  }
  return exitStatusOf(outcome);
}

Outcome notRun(Reason reason) { return {{}, std::move(reason), std::nullopt}; }

Outcome notRun(ReasonCode code, std::string sentence) {
  return notRun({code, std::move(sentence)});
}

Outcome request(const CommandLine& line, const Settings& settings, RunWatch& watch,
                const ReasonFinder& reason, ScriptTurn& turn, RequestFiles& files,
                PathGuard& guard) {
  std::vector<UsedPath> paths = pathsOfRequests();
  for (UsedPath& path : pathsOfScript(line.scriptID)) paths.push_back(std::move(path));
  if (!guard.allows(paths)) return notRun(ReasonCode::unsafeDirectory, guard.refusal());
  if (auto complaint =
          complaintAboutRecord(ScriptRepositoryConstants::FilePath::scriptRepository(), settings)) {
    return notRun(ReasonCode::foreignRecord, std::move(*complaint));
  }
  std::error_code error;
  turn.take({line.scriptID}, error);
  if (error) {
    // Without its turn a request could run what another one is just replacing.
    return notRun(error == std::errc::resource_unavailable_try_again
                      ? inUse(line.scriptID, turn.holder())
                      : lockNotTaken(VarnScriptRepository::requestLockPath(), error));
  }
  files.begin(error);
  // The document may belong to another version than the one that is recorded.
  if (error) return notRun(documentStays(line.scriptID, files.mark().path(), error));
  ScriptRepositoryProcessor processor(line.scriptID);
  if (line.acceptCodes) processor.overrideExpectedReturnCode = line.acceptCodes;
  ProcessingResult result = processor.processScript();
  files.end();
  if (!result.first) {
    if (!guard.refusal().empty()) return notRun(ReasonCode::unsafeDirectory, guard.refusal());
    if (!files.heldElsewhere().empty()) {
      return notRun(fileInUse(files.heldElsewhere(), turn.holder()));
    }
    return {{}, reason.reason(), std::nullopt};
  }
  try {
    AgentUtils::removeLeftDownloads(VarnScriptRepository::scriptRepoScriptsDirectory());
  } catch (const std::exception&) {
    // Without memory for it they are left to the next request, and what has run has run.
  }
  return {std::move(result), std::nullopt, watch.takeRun()};
}

}  // namespace

int run(const CommandLine& line, const Settings& settings) {
  // Before any other thread, and never destroyed: its thread runs until the process ends.
  auto& signals = *new SignalForwarding;
  ReasonFinder reason(line.scriptID, settings);
  ScriptTurn turn({!line.noWait, [&settings](int processID) {
                     writeRemark("waiting for " + processText(processID), settings);
                   }});
  Progress progress(Progress::isPossible() && !settings.log.quiet);
  LiveOutput output(!line.json && (line.follow || isOutputTerminal()), settings.maxOutput);
  RunWatch watch(line.scriptID, signals, progress, output, reason);
  ModuleObservers observers;
  observers.onRecord = [&progress](const AgentLog::Record&) { progress.makeWay(); };
  observers.onFailure = [&reason](const std::string& subject, const std::string& cause) {
    reason.moduleFailed(subject, cause);
  };
  std::optional<AgentUtils::ListJudgement> list;
  observers.onListJudged = [&reason, &list](const AgentUtils::ListJudgement& judgement) {
    reason.listJudged(judgement);
    if (judgement.refusal.empty()) list = judgement;
  };
  observers.onDownloadProgress = [&progress](std::uint64_t received, std::uint64_t total) {
    progress.showDownload(received, total);
  };
  std::optional<RequestFiles> files;
  observers.beforeFileUse = [&files](const std::string& path) { files->beforeFileUse(path); };
  observers.afterChecksumTest = [&files](const std::string& path, bool isValid) {
    files->afterChecksumTest(path, isValid);
  };
  observers.afterRowWrite = [&files](const std::string& key) { files->afterRowWrite(key); };
  PathGuard guard(MissingDirectory::made);
  guard.watch(observers);
  if (const auto error = configureAgentModules(settings, observers)) {
    progress.finish();
    writeErrorLine("varn-scripts: " + error->line);
    return kExitUsage;
  }
  prepareDownloads();
  files.emplace(line.scriptID, turn);
  Outcome outcome = request(line, settings, watch, reason, turn, *files, guard);
  outcome.list = std::move(list);
  WrittenOutput written;
  written.length = output.finish(written.error);
  progress.finish();
  const int exitStatus = report(line, settings, outcome, written);
  signals.endWhenStopped();
  return exitStatus;
}

}  // namespace VarnScripts
