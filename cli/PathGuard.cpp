#include "PathGuard.h"

#include <unistd.h>

#include <algorithm>
#include <stdexcept>
#include <utility>

#include "AgentDirectories.h"
#include "AgentLog.h"
#include "AgentSettings.h"
#include "Calls.h"
#include "Directories.h"
#include "DocumentMark.h"
#include "ScriptTurn.h"
#include "VarnScriptRepository/ScriptRepositoryLocalMeta.h"
#include "VarnScriptRepository/ScriptRepositoryProcessor.h"
#include "signing/TrustStateFile.h"

namespace VarnScripts {

using VarnScriptRepository::ScriptRepositoryConstants;

std::vector<UsedPath> pathsOfStore() {
  const std::string& store = ScriptRepositoryConstants::FilePath::scriptRepository();
  return {{store.substr(0, store.rfind('/')), PathEnd::directory},
          {store, PathEnd::ownFile},
          {store + "-journal", PathEnd::ownFile},
          {store + "-wal", PathEnd::ownFile},
          {store + "-shm", PathEnd::ownFile}};
}

std::vector<UsedPath> pathsOfRequests() {
  const std::string lock = VarnScriptRepository::requestLockPath();
  const std::string& documents = VarnScriptRepository::scriptRepoDataDirectory();
  std::vector<UsedPath> paths = pathsOfStore();
  paths.insert(paths.end(),
               {{lock.substr(0, lock.rfind('/')), PathEnd::directory},
                {lock, PathEnd::ownFile},
                {VarnScriptRepository::scriptRepoScriptsDirectory(), PathEnd::directory},
                {documents, PathEnd::directory},
                {documents + "/" + VarnScriptRepository::kListName, PathEnd::ownFile}});
  if (AgentUtils::settings().trustedKeys.empty()) return paths;
  const std::string state = AgentUtils::signing::trustStatePath(AgentUtils::settings().dataPath);
  paths.insert(paths.end(), {{posix::directoryOf(state), PathEnd::directory},
                             {state, PathEnd::ownFile},
                             {AgentUtils::signing::lockOfTrustState(state), PathEnd::ownFile}});
  return paths;
}

std::vector<UsedPath> pathsOfScript(const std::string& scriptID) {
  return {{VarnScriptRepository::dataDocumentPath(scriptID), PathEnd::ownFile},
          {DocumentMark(scriptID).path(), PathEnd::ownFile}};
}

bool PathGuard::allows(const std::vector<UsedPath>& paths) {
  PathExaminer examiner(::geteuid(), missing_);
  return std::all_of(paths.begin(), paths.end(), [&](const UsedPath& used) {
    const PathVerdict verdict = examiner.examine(used.path, used.end);
    for (const std::string& path : verdict.writableByGroup) AgentUtils::reportOpenDirectory(path);
    if (verdict.refusal.empty()) return true;
    const std::string line = "Refused: " + verdict.refusal;
    AgentLog::logInfo(line, "PathGuard", "allows(_:)", __LINE__);
    if (refusal_.empty()) refusal_ = line;
    return false;
  });
}

void PathGuard::watch(ModuleObservers& observers) {
  observers.beforeFileUse = [this,
                             next = std::move(observers.beforeFileUse)](const std::string& path) {
    require({path, PathEnd::ownFile});
    if (next) next(path);
  };
  observers.beforeServerFileUse = [this](const std::string& path) {
    require({path, PathEnd::givenFile});
  };
}

void PathGuard::require(const UsedPath& path) {
  if (!allows({path})) throw std::runtime_error(refusal_);
}

}  // namespace VarnScripts
