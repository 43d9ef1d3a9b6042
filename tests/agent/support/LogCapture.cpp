#include "LogCapture.h"

#include <mutex>

#include "LogSettings.h"

namespace {

std::mutex mutex;
std::vector<std::string> captured;

}  // namespace

LogCapture::LogCapture() {
  captured.clear();
  AgentLog::LogSettings settings;
  settings.quiet = true;
  settings.observer = [](const AgentLog::Record& record) {
    const std::lock_guard lock(mutex);
    std::string line = record.level == AgentLog::Record::Level::error ? "error " : "info ";
    line.append(record.source).append(" ").append(record.operation).append(": ");
    captured.push_back(line.append(record.message));
  };
  AgentLog::configure(settings);
}

LogCapture::~LogCapture() { AgentLog::configure({}); }

std::vector<std::string> LogCapture::lines() const {
  const std::lock_guard lock(mutex);
  return captured;
}
