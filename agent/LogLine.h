// The two forms of a log record as one line of text, which may be very long. Pure functions.

#pragma once

#include <chrono>
#include <string>

#include "LogSettings.h"
#include "Pieces.h"

namespace AgentLog {

/// The moment in RFC 3339, UTC, with milliseconds: "2026-11-21T06:30:16.123Z".
[[nodiscard]] std::string timeText(std::chrono::system_clock::time_point time);

/// "TIME LEVEL SOURCE OPERATION LINE MESSAGE", one blank between two, without a line end. Each is
/// made printable, so a record is one line and steers no terminal.
void addTextLine(const std::string& time, const Record& record, Pieces& to);

/// One JSON object with the keys `time`, `level`, `source`, `operation`, `line`, `message`, in this
/// order, without a line end. Bytes that are not UTF-8 become U+FFFD; all else is the exact text.
void addJSONLine(const std::string& time, const Record& record, Pieces& to);

}  // namespace AgentLog
