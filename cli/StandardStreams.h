// The process's standard streams: standard input on the null device, and whole texts out.

#pragma once

#include <string_view>

#include "FileDescriptor.h"

namespace VarnScripts {

/// Opens standard input on the null device, so that no script waits for a person, and gives a
/// closed standard output or standard error the null device too, so that no file that is opened
/// later gets its number. Gives what standard input was, closed on exec; empty when it was closed.
/// Called before anything else is opened.
[[nodiscard]] posix::FileDescriptor openStandardStreams();

/// Writes `text` to standard output; a failure is one line on standard error. True when all of it
/// was written.
bool writeOutput(std::string_view text);

/// Writes `line`, made printable, and a line break to standard error. A failure is of no
/// consequence.
void writeErrorLine(std::string_view line);

/// Tells on standard error that there is no memory, and needs none for it.
void writeOutOfMemory() noexcept;

}  // namespace VarnScripts
