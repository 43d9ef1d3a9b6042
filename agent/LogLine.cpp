#include "LogLine.h"

#include <cstdio>
#include <ctime>

#include "JsonText.h"

namespace AgentLog {
namespace {

const char* levelName(Record::Level level) {
  return level == Record::Level::error ? "error" : "info";
}

void appendOnOneLine(std::string& line, const std::string& text) {
  for (const char c : text) {
    if (c == '\n') {
      line += "\\n";
    } else if (c == '\r') {
      line += "\\r";
    } else {
      line += c;
    }
  }
}

}  // namespace

std::string timeText(std::chrono::system_clock::time_point time) {
  using std::chrono::milliseconds;
  const auto sinceEpoch = std::chrono::floor<milliseconds>(time.time_since_epoch());
  const auto seconds = std::chrono::floor<std::chrono::seconds>(sinceEpoch);
  const std::time_t clock = seconds.count();
  std::tm parts{};
  gmtime_r(&clock, &parts);
  char text[64];
  const std::size_t length = std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%S", &parts);
  const int fraction = static_cast<int>((sinceEpoch - seconds).count());
  std::snprintf(text + length, sizeof text - length, ".%03dZ", fraction);
  return text;
}

std::string textLine(const std::string& time, const Record& record) {
  std::string line = time + ' ' + levelName(record.level) + ' ';
  appendOnOneLine(line, record.source);
  line += ' ';
  appendOnOneLine(line, record.operation);
  line += ' ' + std::to_string(record.line) + ' ';
  appendOnOneLine(line, record.message);
  return line;
}

std::string jsonLine(const std::string& time, const Record& record) {
  const auto text = [](const std::string& value) { return jsonText(value, NotUTF8::replaced); };
  JsonObjectText object;
  object.add("time", text(time));
  object.add("level", text(levelName(record.level)));
  object.add("source", text(record.source));
  object.add("operation", text(record.operation));
  object.add("line", std::to_string(record.line));
  object.add("message", text(record.message));
  return object.text();
}

}  // namespace AgentLog
