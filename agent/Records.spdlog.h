// Records as spdlog hands them to a destination, and the lines they become there.

#pragma once

#include <spdlog/details/log_msg.h>
#include <spdlog/formatter.h>

#include <cstddef>
#include <memory>

#include "LogSettings.h"
#include "Pieces.h"

namespace AgentLog {

/// The record that was handed to spdlog as `message`. Points into it.
[[nodiscard]] Record recordOf(const spdlog::details::log_msg& message);

/// Formats the time of a record in RFC 3339, UTC.
[[nodiscard]] std::unique_ptr<spdlog::formatter> timeFormatter();

/// Hands on the line of `message`, with the time that `time` formats, and its line end; a line of
/// no more than a piece's size as one.
void writeLine(const spdlog::details::log_msg& message, spdlog::formatter& time,
               LogSettings::Format format, TextSink to);

/// How long the line is that `writeLine` would hand on in several pieces; 0 when it may be found
/// when it comes, since it is one.
[[nodiscard]] std::size_t lengthInPieces(const spdlog::details::log_msg& message,
                                         spdlog::formatter& time, LogSettings::Format format);

}  // namespace AgentLog
