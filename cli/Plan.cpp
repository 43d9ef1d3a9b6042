#include "Plan.h"

#include <cstdint>
#include <optional>
#include <string>
#include <system_error>

#include "AgentModules.h"
#include "ExitStatus.h"
#include "PlanText.h"
#include "Progress.h"
#include "RequestPlan.h"
#include "SignalForwarding.h"
#include "StandardStreams.h"
#include "TemporaryDirectory.h"

namespace VarnScripts {

int plan(const CommandLine& line, const Settings& settings) {
  // Before any other thread, and never destroyed: its thread runs until the process ends.
  auto& signals = *new SignalForwarding;
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
  const RequestPlan made = makePlan(line.scriptID, settings.customer, *temporary);
  progress.finish();
  const bool written = writeOutput(line.json ? planJson(made) : planText(made));
  return written && made.problem.empty() ? kExitSuccess : kExitNotRun;
}

}  // namespace VarnScripts
