#include "Run.h"

#include <cstddef>
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
#include "JsonText.h"
#include "PathGuard.h"
#include "Pieces.h"
#include "Progress.h"
#include "Reason.h"
#include "RecordOwner.h"
#include "RequestFiles.h"
#include "RequestLock.h"
#include "SignalForwarding.h"
#include "StandardStreams.h"
#include "VarnScriptRepository/ScriptRepositoryLocalMeta.h"
#include "VarnScriptRepository/ScriptRepositoryProcessor.h"
#include "VarnScriptRepository/ScriptRunObserver.h"

namespace VarnScripts {
namespace {

using VarnScriptRepository::ProcessingResult;
using VarnScriptRepository::ScriptRepositoryConstants;
using VarnScriptRepository::ScriptRepositoryProcessor;

// A request's result, or the reason why its script was not run.
struct Outcome {
  ProcessingResult result;
  std::optional<Reason> reason;
};

// The output as far as the settings let it be written.
struct ShownOutput {
  ShownOutput(std::string_view output, const Settings& settings)
      : text(settings.maxOutput ? beginningOf(output, *settings.maxOutput) : output),
        bytes(output.size()),
        leftOut(bytes - text.size()) {}

  std::string_view text;
  std::size_t bytes;  // of the whole
  std::size_t leftOut;
};

// Has the request's script watched for as long as this lives.
class RunWatch final : VarnScriptRepository::ScriptRunObserver {
 public:
  RunWatch(SignalForwarding& signals, Progress& progress, ReasonFinder& reason)
      : signals_(signals), progress_(progress), reason_(reason) {
    VarnScriptRepository::setScriptRunObserver(this);
  }
  ~RunWatch() override { VarnScriptRepository::setScriptRunObserver(nullptr); }

 private:
  void stepFailed(const VarnScriptRepository::FailedStep& step) override {
    reason_.stepFailed(step);
  }
  void scriptStarts(const VarnScriptRepository::ScriptStart& start) override {
    reason_.scriptStarts(start);
    signals_.scriptStarts();
    progress_.showRun(start.limit);
  }
  void scriptStarted(int processID) override { signals_.scriptStarted(processID); }
  void processEnded() override { signals_.scriptIsGone(); }
  void scriptEnded(const VarnScriptRepository::ScriptEnd& end) override {
    // Also the end of one that could not be started.
    signals_.scriptIsGone();
    progress_.endRun();
    reason_.scriptEnded(end);
  }

