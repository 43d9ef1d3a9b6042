// A host that lives for long: it runs each script whose ID it reads, one a line, by the list that
// the server has at that time, and then removes what the server dropped. The agent modules are the
// bundled ones.
//     resident BASE_DIRECTORY SERVER_URL CUSTOMER
#include <iostream>
#include <stdexcept>
#include <string>
#include <system_error>

#include "AgentSettings.h"
#include "VarnScriptRepository/ScriptRepositoryHost.h"
#include "VarnScriptRepository/ScriptRepositoryProcessor.h"

using namespace VarnScriptRepository;

static void runScript(const std::string& scriptID) {
  // Nobody else runs, replaces or removes the script for as long as this lives.
  ScriptTurn turn;
  std::error_code error;
  turn.take({scriptID}, error);
  if (error) {
    std::cerr << "no turn for script " << scriptID << ": " << error.message() << '\n';
    return;
  }
  const auto [accepted, output] = ScriptRepositoryProcessor(scriptID).processScript();
  const char* const verdict = !accepted ? "not run" : *accepted ? "accepted" : "rejected";
  std::cout << scriptID << ' ' << verdict << '\n' << output.value_or("");
}

static void removeDropped() {
  ScriptTurn turn;
  const ScriptRemoval removal = removeDroppedScripts(turn);
  for (const std::string& scriptID : removal.scriptIDs) std::cout << scriptID << " removed\n";
  if (!removal.reason.empty()) std::cerr << "nothing is removed: " << removal.reason << '\n';
}

int main(int argc, char** argv) {
  if (argc != 4) {
    std::cerr << "usage: resident BASE_DIRECTORY SERVER_URL CUSTOMER\n";
    return 2;
  }
  try {
    AgentUtils::configure({.basePath = argv[1], .customerID = argv[3], .serverURL = argv[2]});
  } catch (const std::invalid_argument& error) {
    std::cerr << error.what() << '\n';
    return 2;
  }
  for (std::string scriptID; std::getline(std::cin, scriptID);) {
    // Without the server, the list from before is as good as it gets; the log tells why.
    reloadServerList();
    runScript(scriptID);
    removeDropped();
    std::cout << "done" << std::endl;
  }
}
