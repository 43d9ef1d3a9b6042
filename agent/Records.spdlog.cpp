#include "Records.spdlog.h"

#include <spdlog/pattern_formatter.h>

#include <string_view>
#include <utility>

#include "LogLine.h"

namespace AgentLog {

using LogMessage = spdlog::details::log_msg;

Record recordOf(const LogMessage& message) {
  const std::string_view text(message.payload.data(), message.payload.size());
  return {message.level == spdlog::level::err ? Record::Level::error : Record::Level::info, text,
          message.source.filename, message.source.funcname, message.source.line};
}

std::unique_ptr<spdlog::formatter> timeFormatter() {
  return std::make_unique<spdlog::pattern_formatter>("%Y-%m-%dT%H:%M:%S.%eZ",
                                                     spdlog::pattern_time_type::utc, "");
}

void writeLine(const LogMessage& message, spdlog::formatter& time, LogSettings::Format format,
               TextSink to) {
  const Record record = recordOf(message);
  spdlog::memory_buf_t written;
  time.format(message, written);
  Pieces pieces(std::move(to));
  const std::string_view timeText(written.data(), written.size());
  if (format == LogSettings::Format::json) {
    addJSONLine(timeText, record, pieces);
  } else {
    addTextLine(timeText, record, pieces);
  }
  pieces.add("\n");
  pieces.end();
}

std::size_t lengthInPieces(const LogMessage& message, spdlog::formatter& time,
                           LogSettings::Format format) {
  // A byte becomes six at most, and the other texts of a record are short.
  if (message.payload.size() < Pieces::kMost / 8) return 0;
  std::size_t length = 0;
  writeLine(message, time, format, [&](std::string_view piece) { length += piece.size(); });
  return length > Pieces::kMost ? length : 0;
}

}  // namespace AgentLog
