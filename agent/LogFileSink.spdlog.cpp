#include "LogFileSink.spdlog.h"

#include <fcntl.h>
#include <spdlog/sinks/base_sink.h>
#include <spdlog/sinks/rotating_file_sink.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstdio>
#include <memory>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <string_view>
#include <system_error>
#include <utility>

#include "BriefLock.h"
#include "Calls.h"
#include "Records.spdlog.h"

namespace AgentLog {
namespace {

using posix::FileDescriptor;
using Format = LogSettings::Format;
using LogMessage = spdlog::details::log_msg;

constexpr std::size_t kFileSize = std::size_t{10} << 20;
constexpr std::size_t kOlderFiles = 3;
constexpr mode_t kFileMode = 0600;

/// Whether all of `piece` was written.
bool isWritten(const FileDescriptor& file, std::string_view piece) {
  std::error_code error;
  posix::writeAll(file.get(), piece, error);
  return !error;
}

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
  // Without O_NONBLOCK the opening of a FIFO would wait for a reader. It is read for its last byte.
  FileDescriptor file(::open(
      path.c_str(), O_RDWR | O_CREAT | O_APPEND | O_NOFOLLOW | O_CLOEXEC | O_NOCTTY | O_NONBLOCK,
      kFileMode));
  const std::string problem = file ? problemOf(file) : std::generic_category().message(errno);
  if (!problem.empty()) {
    throw std::runtime_error("can't open the log file " + path + ": " + problem);
  }
  return file;
}

/// Whether the file's last line has no end: whoever wrote it was ended, or the disk was full.
bool isLineOpen(const FileDescriptor& file) {
  struct stat status {};
  char last = '\n';
  return ::fstat(file.get(), &status) == 0 && status.st_size > 0 &&
         ::pread(file.get(), &last, 1, status.st_size - 1) == 1 && last != '\n';
}

class LogFileSink final : public spdlog::sinks::base_sink<std::mutex> {
 public:
  LogFileSink(std::string path, Format format)
      : base_sink(timeFormatter()),
        path_(std::move(path)),
        format_(format),
        file_(openLogFile(path_)) {}

 protected:
  void sink_it_(const LogMessage& message) override {
    const std::size_t length = lengthInPieces(message, *formatter_, format_);
    bool broken = false;
    std::optional<BriefLock> lock;
    writeLine(message, *formatter_, format_, [&](std::string_view piece) {
      if (!lock) {
        makeRoomFor(std::max(length, piece.size()));
        // One piece is written at once; between several, nobody else writes.
        lock.emplace(file_.get(), length > 0 ? BriefLock::Kind::exclusive : BriefLock::Kind::shared,
                     patience_);
        broken = isLineOpen(file_) && !isWritten(file_, "\n");
      }
      broken = broken || !isWritten(file_, piece);
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
  BriefLock::Patience patience_;
};

}  // namespace

spdlog::sink_ptr makeLogFile(std::string path, Format format) {
  return std::make_shared<LogFileSink>(std::move(path), format);
}

}  // namespace AgentLog
