// Uses the shared library with its bundled agent modules and their settings: the base directory,
// the server, the script's ID, and maybe a key to trust. Prints where the store lies, and what
// became of the request.

#include <cstdio>

#include "AgentLog.h"
#include "AgentSettings.h"
#include "AgentStore.h"
#include "AgentUtils.h"
#include "LogSettings.h"
#include "MarkupParser.h"
#include "VarnScriptRepository/ScriptRepositoryLocalMeta.h"
#include "VarnScriptRepository/ScriptRepositoryProcessor.h"

using VarnScriptRepository::ScriptRepositoryConstants;
using VarnScriptRepository::ScriptRepositoryProcessor;

int main(int argc, char** argv) {
  AgentUtils::AgentSettings settings;
  settings.basePath = argv[1];
  settings.dataPath = settings.basePath + "/data";
  settings.customerID = "acme";
  settings.serverURL = argv[2];
  if (argc > 4) settings.trustedKeys = {argv[4]};
  AgentUtils::configure(settings);
  AgentLog::LogSettings log;
  log.quiet = true;
  AgentLog::configure(log);
  std::puts(ScriptRepositoryConstants::FilePath::scriptRepository().c_str());
  ScriptRepositoryProcessor processor(argv[3]);
  const auto [accepted, output] = processor.processScript();
  std::puts(!accepted ? "not run" : *accepted ? "accepted" : "rejected");
}
