#include "Prune.h"

#include <cstdint>
#include <string>

#include "AgentDirectories.h"
#include "AgentModules.h"
#include "AgentUtils.h"
#include "ExitStatus.h"
#include "Progress.h"
#include "ScriptRepositoryMetaProcessor.h"
#include "StandardStreams.h"
#include "VarnScriptRepository/ScriptRepositoryProcessor.h"

namespace VarnScripts {
namespace {

using VarnScriptRepository::ScriptRepoAllMetaData;
using VarnScriptRepository::ScriptRepositoryMetaProcessor;
using VarnScriptRepository::ScriptRepositoryProcessor;

// As a request does; a failure shows in the download.
void createDirectories() {
  const AgentUtils::FileUtils files;
  for (const std::string& directory : {ScriptRepositoryProcessor::scriptRepoDataDirectory(),
                                       ScriptRepositoryProcessor::scriptRepoScriptsDirectory()}) {
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

}  // namespace

int prune(const Settings& settings) {
  Progress progress(Progress::isPossible() && !settings.quiet);
  ModuleObservers observers;
  observers.onRecord = [&progress](const AgentLog::Record& record) { progress.see(record); };
  observers.onDownloadProgress = [&progress](std::uint64_t received, std::uint64_t total) {
    progress.showDownload(received, total);
  };
  if (const auto error = configureAgentModules(settings, observers)) {
    progress.finish();
    writeErrorLine("varn-scripts: " + error->line);
    return kExitUsage;
  }
  prepareDownloads();
  createDirectories();
  const bool filled = fillContainer();
  // Called without the container too: the library's own line tells that nothing is removed.
  ScriptRepositoryProcessor::removeServerRemovedScripts();
  // The list's download has looked after the other directory.
  if (filled) {
    AgentUtils::removeLeftDownloads(ScriptRepositoryProcessor::scriptRepoScriptsDirectory());
  }
  progress.finish();
  return filled ? kExitSuccess : kExitNotRun;
}

}  // namespace VarnScripts
