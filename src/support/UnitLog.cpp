#include "support/UnitLog.h"

#include "AgentLog.h"

namespace VarnScriptRepository {

void UnitLog::info(const std::string& message, int line) const noexcept {
  try {
    AgentLog::logInfo(message, unit_, operation_, line);
  } catch (...) {
    // A log that fails must not change what the operation does.
  }
}

void UnitLog::error(const std::string& message, int line) const noexcept {
  try {
    AgentLog::logError(message, unit_, operation_, line);
  } catch (...) {
    // As above.
  }
}

}  // namespace VarnScriptRepository
