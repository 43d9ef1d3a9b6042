// The library's own way to the agent's log: a unit and an operation, named once, and a line number
// taken from each call. Whatever the agent's log throws ends here.

#pragma once

#include <string>

namespace VarnScriptRepository {

/// Writes the log lines of one operation. Cheap to make; any thread.
class UnitLog {
 public:
  /// `unit` ("ScriptRepositoryProcessor") and `operation` ("processScript()") are literals.
  constexpr UnitLog(const char* unit, const char* operation) : unit_(unit), operation_(operation) {}

  /// Writes `message` at information level.
  void info(const std::string& message, int line = __builtin_LINE()) const noexcept;

  /// Writes `message` at error level.
  void error(const std::string& message, int line = __builtin_LINE()) const noexcept;

 private:
  const char* unit_;
  const char* operation_;
};

}  // namespace VarnScriptRepository
