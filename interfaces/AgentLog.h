// The agent's log, as the library sees it: two operations, one for each level in use.
//
// The agent decides where records go. The library never asks whether a record was written, and a
// failure to write one must not reach it. Both operations may be called from any thread.

#pragma once

#include <string>

namespace AgentLog {

/// Writes one record at information level.
///
/// `message` is the record's text, UTF-8 but not checked, and may hold line breaks. `source` names
/// the unit that writes ("ScriptRepositoryProcessor"), `operation` its operation with argument
/// labels ("setScriptVersion(forScriptID:version:)"), and `line` the line of the call in that
/// unit's source. The texts are copied where they are needed after the call returns.
void logInfo(const std::string& message, const std::string& source, const std::string& operation,
             int line);

/// Writes one record at error level; otherwise as `logInfo`.
void logError(const std::string& message, const std::string& source, const std::string& operation,
              int line);

}  // namespace AgentLog