  SignalForwarding& signals_;
  Progress& progress_;
  ReasonFinder& reason_;
};

const char* statusOf(const ProcessingResult& result) {
  if (!result.first) return "not_run";
  return *result.first ? "accepted" : "rejected";
}

int exitStatusOf(const ProcessingResult& result) {
  if (!result.first) return kExitNotRun;
  return *result.first ? kExitSuccess : kExitRejected;
}

// Everything in it is made readable, whatever bytes the ID on the command line had.
void addJSON(const std::string& scriptID, const Outcome& outcome,
             const std::optional<ShownOutput>& output, Pieces& to) {
  to.add("{\"script_id\":");
  addJSONText(scriptID, to);
  to.add(",\"status\":");
  addJSONText(statusOf(outcome.result), to);
  to.add(",\"output\":");
  if (output) {
    addJSONText(output->text, to);
  } else {
    to.add("null");
  }
  if (output && output->leftOut > 0) {
    to.add(",\"output_bytes\":" + std::to_string(output->bytes));
    to.add(",\"dropped_bytes\":" + std::to_string(output->leftOut));
  }
  if (outcome.reason) {
    to.add(",\"reason\":");
    addJSONText(outcome.reason->sentence, to);
    to.add(",\"reason_code\":");
    addJSONText(nameOf(outcome.reason->code), to);
  }
  to.add("}\n");
}

void write(const CommandLine& line, const Settings& settings, const Outcome& outcome) {
  std::optional<ShownOutput> output;
  if (outcome.result.second) output.emplace(*outcome.result.second, settings);
  if (line.json) {
    bool written = true;
    Pieces pieces([&](std::string_view piece) { written = written && writeOutput(piece); });
    addJSON(line.scriptID, outcome, output, pieces);
    pieces.end();
  } else if (outcome.reason) {
    writeReason(outcome.reason->sentence, settings);
  } else if (output) {
    writeOutput(output->text);
    if (output->leftOut > 0) {
      writeErrorLine("varn-scripts: " + std::to_string(output->leftOut) + " of " +
                     std::to_string(output->bytes) + " bytes of output are left out (max_output)");
    }
  }
}

int report(const CommandLine& line, const Settings& settings, const Outcome& outcome) {
  try {
    write(line, settings, outcome);
  } catch (const std::exception&) {
    // Only when out of memory, and a script that has run has run.
    writeOutOfMemory();
  }
  return exitStatusOf(outcome.result);
}

Outcome notRun(ReasonCode code, std::string sentence) {
  return {{}, Reason{code, std::move(sentence)}};
}

Outcome request(const CommandLine& line, const Settings& settings, const ReasonFinder& reason,
                RequestLock& lock, RequestFiles& files, PathGuard& guard) {
  std::vector<UsedPath> paths = pathsOfRequests();
  for (UsedPath& path : pathsOfScript(line.scriptID)) paths.push_back(std::move(path));
  if (!guard.allows(paths)) return notRun(ReasonCode::unsafeDirectory, guard.refusal());
  if (auto complaint =
          complaintAboutRecord(ScriptRepositoryConstants::FilePath::scriptRepository(), settings)) {
    return notRun(ReasonCode::foreignRecord, std::move(*complaint));
  }
  std::error_code error;
  lock.acquire(settings.agent.basePath, settings.agent.customerID, {line.scriptID}, error);
  if (error) {
    // Without its turn a request could run what another one is just replacing.
    return notRun(ReasonCode::lockedOut,
                  "Request lock " + lock.path() + " can't be taken: " + error.message());
  }
  files.begin(error);
  if (error) {
    // The document may belong to another version than the one that is recorded.
    return notRun(ReasonCode::localStateFailed,
                  "Data document of script " + line.scriptID +
                      ", whose version is not recorded, or " + files.mark().path() +
                      " can't be removed: " + error.message());
  }
  ScriptRepositoryProcessor processor(line.scriptID);
  if (line.acceptCodes) processor.overrideExpectedReturnCode = line.acceptCodes;
  ProcessingResult result = processor.processScript();
  files.end();
  if (!result.first) {
    if (!guard.refusal().empty()) return notRun(ReasonCode::unsafeDirectory, guard.refusal());
    return {{}, reason.reason()};
  }
  try {
    AgentUtils::removeLeftDownloads(VarnScriptRepository::scriptRepoScriptsDirectory());
  } catch (const std::exception&) {
    // Without memory for it they are left to the next request, and what has run has run.
  }
  return {std::move(result), std::nullopt};
}

}  // namespace

int run(const CommandLine& line, const Settings& settings) {
  // Before any other thread, and never destroyed: its thread runs until the process ends.
  auto& signals = *new SignalForwarding;
  ReasonFinder reason(line.scriptID, settings);
  RequestLock lock;
  Progress progress(Progress::isPossible() && !settings.log.quiet);
  const RunWatch watch(signals, progress, reason);
  ModuleObservers observers;
  observers.onRecord = [&progress](const AgentLog::Record&) { progress.makeWay(); };
  observers.onFailure = [&reason](const std::string& subject, const std::string& cause) {
    reason.moduleFailed(subject, cause);
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
  files.emplace(line.scriptID, lock);
  const Outcome outcome = request(line, settings, reason, lock, *files, guard);
  progress.finish();
  const int exitStatus = report(line, settings, outcome);
  signals.endWhenStopped();
  return exitStatus;
}

}  // namespace VarnScripts
