// The agent's global settings object, with its one rule: it must be there.

#pragma once

#include "AgentUtils.h"

namespace VarnScriptRepository {

/// The agent's global settings. When the agent has set none, writes one line to standard error and
/// aborts the process. Called on first use of a setting, never while the library is loaded.
const AgentUtils::GlobalVariables& globalSettings();

}  // namespace VarnScriptRepository
