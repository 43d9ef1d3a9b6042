#include "support/Settings.h"

#include <cstdio>
#include <cstdlib>

namespace VarnScriptRepository {

const AgentUtils::GlobalVariables& globalSettings() {
  if (AgentUtils::gv_globvars == nullptr) {
    // Not a log line: without settings the agent's log may have nowhere to go.
    std::fputs("VarnScriptRepository: the agent's global settings (gv_globvars) are not set\n",
               stderr);
    std::abort();
  }
  return *AgentUtils::gv_globvars;
}

}  // namespace VarnScriptRepository
