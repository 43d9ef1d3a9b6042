// The bundled log: spdlog hands records to sinks, which write them as lines to standard error, to a
// rotating file that nobody else has a say in, or to the system's log. A message may be very long,
// and is copied for the last of these alone, cut.
//
// Before `configure` records go to standard error as text. A record that can't be written is lost
// without a sign: nothing here throws into a caller, and a closed pipe does not end the process.

#include <fcntl.h>
#include <poll.h>
#include <spdlog/logger.h>
#include <spdlog/sinks/base_sink.h>
#include <spdlog/sinks/rotating_file_sink.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <climits>
#include <cstdint>
#include <cstdio>
#include <memory>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <system_error>
#include <utility>
#include <vector>

#include "Calls.h"
#include "LogLine.h"
#include "LogSettings.h"
#include "Pieces.h"
#include "RecordSeverity.h"
#include "SigpipeGuard.h"
#include "SystemLog.spdlog.h"

namespace AgentLog {
namespace {

using posix::FileDescriptor;

constexpr std::size_t kFileSize = std::size_t{10} << 20;
constexpr std::size_t kOlderFiles = 3;
constexpr mode_t kFileMode = 0600;
// A daemon of syslog takes 8 KiB of a record, if not told otherwise; some of it is for the rest.
constexpr std::uint64_t kMostToSystem = 4096;

using Format = LogSettings::Format;
using LogMessage = spdlog::details::log_msg;

/// Hands on the line of `message` and its line end; a line of no more than a piece's size as one.
void writeLine(const LogMessage& message, spdlog::formatter& time, Format format, TextSink to) {
  const Record record = recordOf(message);
  spdlog::memory_buf_t written;
  time.format(message, written);
  Pieces pieces(std::move(to));
  const std::string_view timeText(written.data(), written.size());
  if (format == Format::json) {
    addJSONLine(timeText, record, pieces);
  } else {
    addTextLine(timeText, record, pieces);
  }
  pieces.add("\n");
  pieces.end();
}

/// Whether all of `piece` was written.
bool isWritten(int fd, std::string_view piece) {
  std::error_code error;
  posix::writeAll(fd, piece, error);
  return !error;
}

/// Whether whoever reads standard error can keep its writers waiting.
bool hasReader() {
  struct stat status {};
  if (::fstat(STDERR_FILENO, &status) != 0) return false;
  return S_ISFIFO(status.st_mode) || S_ISSOCK(status.st_mode) || ::isatty(STDERR_FILENO) == 1;
}

/// Standard error, one `write` for each line where the system takes it whole, so that the lines of
/// several processes do not mix. Whoever does not read, as a terminal that has been stopped, is
/// waited for once, and not for ever: the thread that writes may have a script's limit to look at.
class StandardErrorSink final : public spdlog::sinks::base_sink<std::mutex> {
 public:
  StandardErrorSink(Format format, std::chrono::milliseconds wait)
      : base_sink(timeFormatter()), format_(format), wait_(wait) {}

 protected:
  void sink_it_(const LogMessage& message) override {
    const SigpipeGuard guard;
    if (leftOut_ > 0 && takesText()) tellWhatIsLeftOut(message);
    if (!writeWhole(message) && isStalled_) ++leftOut_;
  }

  void flush_() override {}

 private:
  bool writeWhole(const LogMessage& message) {
    bool broken = false;
    writeLine(message, *formatter_, format_,
              [&](std::string_view piece) { broken = broken || !write(piece); });
    return !broken;
  }

  bool write(std::string_view text) {
    if (!hasReader()) return isWritten(STDERR_FILENO, text);
    while (!text.empty()) {
      // What standard error takes at least, when it takes something.
      const std::string_view part = text.substr(0, PIPE_BUF);
      if (!takesText() || !isWritten(STDERR_FILENO, part)) return false;
      isLineOpen_ = part.back() != '\n';
      text.remove_prefix(part.size());
    }
    return true;
  }

  bool takesText() {
    pollfd writable{STDERR_FILENO, POLLOUT, 0};
    const auto wait = isStalled_ ? 0 : static_cast<int>(wait_.count());
    const int ready = posix::retryOnInterrupt([&] { return ::poll(&writable, 1, wait); });
    // An error is for `write` to find.
    isStalled_ = ready == 0;
    return !isStalled_;
  }

  void tellWhatIsLeftOut(const LogMessage& next) {
    if (isLineOpen_ && !write("\n")) return;
    const std::string text =
        std::to_string(leftOut_) + " records are left out here: nobody has read them";
    const spdlog::source_loc source("AgentLog", __LINE__, "tellWhatIsLeftOut(_:)");
    if (writeWhole({next.time, source, next.logger_name, spdlog::level::warn, text})) leftOut_ = 0;
  }

