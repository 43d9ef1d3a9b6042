#include "LogLine.h"

#include <string_view>

#include "JsonText.h"
#include "PrintableText.h"

namespace AgentLog {
namespace {

const char* levelName(Record::Level level) {
  return level == Record::Level::error ? "error" : "info";
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

void addTextLine(const std::string& time, const Record& record, Pieces& to) {
  const auto blank = [&to] { to.add(" "); };
  to.add(time);
  blank();
  to.add(levelName(record.level));
  blank();
  addPrintable(record.source, to);
  blank();
  addPrintable(record.operation, to);
  blank();
  to.add(std::to_string(record.line));
  blank();
  addPrintable(record.message, to);
}

void addJSONLine(const std::string& time, const Record& record, Pieces& to) {
  const auto member = [&to](std::string_view beginning, std::string_view text) {
    to.add(beginning);
    addJSONText(text, to);
  };
  member("{\"time\":", time);
  member(",\"level\":", levelName(record.level));
  member(",\"source\":", record.source);
  member(",\"operation\":", record.operation);
  to.add(",\"line\":" + std::to_string(record.line));
  member(",\"message\":", record.message);
  to.add("}");
}

}  // namespace AgentLog
