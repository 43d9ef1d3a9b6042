#include "SystemLog.spdlog.h"

#include <spdlog/formatter.h>
#include <spdlog/sinks/syslog_sink.h>
#ifdef VARN_HAS_JOURNAL
#include <spdlog/sinks/systemd_sink.h>
#endif

#include <memory>
#include <stdexcept>
#include <string>
#include <string_view>

#include "LogLine.h"
#include "Pieces.h"
#include "Records.spdlog.h"

namespace AgentLog {
namespace {

using Format = LogSettings::Format;
using LogMessage = spdlog::details::log_msg;

/// The line of a record, without a line end.
class LineFormatter final : public spdlog::formatter {
 public:
  explicit LineFormatter(Format format) : format_(format) {}

  void format(const LogMessage& message, spdlog::memory_buf_t& to) override {
    Pieces pieces(
        [&to](std::string_view piece) { to.append(piece.data(), piece.data() + piece.size()); });
    const Record record = recordOf(message);
    if (format_ == Format::json) {
      spdlog::memory_buf_t time;
      time_->format(message, time);
      addJSONLine({time.data(), time.size()}, record, pieces);
    } else {
      addTextRecord(record, pieces);
    }
    pieces.end();
  }

  [[nodiscard]] std::unique_ptr<spdlog::formatter> clone() const override {
    return std::make_unique<LineFormatter>(format_);
  }

 private:
  const Format format_;
  const std::unique_ptr<spdlog::formatter> time_ = timeFormatter();
};

spdlog::sink_ptr makeSink(LogSettings::Target target) {
  // An empty name is that of the program.
  if (target == LogSettings::Target::syslog) {
    return std::make_shared<spdlog::sinks::syslog_sink_mt>("", LOG_PID, LOG_DAEMON, true);
  }
#ifdef VARN_HAS_JOURNAL
  return std::make_shared<spdlog::sinks::systemd_sink_mt>("varn-scripts", true);
#else
  throw std::invalid_argument(
      "this build can't write to the journal by itself; syslog reaches it, too");
#endif
}

}  // namespace

spdlog::sink_ptr makeSystemLog(LogSettings::Target target, Format format) {
  spdlog::sink_ptr sink = makeSink(target);
  sink->set_formatter(std::make_unique<LineFormatter>(format));
  return sink;
}

}  // namespace AgentLog
