// The process's standard streams: standard input on the null device, whole texts out, and the one
// line of a terminal that shows the state of long work below them. Any thread, after
// `openStandardStreams`; what is written is whole, whoever writes at the same time.

#pragma once

#include <sys/stat.h>

#include <string>
#include <string_view>
#include <system_error>

#include "FileDescriptor.h"

namespace VarnScripts {

/// Opens standard input on the null device, so that no script waits for a person, and gives a
/// closed standard output or standard error the null device too, so that no file that is opened
/// later gets its number; to write there is an error as it was. Gives what standard input was,
/// closed on exec; empty when it was closed. Called before anything else is opened.
[[nodiscard]] posix::FileDescriptor openStandardStreams();

/// Whether an open file is what standard input is by then: what was there is not to be had by the
/// name of a file either.
[[nodiscard]] bool isStandardInput(const struct stat& status);

/// How messages say so.
inline constexpr const char* kStandardInputUnread =
    "it is standard input, from which nothing is read";

/// Whether standard output, or standard error, is a terminal.
[[nodiscard]] bool isOutputTerminal();
[[nodiscard]] bool isErrorTerminal();

/// Writes `text` to standard output; a failure is one line on standard error. True when all of it
/// was written.
bool writeOutput(std::string_view text);

/// As `writeOutput`, without the line: `error` says why not all was written.
void writeOutput(std::string_view text, std::error_code& error) noexcept;

/// What the line of a failed `writeOutput` says.
[[nodiscard]] std::string outputFailure(const std::error_code& error);

/// Writes `line`, made printable, and a line break to standard error. A failure is of no
/// consequence.
void writeErrorLine(std::string_view line);

/// Tells on standard error that there is no memory, and needs none for it.
void writeOutOfMemory() noexcept;

/// Shows `text` as the status line of the terminal that standard error is: a line that is
/// overwritten, stays below what is written, and is gone with an empty text. Not shown while output
/// has not ended its line, and left as it is when the terminal takes nothing.
void showStatusLine(std::string_view text);

/// Takes the status line off for a process that is ended in the middle of its work. Does not wait
/// long for other threads, and these write nothing more to a terminal.
void leaveTerminalClean() noexcept;

}  // namespace VarnScripts
