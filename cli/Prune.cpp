#include "Prune.h"

#include <cstdint>
#include <exception>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <system_error>
#include <vector>

#include "AgentDirectories.h"
#include "AgentLog.h"
#include "AgentModules.h"
#include "AgentUtils.h"
#include "Directories.h"
#include "DocumentMark.h"
#include "ExitStatus.h"
#include "List.h"
#include "PathGuard.h"
#include "Progress.h"
#include "PruneAnswer.h"
#include "Reason.h"
#include "RecordOwner.h"
#include "RequestFiles.h"
#include "RequestLock.h"
#include "ScriptRepositoryMetaProcessor.h"
#include "StandardStreams.h"
#include "VarnScriptRepository/ScriptRepositoryLocalMeta.h"
#include "VarnScriptRepository/ScriptRepositoryProcessor.h"

namespace VarnScripts {
namespace {

using VarnScriptRepository::ScriptLocalData;
using VarnScriptRepository::ScriptRepoAllMetaData;
using VarnScriptRepository::ScriptRepositoryConstants;
using VarnScriptRepository::ScriptRepositoryMetaProcessor;
using VarnScriptRepository::ScriptRepositoryProcessor;

// As a request does; a failure shows in the download.
void createDirectories() {
  const AgentUtils::FileUtils files;
  for (const std::string& directory : {VarnScriptRepository::scriptRepoDataDirectory(),
                                       VarnScriptRepository::scriptRepoScriptsDirectory()}) {
    if (!files.isFileExists(directory)) files.createDirectory(directory, true);
  }
}

// Gives the library the container of all entries, which it never takes itself. True when there is
// one.
bool fillContainer() {
  auto& metadata = ScriptRepositoryMetaProcessor::shared();
  if (!metadata.downloadScriptRepoMeta()) return false;
  metadata.loadScriptRepoMetaData();
  const auto& entries = metadata.scriptRepoMetaData();
  if (!entries) return false;
  metadata.setScriptRepoAllMetaData(ScriptRepoAllMetaData{*entries});
  return true;
}

// Waits until no request runs for any of the scripts or uses one of their files.
void takeTurns(const std::vector<ListedScript>& scripts, const Settings& settings,
               RequestLock& lock) {
  std::vector<std::string> scriptIDs;
  std::map<std::int64_t, std::string> files;
  for (const ListedScript& script : scripts) {
    scriptIDs.push_back(script.scriptID);
    const std::string name = nameBelow(VarnScriptRepository::scriptRepoScriptsDirectory(),
                                       script.scriptPath.value_or(""));
    if (!name.empty()) files.emplace(fileLockOffset(name), name);
  }
  std::error_code error;
  lock.acquire(settings.agent.basePath, settings.agent.customerID, scriptIDs, error);
  if (error) throw std::system_error(error, "Request lock " + lock.path() + " can't be taken");
  for (const auto& [offset, name] : files) lock.holdFile(name);
}

// Whether there is something at `path`, which a record leads to, and it is not below `directory`.
// It is reported, and stays.
bool staysElsewhere(const std::string& directory, const std::string& path,
                    const std::string& scriptID) {
  if (!AgentUtils::FileUtils().isFileExists(path) || !nameBelow(directory, path).empty()) {
    return false;
  }
  AgentLog::logInfo(
      "Leaving File " + path + " of Script ID " + scriptID + ", it is not below " + directory,
      "Prune", "prune()", __LINE__);
  return true;
}

// Takes what lies elsewhere out of the records: the library removes whatever they lead to.
void keepWhatLiesElsewhere(const std::vector<ListedScript>& scripts) {
  AgentUtils::RootAccessKeyValueStorage storage(
      ScriptRepositoryConstants::FilePath::scriptRepository(),
      ScriptRepositoryConstants::TableNames::scriptToMeta);
  const std::string& documents = VarnScriptRepository::scriptRepoDataDirectory();
  for (const ListedScript& script : scripts) {
    const std::string& id = script.scriptID;
    if (staysElsewhere(documents, documents + "/" + id + ".xml", id)) {
      storage.deleteValue(id);
    } else if (script.scriptPath &&
               staysElsewhere(VarnScriptRepository::scriptRepoScriptsDirectory(),
                              *script.scriptPath, id)) {
      const ScriptLocalData withoutPath(script.version, std::nullopt);
      storage.updateValue(&withoutPath, id);
    }
  }
}

// Those of the scripts that are recorded no more.
std::vector<std::string> removedOf(std::vector<ListedScript> scripts) {
  std::optional<std::string> ignored;
  std::set<std::string> left;
  for (const ListedScript& script : listedScripts(ignored)) left.insert(script.scriptID);
  std::erase_if(scripts,
                [&left](const ListedScript& script) { return left.contains(script.scriptID); });
  return removalIDs(scripts);
}

// The removal with the turns of all that it removes.
PruneAnswer removeDropped(const Settings& settings) {
  RequestLock lock({true, [&settings](int processID) {
                      writeRemark("waiting for " + processText(processID), settings);
                    }});
  std::optional<std::string> unreadable;
  const auto& entries = *ScriptRepositoryMetaProcessor::shared().scriptRepoMetaData();
  // The library's own line tells of a store that can't be opened.
  const std::vector<ListedScript> scripts = droppedScripts(listedScripts(unreadable), entries);
  ReasonCode stage = ReasonCode::lockedOut;
  try {
    if (!scripts.empty()) {
      takeTurns(scripts, settings, lock);
      stage = ReasonCode::localStateFailed;
      keepWhatLiesElsewhere(scripts);
    }
  } catch (const std::exception& error) {
    return {false, {}, Reason{stage, std::string("Nothing is removed: ") + error.what()}};
  }
  ScriptRepositoryProcessor::removeServerRemovedScripts();
  for (const ListedScript& script : scripts) {
    std::error_code ignored;
    DocumentMark(script.scriptID).remove(ignored);
  }
  return {false, removedOf(scripts), std::nullopt};
}

}  // namespace

int prune(const CommandLine& line, const Settings& settings) {
  if (line.dryRun) return pruneDryRun(line, settings);
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
  createDirectories();
  if (!fillContainer()) {
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
