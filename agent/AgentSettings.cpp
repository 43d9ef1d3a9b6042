#include "AgentSettings.h"

#include <optional>
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
  const AgentSettings& given = current.settings;
  current.variables = {given.basePath, given.customerID,
                       given.dataPath.empty() ? std::nullopt : std::optional(given.dataPath)};
  gv_globvars = &current.variables;
}

const AgentSettings& settings() { return configuration().settings; }

}  // namespace AgentUtils
