#include "Plan.h"

#include <cstdint>
#include <optional>
#include <string>
#include <system_error>
#include <utility>
#include <vector>

#include "AgentModules.h"
#include "ExitStatus.h"
#include "PathGuard.h"
#include "PlanText.h"
#include "Progress.h"
#include "Reason.h"
#include "RecordOwner.h"
#include "RequestPlan.h"
#include "SignalForwarding.h"
#include "StandardStreams.h"
#include "TemporaryDirectory.h"

namespace VarnScripts {

int plan(const CommandLine& line, const Settings& settings) {
  // Before any other thread, and never destroyed: its thread runs until the process ends.
  auto& signals = *new SignalForwarding;
  Progress progress(Progress::isPossible() && !settings.log.quiet);
  ModuleObservers observers;
  ReasonFinder reason(line.scriptID, settings);
  observers.onFailure = [&reason](const std::string& subject, const std::string& cause) {
    reason.moduleFailed(subject, cause);
  };
  observers.onRecord = [&progress](const AgentLog::Record&) { progress.makeWay(); };
  observers.onDownloadProgress = [&progress](std::uint64_t received, std::uint64_t total) {
    progress.showDownload(received, total);
  };
  PathGuard guard(MissingDirectory::left);
  guard.watch(observers);
  if (const auto error = configureAgentModules(settings, observers)) {
    progress.finish();
    writeErrorLine("varn-scripts: " + error->line);
    return kExitUsage;
  }
  prepareDownloads();
  std::error_code error;
  std::optional<TemporaryDirectory> temporary;
  signals.guard([&] {
    temporary.emplace(error);
    return [path = temporary->path()] { removeDirectory(path); };
  });
  if (error) {
    progress.finish();
    writeErrorLine("varn-scripts: no temporary directory can be made: " + error.message());
    return kExitNotRun;
  }
  std::vector<UsedPath> paths = pathsOfRequests();
  for (UsedPath& path : pathsOfScript(line.scriptID)) paths.push_back(std::move(path));
  paths.push_back({temporary->pathOf("store"), PathEnd::ownFile});
  RequestPlan made;
  if (guard.allows(paths)) {
    made = makePlan(line.scriptID, settings.agent.customerID, *temporary, reason);
  }
  if (guard.refusal().empty() && made.problem.empty()) {
    made.problem = complaintAboutRecord(temporary->pathOf("store"), settings).value_or("");
  }
  progress.finish();
  if (!guard.refusal().empty()) {
    writeReason(guard.refusal(), settings);
    return kExitNotRun;
  }
  const bool written = writeOutput(line.json ? planJson(made) : planText(made));
  return written && made.problem.empty() ? kExitSuccess : kExitNotRun;
}

}  // namespace VarnScripts
