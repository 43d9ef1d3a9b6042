// The bundled log: records become lines here, spdlog's sinks carry the lines to standard error or
// to a rotating file.
//
// Before `configure` records go to standard error as text. A record that can't be written is lost
// without a sign: nothing here throws into a caller, and a closed pipe does not end the process.

#include <fcntl.h>
#include <spdlog/logger.h>
#include <spdlog/sinks/base_sink.h>
#include <spdlog/sinks/rotating_file_sink.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>
#include <system_error>
#include <utility>

#include "LogLine.h"
#include "LogSettings.h"
#include "SigpipeGuard.h"

namespace AgentLog {
namespace {

constexpr std::size_t kFileSize = std::size_t{10} << 20;
constexpr std::size_t kOlderFiles = 3;
constexpr mode_t kFileMode = 0600;

/// Standard error, one `write` for each line where the system takes it whole, so that the lines of
/// several processes do not mix.
class StandardErrorSink final : public spdlog::sinks::base_sink<std::mutex> {
 protected:
  void sink_it_(const spdlog::details::log_msg& record) override {
    std::string line(record.payload.data(), record.payload.size());
    line += '\n';
    const SigpipeGuard guard;
    std::size_t written = 0;
    while (written < line.size()) {
      const ssize_t count = write(STDERR_FILENO, line.data() + written, line.size() - written);
      if (count < 0 && errno == EINTR) continue;
      if (count <= 0) return;
      written += static_cast<std::size_t>(count);
    }
  }

  void flush_() override {}
};

[[noreturn]] void throwOpenError(const std::string& file, int error) {
  throw std::runtime_error("can't open the log file " + file + ": " +
                           std::generic_category().message(error));
}

/// Creates the file with its mode before spdlog opens it by name: its own way would give it the
/// umask's mode and create a missing directory, and would follow a link.
void prepareLogFile(const std::string& file) {
  const int fd = open(
      file.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_NOFOLLOW | O_CLOEXEC | O_NOCTTY | O_NONBLOCK,
      kFileMode);
  if (fd < 0) throwOpenError(file, errno);
  struct stat status {};
  int error = 0;
  if (fstat(fd, &status) != 0 || (S_ISREG(status.st_mode) && fchmod(fd, kFileMode) != 0))
    error = errno;
  if (error == 0 && !S_ISREG(status.st_mode)) error = EINVAL;
  close(fd);
  if (error != 0) throwOpenError(file, error);
}

spdlog::sink_ptr makeFileSink(const std::string& file) {
  spdlog::file_event_handlers handlers;
  handlers.before_open = prepareLogFile;
  handlers.after_open = [](const std::string&, std::FILE* stream) {
    // Scripts are not to inherit the log.
    fcntl(fileno(stream), F_SETFD, FD_CLOEXEC);
  };
  return std::make_shared<spdlog::sinks::rotating_file_sink_mt>(file, kFileSize, kOlderFiles, false,
                                                                handlers);
}

std::unique_ptr<spdlog::logger> makeLogger(spdlog::sink_ptr sink) {
  auto logger = std::make_unique<spdlog::logger>("", std::move(sink));
  logger->set_pattern("%v");
  logger->flush_on(spdlog::level::info);
  // The default handler would write to standard error, also when the host asked for quiet.
  logger->set_error_handler([](const std::string&) {});
  return logger;
}

/// What the settings say, ready to write.
struct Log {
  LogSettings settings;
  std::unique_ptr<spdlog::logger> logger;  ///< null when nothing is written
};

Log& log() {
  // Never destroyed: records are still written while static objects go.
  static Log& instance = *new Log{{}, makeLogger(std::make_shared<StandardErrorSink>())};
  return instance;
}

void writeRecord(const Record& record) {
  const Log& to = log();
  if (to.logger) {
    const std::string time = timeText(std::chrono::system_clock::now());
    to.logger->info(spdlog::string_view_t(to.settings.format == LogSettings::Format::json
                                              ? jsonLine(time, record)
                                              : textLine(time, record)));
  }
  if (to.settings.observer) to.settings.observer(record);
}

void writeNothrow(Record::Level level, const std::string& message, const std::string& source,
                  const std::string& operation, int line) noexcept {
  try {
    writeRecord({level, message, source, operation, line});
  } catch (...) {
    // Out of memory, most likely: the record is lost, its writer goes on.
  }
}

}  // namespace

void configure(LogSettings settings) {
  std::unique_ptr<spdlog::logger> logger;
  try {
    if (!settings.file.empty()) {
      logger = makeLogger(makeFileSink(settings.file));
    } else if (!settings.quiet) {
      logger = makeLogger(std::make_shared<StandardErrorSink>());
    }
  } catch (const spdlog::spdlog_ex& error) {
    throw std::runtime_error(error.what());
  }
  log().settings = std::move(settings);
  log().logger = std::move(logger);
}

void logInfo(const std::string& message, const std::string& source, const std::string& operation,
             int line) {
  writeNothrow(Record::Level::info, message, source, operation, line);
}

void logError(const std::string& message, const std::string& source, const std::string& operation,
              int line) {
  writeNothrow(Record::Level::error, message, source, operation, line);
}

}  // namespace AgentLog
