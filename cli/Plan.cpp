#include "Plan.h"

#include "ExitStatus.h"
#include "Inquiry.h"
#include "PlanText.h"
#include "RequestPlan.h"
#include "SignalForwarding.h"
#include "StandardStreams.h"

namespace VarnScripts {

int plan(const CommandLine& line, const Settings& settings) {
  // Before any other thread, and never destroyed: its thread runs until the process ends.
  auto& signals = *new SignalForwarding;
  Inquiry inquiry(line.scriptID, settings);
  if (const auto status = inquiry.begin(signals)) return *status;
  const RequestPlan made = makePlan(line.scriptID, inquiry);
  inquiry.finish();
  const bool written = writeAnswer(line.json ? planJson(made) : planText(made), settings);
  return written && !made.problem ? kExitSuccess : kExitNotRun;
}

}  // namespace VarnScripts
