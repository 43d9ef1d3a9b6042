// The two forms of a log record as one line of text, which may be very long. Pure functions.

#pragma once

#include <string_view>

#include "LogSettings.h"
#include "Pieces.h"

namespace AgentLog {

/// "SOURCE OPERATION LINE MESSAGE", as in the text line.
void addTextRecord(const Record& record, Pieces& to);

/// "TIME LEVEL SOURCE OPERATION LINE MESSAGE", one blank between two, without a line end. Each is
/// made printable, so a record is one line and steers no terminal.
void addTextLine(std::string_view time, const Record& record, Pieces& to);

/// One JSON object with the keys `time`, `level`, `source`, `operation`, `line`, `message`, in this
/// order, without a line end. Bytes that are not UTF-8 become U+FFFD; all else is the exact text.
void addJSONLine(std::string_view time, const Record& record, Pieces& to);

}  // namespace AgentLog
