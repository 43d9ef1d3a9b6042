// The bundled log: spdlog hands records to sinks, which write them as lines to standard error, to a
// rotating file that nobody else has a say in, or to the system's log. A message may be very long,
// and is copied for the last of these alone, cut.
//
// Before `configure` records go to standard error as text. A record that can't be written is lost
// without a sign: nothing here throws into a caller, and a closed pipe does not end the process.

#include <spdlog/logger.h>

#include <algorithm>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "JsonText.h"
#include "LogFileSink.spdlog.h"
#include "LogSettings.h"
#include "Pieces.h"
#include "RecordSeverity.h"
#include "StandardErrorSink.spdlog.h"
#include "SystemLog.spdlog.h"

namespace AgentLog {
namespace {

// A daemon of syslog takes 8 KiB of a record, if not told otherwise; some of it is for the rest.
constexpr std::uint64_t kMostToSystem = 4096;

std::shared_ptr<spdlog::logger> makeLogger(spdlog::sink_ptr sink) {
  auto logger = std::make_shared<spdlog::logger>("", std::move(sink));
  // The default handler would write to standard error, also when the host asked for quiet.
  logger->set_error_handler([](const std::string&) {});
  return logger;
}

/// A place that records go to, ready to write.
struct Destination {
  std::shared_ptr<spdlog::logger> logger;
  std::optional<std::uint64_t> most;  ///< of a message
  bool isEscaped = false;             ///< it counts as JSON has it
};

struct Log {
  LogSettings settings;
  std::vector<Destination> destinations;
};

std::vector<Destination> destinationsOf(const LogSettings& settings) {
  std::vector<Destination> destinations;
  const auto add = [&](spdlog::sink_ptr sink, std::optional<std::uint64_t> most,
                       bool isEscaped = false) {
    destinations.push_back({makeLogger(std::move(sink)), most, isEscaped});
  };
  if (!settings.file.empty()) {
    add(makeLogFile(settings.file, settings.format), settings.maxMessage);
  }
  if (settings.target) {
    add(makeSystemLog(*settings.target, settings.format),
        std::min(settings.maxMessage.value_or(kMostToSystem), kMostToSystem),
        settings.format == LogSettings::Format::json);
  }
  if (settings.writesToStandardError()) {
    add(makeStandardErrorLog(settings.format, settings.standardErrorWait), settings.maxMessage);
  }
  return destinations;
}

Log& log() {
  // Never destroyed: records are still written while static objects go.
  static Log& instance = *new Log{{}, destinationsOf({})};
  return instance;
}

/// `message` with no more of it than `most`. A cut one is in `room`.
std::string_view shown(const std::string& message, std::optional<std::uint64_t> most,
                       std::string& room) {
  // What the library says before a script's output, and behind it.
  constexpr std::size_t wordsBefore = 256;
  constexpr std::size_t wordsBehind = 32;
  constexpr std::size_t words = wordsBefore + wordsBehind;
  if (!most || message.size() <= words || message.size() - words <= *most) return message;
  const std::string_view head = beginningOf(message, *most + wordsBefore);
  const std::string_view all = message;
  const std::string_view tail = all.substr(beginningOf(all, all.size() - wordsBehind).size());
  const std::size_t leftOut = all.size() - head.size() - tail.size();
  room.reserve(head.size() + tail.size() + 64);
  room.append(head).append(" [").append(std::to_string(leftOut)).append(" bytes left out] ");
  return room.append(tail);
}

spdlog::level::level_enum levelOf(const Record& record) {
  switch (severityOf(record)) {
    case Severity::error:
      return spdlog::level::err;
    case Severity::warning:
      return spdlog::level::warn;
    default:
      return spdlog::level::info;
  }
}

/// How long `text` is as a JSON text.
std::size_t escapedLength(std::string_view text) {
  std::size_t length = 0;
  Pieces pieces([&length](std::string_view piece) { length += piece.size(); });
  addJSONText(text, pieces);
  pieces.end();
  return length;
}

/// As `shown`, with less of it where JSON has six bytes for one, so that the system's log takes it.
std::string_view shownEscaped(const std::string& message, std::uint64_t most, std::string& room) {
  constexpr std::size_t wordsAround = 512;
  while (true) {
    room.clear();
    const std::string_view text = shown(message, most, room);
    if (most == 0 || escapedLength(text) <= kMostToSystem + wordsAround) return text;
    most /= 2;
  }
}

void writeTo(const Destination& destination, spdlog::log_clock::time_point time,
             const Record& record, const std::string& message) {
  std::string room;
  const std::string_view text = destination.isEscaped
                                    ? shownEscaped(message, *destination.most, room)
                                    : shown(message, destination.most, room);
  destination.logger->log(
      time, spdlog::source_loc(record.source.data(), record.line, record.operation.data()),
      levelOf(record), spdlog::string_view_t(text.data(), text.size()));
}

void write(Record::Level level, const std::string& message, const std::string& source,
           const std::string& operation, int line) noexcept {
  try {
    const Log& to = log();
    Record record{level, message, source, operation, line};
    if (severityOf(record) >= to.settings.least) {
      // One record has one time, wherever it stands.
      const auto now = spdlog::log_clock::now();
      for (const Destination& destination : to.destinations) {
        writeTo(destination, now, record, message);
      }
    }
    std::string room;
    record.message = shown(message, to.settings.maxMessage, room);
    if (to.settings.observer) to.settings.observer(record);
  } catch (...) {
    // Out of memory, most likely: the record is lost, its writer goes on.
  }
}

}  // namespace

void configure(LogSettings settings) {
  std::vector<Destination> destinations = destinationsOf(settings);
  log().settings = std::move(settings);
  log().destinations = std::move(destinations);
}

void logInfo(const std::string& message, const std::string& source, const std::string& operation,
             int line) {
  write(Record::Level::info, message, source, operation, line);
}

void logError(const std::string& message, const std::string& source, const std::string& operation,
              int line) {
  write(Record::Level::error, message, source, operation, line);
}

}  // namespace AgentLog
