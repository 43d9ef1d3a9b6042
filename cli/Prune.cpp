#include "Prune.h"

#include <cstdint>
#include <string>
#include <string_view>
#include <system_error>

#include "AgentDirectories.h"
#include "AgentLog.h"
#include "AgentModules.h"
#include "Directories.h"
#include "DocumentMark.h"
#include "ExitStatus.h"
#include "PathGuard.h"
#include "Progress.h"
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

// The removal with the turns of all that it removes. Why it can't be done, or empty.
std::string removeDropped(const Settings& settings) {
  ScriptTurn turn({true, [&settings](int processID) {
                     writeRemark("waiting for " + processText(processID), settings);
                   }});
  const ScriptRemoval removal = removeDroppedScripts(turn);
  if (!removal.reason.empty()) return "Nothing is removed: " + removal.reason;
  for (const std::string& scriptID : removal.scriptIDs) {
    std::error_code ignored;
    DocumentMark(scriptID).remove(ignored);
  }
  return "";
}

int refused(std::string_view reason, const Settings& settings, Progress& progress) {
  progress.finish();
  writeReason(reason, settings);
  return kExitNotRun;
}

}  // namespace

int prune(const CommandLine& /*line*/, const Settings& settings) {
  // Before any other thread, and never destroyed: a signal leaves the terminal clean.
  [[maybe_unused]] const auto& signals = *new SignalForwarding;
  Progress progress(Progress::isPossible() && !settings.log.quiet);
  ModuleObservers observers;
  // No script is in this: nothing but the list can fail.
  ReasonFinder reason("", settings);
  VarnScriptRepository::setScriptRunObserver(&reason);
  observers.onFailure = [&reason](const std::string& subject, const std::string& cause) {
    reason.moduleFailed(subject, cause);
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
  if (!guard.allows(pathsOfRequests())) return refused(guard.refusal(), settings, progress);
  prepareDownloads();
  if (const auto complaint =
          complaintAboutRecord(ScriptRepositoryConstants::FilePath::scriptRepository(), settings)) {
    return refused(*complaint, settings, progress);
  }
  if (!VarnScriptRepository::reloadServerList()) {
    // Called all the same: the library's own line tells that nothing is removed.
    ScriptRepositoryProcessor::removeServerRemovedScripts();
    return refused(guard.refusal().empty() ? reason.reason().sentence : guard.refusal(), settings,
                   progress);
  }
  const std::string problem = removeDropped(settings);
  // The list's download has looked after the other directory.
  AgentUtils::removeLeftDownloads(VarnScriptRepository::scriptRepoScriptsDirectory());
  if (!problem.empty()) return refused(problem, settings, progress);
  progress.finish();
  return kExitSuccess;
}

}  // namespace VarnScripts
