// Text of others for people: names, versions, reasons, causes and log lines are shown on one line,
// and nothing in them may steer the terminal that shows them or turn the order of what it shows.
// What a script itself writes is its own affair and does not come here. Pure functions; any thread.

#pragma once

#include <string>
#include <string_view>

#include "Pieces.h"

/// Adds `text` to `to`: a line feed, a carriage return and a tab as `\n`, `\r` and `\t`, and as one
/// `?` each other control character (C0, DEL, C1), line or paragraph separator, control of the
/// writing direction, and byte that is no part of a UTF-8 sequence.
void addPrintable(std::string_view text, Pieces& to);

/// What `addPrintable` adds.
[[nodiscard]] std::string printable(std::string_view text);

/// Adds the JSON text `json` to `to`, each of these characters as an escape of JSON ("\u009b"): its
/// value stays the same. `json` is UTF-8 on one line, as `jsonText` gives it.
void addPrintableJSON(std::string_view json, Pieces& to);

/// What `addPrintableJSON` adds.
[[nodiscard]] std::string printableJSON(std::string_view json);
