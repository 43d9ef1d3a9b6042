// Keeps what a caller of one request wants from its log lines: why a script was not run.
//
// Fed and asked on the thread that makes the request.

#pragma once

#include <string>

#include "LogSettings.h"

namespace VarnScripts {

/// The last lines of a request, of long ones the beginning: the reason why a script was not run is
/// no long one, and the output of a script that was run is none.
class RequestLog {
 public:
  /// Takes the next record of the log.
  void add(const AgentLog::Record& record);

  /// The text of the last line before the closing line that carries the request's status, or of the
  /// closing line itself when the request ended without a status. Empty before any line.
  [[nodiscard]] const std::string& reason() const;

 private:
  std::string last_;
  std::string beforeLast_;
  bool lastCarriesStatus_ = false;
};

}  // namespace VarnScripts
