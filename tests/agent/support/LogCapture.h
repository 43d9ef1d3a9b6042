// The log lines of a test.

#pragma once

#include <string>
#include <vector>

/// Collects what is logged while it lives, and keeps it from standard error. One at a time.
class LogCapture {
 public:
  LogCapture();
  ~LogCapture();
  LogCapture(const LogCapture&) = delete;
  LogCapture& operator=(const LogCapture&) = delete;

  /// Every record so far, as "LEVEL SOURCE OPERATION: MESSAGE".
  [[nodiscard]] std::vector<std::string> lines() const;
};
