#include "StandardErrorSink.spdlog.h"

#include <poll.h>
#include <spdlog/sinks/base_sink.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <thread>

#include "BriefLock.h"
#include "Calls.h"
#include "Records.spdlog.h"
#include "ReopenedStandardError.h"
#include "SigpipeGuard.h"

namespace AgentLog {
namespace {

using Format = LogSettings::Format;
using LogMessage = spdlog::details::log_msg;

/// What standard error is while one record is written; a host may give it something else after.
class StandardError {
 public:
  StandardError() {
    struct stat status {};
    if (::fstat(STDERR_FILENO, &status) != 0) return;
    isFile_ = S_ISREG(status.st_mode);
    isSocket_ = S_ISSOCK(status.st_mode);
    hasReader_ = S_ISFIFO(status.st_mode) || isSocket_ || ::isatty(STDERR_FILENO) == 1;
    if (isFile_ || hasReader_) own_ = reopenStandardError();
  }

  /// Whether whoever reads it can keep its writers waiting.
  [[nodiscard]] bool hasReader() const { return hasReader_; }

  /// To be locked when it is a file; -1 otherwise. Never the descriptor that others have, too: a
  /// lock on that one would be theirs.
  [[nodiscard]] int file() const { return isFile_ ? own_.get() : -1; }

  /// Writes what is taken of `text`, as write(2). One line is one call where that takes it whole,
  /// so that the lines of several processes do not mix. A reader is not waited for where that can
  /// be; elsewhere it is known to take something.
  [[nodiscard]] ssize_t write(std::string_view text) const {
    return posix::retryOnInterrupt([&] {
      if (isSocket_) return ::send(STDERR_FILENO, text.data(), text.size(), MSG_DONTWAIT);
      if (!hasReader_) return ::write(STDERR_FILENO, text.data(), text.size());
      if (own_) return ::write(own_.get(), text.data(), text.size());
      // So much is taken at least when something is: by a pipe, and mostly by a terminal.
      return ::write(STDERR_FILENO, text.data(), std::min<std::size_t>(text.size(), PIPE_BUF));
    });
  }

 private:
  bool isFile_ = false;
  bool isSocket_ = false;
  bool hasReader_ = false;
  posix::FileDescriptor own_;
};

class StandardErrorSink final : public spdlog::sinks::base_sink<std::mutex> {
 public:
  StandardErrorSink(Format format, std::chrono::milliseconds wait)
      : base_sink(timeFormatter()), format_(format), wait_(wait), patience_(wait) {}

 protected:
  void sink_it_(const LogMessage& message) override {
    const SigpipeGuard guard;
    const StandardError to;
    const bool isLong = to.file() >= 0 && lengthInPieces(message, *formatter_, format_) > 0;
    const BriefLock lock(to.file(), isLong ? BriefLock::Kind::exclusive : BriefLock::Kind::shared,
                         lockPatience_);
    isGivenUp_ = false;
    const Clock::duration before = patience_;
    const bool isWhole =
        (!isLineOpen_ || write("\n", to)) && tellWhatIsLeftOut(message, to) && add(message, to);
    if (isGivenUp_) ++leftOut_;
    // Whoever keeps nobody waiting is waited for again.
    if (isWhole && patience_ == before) patience_ = wait_;
  }

  void flush_() override {}

 private:
  using Clock = std::chrono::steady_clock;

  /// Whether all of the record was written.
  bool add(const LogMessage& message, const StandardError& to) {
    bool broken = false;
    writeLine(message, *formatter_, format_,
              [&](std::string_view piece) { broken = broken || !write(piece, to); });
    return !broken;
  }

  bool write(std::string_view text, const StandardError& to) {
    while (!text.empty()) {
      if (to.hasReader() && !takesText()) return false;
      const ssize_t taken = to.write(text);
      if (taken > 0) {
        const auto length = static_cast<std::size_t>(taken);
        isLineOpen_ = text[length - 1] != '\n';
        text.remove_prefix(length);
      } else if (taken == 0 || (errno != EAGAIN && errno != EWOULDBLOCK) || !pause()) {
        return false;
      }
    }
    return true;
  }

  /// Waits until standard error takes something, as long as there is patience for it.
  bool takesText() {
    if (isReady(Clock::duration::zero())) return true;
    const Clock::time_point begun = Clock::now();
    const bool takes = patience_ > Clock::duration::zero() && isReady(patience_);
    spendSince(begun);
    isGivenUp_ = !takes;
    return takes;
  }

  static bool isReady(Clock::duration wait) {
    pollfd writable{STDERR_FILENO, POLLOUT, 0};
    const auto milliseconds = std::chrono::ceil<std::chrono::milliseconds>(wait).count();
    // An error, or a signal, is for `write` to find.
    return ::poll(&writable, 1, static_cast<int>(milliseconds)) != 0;
  }

  /// Waits a moment where something is said to be taken and is not: another process was faster, or
  /// there is less room than is needed. Not waited for without patience.
  bool pause() {
    isGivenUp_ = patience_ <= Clock::duration::zero();
    if (isGivenUp_) return false;
    const Clock::time_point begun = Clock::now();
    std::this_thread::sleep_for(std::min<Clock::duration>(patience_, std::chrono::milliseconds(5)));
    spendSince(begun);
    return true;
  }

  void spendSince(Clock::time_point begun) {
    patience_ -= std::min<Clock::duration>(patience_, Clock::now() - begun);
  }

  /// Whether nothing is left to be told.
  bool tellWhatIsLeftOut(const LogMessage& next, const StandardError& to) {
    if (leftOut_ == 0) return true;
    const std::string text =
        std::to_string(leftOut_) + " records are left out here: nobody has read them";
    const spdlog::source_loc source("AgentLog", __LINE__, "tellWhatIsLeftOut(_:)");
    if (!add({next.time, source, next.logger_name, spdlog::level::warn, text}, to)) return false;
    leftOut_ = 0;
    patience_ = wait_;
    return true;
  }

  const Format format_;
  const Clock::duration wait_;
  Clock::duration patience_;  // how long its reader is still waited for
  bool isGivenUp_ = false;    // it ended with the record at hand
  std::uint64_t leftOut_ = 0;
  bool isLineOpen_ = false;  // a record was broken off
  BriefLock::Patience lockPatience_;
};

}  // namespace

spdlog::sink_ptr makeStandardErrorLog(Format format, std::chrono::milliseconds wait) {
  return std::make_shared<StandardErrorSink>(format, wait);
}

}  // namespace AgentLog
