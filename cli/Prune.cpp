#include "Prune.h"

#include <cstdint>
#include <optional>
#include <string>
#include <system_error>
#include <vector>

#include "AgentDirectories.h"
#include "AgentLog.h"
#include "AgentModules.h"
#include "Directories.h"
#include "DocumentMark.h"
#include "ExitStatus.h"
#include "PathGuard.h"
#include "Progress.h"
#include "PruneAnswer.h"
#include "Reason.h"
#include "RecordOwner.h"
#include "SignalForwarding.h"
#include "StandardStreams.h"
#include "VarnScriptRepository/ScriptRepositoryHost.h"
#include "VarnScriptRepository/ScriptRepositoryLocalMeta.h"
#include "VarnScriptRepository/ScriptRepositoryProcessor.h"

namespace VarnScripts {
namespace {

using VarnScriptRepository::removeDroppedScripts;
using VarnScriptRepository::ScriptRemoval;
using VarnScriptRepository::ScriptRepositoryConstants;
using VarnScriptRepository::ScriptRepositoryProcessor;
using VarnScriptRepository::ScriptTurn;

// The removal with the turns of all that it removes.
PruneAnswer removeDropped(const Settings& settings) {
  ScriptTurn turn({true, [&settings](int processID) {
                     writeRemark("waiting for " + processText(processID), settings);
                   }});
  const ScriptRemoval removal = removeDroppedScripts(turn);
  if (!removal.reason.empty()) {
    return {false,
            {},
            Reason{removal.isLockedOut ? ReasonCode::lockedOut : ReasonCode::localStateFailed,
                   "Nothing is removed: " + removal.reason}};
  }
  for (const std::string& scriptID : removal.scriptIDs) {
    std::error_code ignored;
    DocumentMark(scriptID).remove(ignored);
  }
  return {false, removalIDs(removal.scriptIDs), std::nullopt};
}

}  // namespace

int prune(const CommandLine& line, const Settings& settings) {
  if (line.dryRun) return pruneDryRun(line, settings);
  // Before any other thread, and never destroyed: a signal leaves the terminal clean.
  [[maybe_unused]] static const auto& signals = *new SignalForwarding;
  Progress progress(Progress::isPossible() && !settings.log.quiet);
  ModuleObservers observers;
  // No script is in this: nothing but the list can fail.
  ReasonFinder reason("", settings);
  VarnScriptRepository::setScriptRunObserver(&reason);
  observers.onFailure = [&reason](const std::string& subject, const std::string& cause) {
    reason.moduleFailed(subject, cause);
  };
  observers.onListJudged = [&reason](const AgentUtils::ListJudgement& list) {
    reason.listJudged(list);
  };
  observers.onRecord = [&progress](const AgentLog::Record&) { progress.makeWay(); };
  observers.onDownloadProgress = [&progress](std::uint64_t received, std::uint64_t total) {
    progress.showDownload(received, total);
  };
  PathGuard guard(MissingDirectory::made);
  guard.watch(observers);
  if (const auto error = configureAgentModules(settings, observers)) {
    progress.finish();
    writeErrorLine("varn-scripts: " + error->line);
    return kExitUsage;
  }
  const auto answer = [&](const PruneAnswer& given) {
    progress.finish();
    return answerPrune(given, line, settings);
  };
  const auto refused = [&](ReasonCode code, const std::string& sentence) {
    return answer({false, {}, Reason{code, sentence}});
  };
  if (!guard.allows(pathsOfRequests())) {
    return refused(ReasonCode::unsafeDirectory, guard.refusal());
  }
  prepareDownloads();
  if (const auto complaint =
          complaintAboutRecord(ScriptRepositoryConstants::FilePath::scriptRepository(), settings)) {
    return refused(ReasonCode::foreignRecord, *complaint);
  }
  if (!VarnScriptRepository::reloadServerList()) {
    // Called all the same: the library's own line tells that nothing is removed.
    ScriptRepositoryProcessor::removeServerRemovedScripts();
    if (!guard.refusal().empty()) return refused(ReasonCode::unsafeDirectory, guard.refusal());
    return refused(reason.reason().code, reason.reason().sentence);
  }
  const PruneAnswer removed = removeDropped(settings);
  // The list's download has looked after the other directory.
  AgentUtils::removeLeftDownloads(VarnScriptRepository::scriptRepoScriptsDirectory());
  return answer(removed);
}

}  // namespace VarnScripts
