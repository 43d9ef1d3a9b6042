#include "AgentSettings.h"

#include <utility>

namespace AgentUtils {

const GlobalVariables* gv_globvars = nullptr;

namespace {

/// The settings, and the view of them that the library reads.
struct Configuration {
  AgentSettings settings;
  GlobalVariables variables;
};

Configuration& configuration() {
  // Never destroyed: `gv_globvars` points into it for as long as the process lives.
  static Configuration& instance = *new Configuration;
  return instance;
}

}  // namespace

void configure(AgentSettings settings) {
  Configuration& current = configuration();
  current.settings = std::move(settings);
  current.variables.vyagentBasePath = current.settings.basePath;
  current.variables.vyCustomerID = current.settings.customerID;
  current.variables.vyagentDataDictPath.reset();
  if (!current.settings.dataPath.empty()) {
    current.variables.vyagentDataDictPath = current.settings.dataPath;
  }
  gv_globvars = &current.variables;
}

const AgentSettings& settings() { return configuration().settings; }

}  // namespace AgentUtils
