// The agent's log as a test sees it: every record goes to the journal.

#include "AgentLog.h"
#include "Journal.h"

namespace AgentLog {

void logInfo(const std::string& message, const std::string& source, const std::string& operation,
             int line) {
  doubles::Journal::shared().writeLog({"info", source, operation, line, message});
  doubles::Journal::shared().called("log");
}

void logError(const std::string& message, const std::string& source, const std::string& operation,
              int line) {
  doubles::Journal::shared().writeLog({"error", source, operation, line, message});
  doubles::Journal::shared().called("log");
}

}  // namespace AgentLog
