// A request of the library whose script is up to date and whose metadata are loaded:
// `request BASE_PATH CUSTOMER SERVER_URL SCRIPT_ID`. The log is the bundled one, to standard error.

#include "AgentSettings.h"
#include "Contestant.h"
#include "VarnScriptRepository/ScriptRepositoryProcessor.h"

int main(int argc, char** argv) {
  if (argc != 5) bench::fail("usage: request BASE_PATH CUSTOMER SERVER_URL SCRIPT_ID");
  AgentUtils::AgentSettings settings;
  settings.basePath = argv[1];
  settings.dataPath = settings.basePath + "/data";
  settings.customerID = argv[2];
  settings.serverURL = argv[3];
  AgentUtils::configure(settings);
  const std::string scriptID = argv[4];
  const auto process = [&] {
    VarnScriptRepository::ScriptRepositoryProcessor processor(scriptID);
    const auto [accepted, output] = processor.processScript();
    if (accepted != true || !output) bench::fail("the script was not run");
    return output->size();
  };
  // The first request of the process fetches and loads what the others find.
  process();
  return bench::serve(process);
}