  const Format format_;
  const std::chrono::milliseconds wait_;
  std::uint64_t leftOut_ = 0;
  bool isStalled_ = false;
  bool isLineOpen_ = false;  // a record was broken off
};

/// What is wrong with an open log file, made ours alone where it is ours; empty when nothing is.
std::string problemOf(const FileDescriptor& file) {
  struct stat status {};
  if (::fstat(file.get(), &status) != 0) return std::generic_category().message(errno);
  if (!S_ISREG(status.st_mode)) return "it is no regular file";
  if (status.st_uid != ::geteuid() && status.st_uid != 0) return "it belongs to another user";
  if (status.st_nlink > 1) return "it has a second name";
  if (::fchmod(file.get(), kFileMode) != 0) return std::generic_category().message(errno);
  return "";
}

/// The log file, made when it is missing. It is never opened again by its name, which others may
/// give to something else; scripts do not inherit it.
FileDescriptor openLogFile(const std::string& path) {
  // Without O_NONBLOCK the opening of a FIFO would wait for a reader.
  FileDescriptor file(::open(
      path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_NOFOLLOW | O_CLOEXEC | O_NOCTTY | O_NONBLOCK,
      kFileMode));
  const std::string problem = file ? problemOf(file) : std::generic_category().message(errno);
  if (!problem.empty()) {
    throw std::runtime_error("can't open the log file " + path + ": " + problem);
  }
  return file;
}

/// A file that gives its name to a new one before it grows too large. A line is never divided
/// between two.
class LogFileSink final : public spdlog::sinks::base_sink<std::mutex> {
 public:
  LogFileSink(std::string path, Format format)
      : base_sink(timeFormatter()),
        path_(std::move(path)),
        format_(format),
        file_(openLogFile(path_)) {}

 protected:
  void sink_it_(const LogMessage& message) override {
    std::size_t length = 0;
    // The length of a line that comes in pieces has to be found first.
    if (message.payload.size() >= Pieces::kMost / 8) {
      writeLine(message, *formatter_, format_,
                [&](std::string_view piece) { length += piece.size(); });
    }
    bool broken = false;
    bool begun = false;
    writeLine(message, *formatter_, format_, [&](std::string_view piece) {
      if (!std::exchange(begun, true)) makeRoomFor(std::max(length, piece.size()));
      broken = broken || !isWritten(file_.get(), piece);
    });
  }

  void flush_() override {}

 private:
  /// "agent.2.log" for "agent.log" and 2.
  [[nodiscard]] std::string olderPath(std::size_t age) const {
    return spdlog::sinks::rotating_file_sink_mt::calc_filename(path_, age);
  }

  void makeRoomFor(std::size_t length) {
    struct stat status {};
    if (::fstat(file_.get(), &status) == 0 && status.st_size > 0 &&
        static_cast<std::size_t>(status.st_size) + length > kFileSize) {
      rotate();
    }
  }

  void rotate() {
    // Without the name it has been rotated by another process, or replaced.
    if (posix::hasName(file_, path_)) {
      for (std::size_t age = kOlderFiles; age > 1; --age) {
        std::rename(olderPath(age - 1).c_str(), olderPath(age).c_str());
      }
      if (std::rename(path_.c_str(), olderPath(1).c_str()) != 0) {
        // What can't be put away is given up, so that the file stays within its size.
        static_cast<void>(::ftruncate(file_.get(), 0));
        return;
      }
    }
    try {
      file_ = openLogFile(path_);
    } catch (const std::runtime_error&) {
      // Somebody else's is in its place: the records go on into the file that is ours.
    }
  }

  std::string path_;
  const Format format_;
  FileDescriptor file_;
};

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
};

struct Log {
  LogSettings settings;
  std::vector<Destination> destinations;
};

std::vector<Destination> destinationsOf(const LogSettings& settings) {
  std::vector<Destination> destinations;
  const auto add = [&](spdlog::sink_ptr sink, std::optional<std::uint64_t> most) {
    destinations.push_back({makeLogger(std::move(sink)), most});
  };
  if (!settings.file.empty()) {
    add(std::make_shared<LogFileSink>(settings.file, settings.format), settings.maxMessage);
  }
  if (settings.target) {
    add(makeSystemLog(*settings.target, settings.format),
        std::min(settings.maxMessage.value_or(kMostToSystem), kMostToSystem));
  }
  if (settings.writesToStandardError()) {
    add(std::make_shared<StandardErrorSink>(settings.format, settings.standardErrorWait),
        settings.maxMessage);
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

void writeTo(const Destination& destination, spdlog::log_clock::time_point time,
             const Record& record, const std::string& message) {
  std::string room;
  const std::string_view text = shown(message, destination.most, room);
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
