// Uses the shared library with its bundled agent modules. Prints where scripts lie, and what became
// of a request without a server.

#include <cstdio>

#include "AgentLog.h"
#include "AgentStore.h"
#include "AgentUtils.h"
#include "MarkupParser.h"
#include "VarnScriptRepository/ScriptRepositoryLocalMeta.h"
#include "VarnScriptRepository/ScriptRepositoryProcessor.h"

using VarnScriptRepository::ScriptRepositoryConstants;
using VarnScriptRepository::ScriptRepositoryProcessor;

int main(int, char** argv) {
  const AgentUtils::GlobalVariables settings{argv[1], "7", std::string(argv[1]) + "/data"};
  AgentUtils::gv_globvars = &settings;
  std::puts(ScriptRepositoryProcessor::scriptRepoScriptsDirectory().c_str());
  std::puts(ScriptRepositoryConstants::FilePath::scriptRepository().c_str());
  ScriptRepositoryProcessor processor("42");
  const auto [accepted, output] = processor.processScript();
  std::puts(accepted || output ? "run" : "not run");
}
