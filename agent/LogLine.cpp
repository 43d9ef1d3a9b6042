#include "LogLine.h"

#include <string_view>

#include "JsonText.h"

namespace AgentLog {
namespace {

const char* levelName(Record::Level level) {
  return level == Record::Level::error ? "error" : "info";
}

void appendOnOneLine(std::string& line, std::string_view text) {
  while (true) {
    const std::size_t end = text.find_first_of("\n\r");
    line += text.substr(0, end);
    if (end == std::string_view::npos) return;
    line += text[end] == '\n' ? "\\n" : "\\r";
    text.remove_prefix(end + 1);
  }
}

/// Appends `number`, with zeros before it up to `width` digits, and `end`.
void appendNumber(std::string& text, long number, std::size_t width, char end) {
  const std::string digits = std::to_string(number);
  if (digits.size() < width) text.append(width - digits.size(), '0');
  text += digits;
  text += end;
}

}  // namespace

std::string timeText(std::chrono::system_clock::time_point time) {
  using std::chrono::days;
  using std::chrono::milliseconds;
  const auto sinceEpoch = std::chrono::floor<milliseconds>(time);
  const auto day = std::chrono::floor<days>(sinceEpoch);
  const std::chrono::year_month_day date(day);
  const std::chrono::hh_mm_ss<milliseconds> clock(sinceEpoch - day);
  std::string text;
  text.reserve(std::string_view("2000-01-01T00:00:00.000Z").size());
  appendNumber(text, static_cast<int>(date.year()), 4, '-');
  appendNumber(text, static_cast<unsigned>(date.month()), 2, '-');
  appendNumber(text, static_cast<unsigned>(date.day()), 2, 'T');
  appendNumber(text, clock.hours().count(), 2, ':');
  appendNumber(text, clock.minutes().count(), 2, ':');
  appendNumber(text, clock.seconds().count(), 2, '.');
  appendNumber(text, clock.subseconds().count(), 3, 'Z');
  return text;
}

std::string textLine(const std::string& time, const Record& record) {
  std::string line;
  line.reserve(time.size() + record.source.size() + record.operation.size() +
               record.message.size() + 32);
  line.append(time).append(" ").append(levelName(record.level)).append(" ");
  appendOnOneLine(line, record.source);
  line += ' ';
  appendOnOneLine(line, record.operation);
  line.append(" ").append(std::to_string(record.line)).append(" ");
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
