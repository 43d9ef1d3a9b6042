#include "Run.h"

#include <cstdint>
#include <string>
#include <system_error>
#include <utility>

#include "AgentDirectories.h"
#include "AgentModules.h"
#include "ExitStatus.h"
#include "JsonText.h"
#include "Progress.h"
#include "RequestLock.h"
#include "RequestLog.h"
#include "SignalForwarding.h"
#include "StandardStreams.h"
#include "VarnScriptRepository/ScriptRepositoryProcessor.h"

namespace VarnScripts {
namespace {

using VarnScriptRepository::ProcessingResult;
using VarnScriptRepository::ScriptRepositoryProcessor;

// A request's result with the reason when its script was not run.
struct Outcome {
  ProcessingResult result;
  std::string reason;
};

const char* statusOf(const ProcessingResult& result) {
  if (!result.first) return "not_run";
  return *result.first ? "accepted" : "rejected";
}

int exitStatusOf(const ProcessingResult& result) {
  if (!result.first) return kExitNotRun;
  return *result.first ? kExitSuccess : kExitRejected;
}

std::string jsonOf(const std::string& scriptID, const Outcome& outcome) {
  // Everything in it is made readable, whatever bytes the ID on the command line had.
  const auto text = [](const std::string& value) { return jsonText(value, NotUTF8::replaced); };
  JsonObjectText object;
  object.add("script_id", text(scriptID));
  object.add("status", text(statusOf(outcome.result)));
  object.add("output", outcome.result.second ? text(*outcome.result.second) : "null");
  if (!outcome.result.first) object.add("reason", text(outcome.reason));
  return object.text() + "\n";
}

int report(const CommandLine& line, const Outcome& outcome) {
  if (line.json) {
    writeOutput(jsonOf(line.scriptID, outcome));
  } else if (!outcome.result.first) {
    writeErrorLine(outcome.reason);
  } else if (outcome.result.second) {
    writeOutput(*outcome.result.second);
  }
  return exitStatusOf(outcome.result);
}

Outcome request(const CommandLine& line, const Settings& settings, const RequestLog& requestLog,
                RequestLock& lock) {
  std::error_code error;
  lock.acquire(settings.basePath, settings.customer, line.scriptID, error);
  if (error) {
    // Without its turn a request could run what another one is just replacing.
    return {{}, "Request lock " + lock.path() + " can't be taken: " + error.message()};
  }
  ScriptRepositoryProcessor processor(line.scriptID);
  if (line.acceptCodes) processor.overrideExpectedReturnCode = line.acceptCodes;
  ProcessingResult result = processor.processScript();
  if (result.first) {
    AgentUtils::removeLeftDownloads(ScriptRepositoryProcessor::scriptRepoScriptsDirectory());
  }
  return {std::move(result), requestLog.reason()};
}

}  // namespace

int run(const CommandLine& line, const Settings& settings) {
  // Before any other thread, and never destroyed: its thread runs until the process ends.
  auto& signals = *new SignalForwarding;
  RequestLog requestLog;
  RequestLock lock;
  Progress progress(Progress::isPossible() && !settings.quiet);
  ModuleObservers observers;
  observers.onRecord = [&](const AgentLog::Record& record) {
    requestLog.add(record);
    progress.see(record);
    signals.see(record);
  };
  observers.onDownloadProgress = [&progress](std::uint64_t received, std::uint64_t total) {
    progress.showDownload(received, total);
  };
  observers.beforeFileUse = [&lock](const std::string& path) {
    // The documents are replaced whole and read once; only scripts are held.
    const std::string& scripts = ScriptRepositoryProcessor::scriptRepoScriptsDirectory();
    if (!path.starts_with(scripts + '/')) return;
    lock.holdFile(path);
    // A script that is up to date is not downloaded, and nobody else would look at its directory.
    AgentUtils::reportOpenDirectory(scripts);
  };
  if (const auto error = configureAgentModules(settings, observers)) {
    progress.finish();
    writeErrorLine("varn-scripts: " + error->line);
    return kExitUsage;
  }
  prepareDownloads();
  const Outcome outcome = request(line, settings, requestLog, lock);
  progress.finish();
  const int exitStatus = report(line, outcome);
  signals.endWhenStopped();
  return exitStatus;
}

}  // namespace VarnScripts
