#include "LogLine.h"

#include <string_view>

#include "JsonText.h"
#include "PrintableText.h"

namespace AgentLog {
namespace {

const char* levelName(Record::Level level) {
  return level == Record::Level::error ? "error" : "info";
}

}  // namespace

void addTextRecord(const Record& record, Pieces& to) {
  const auto blank = [&to] { to.add(" "); };
  addPrintable(record.source, to);
  blank();
  addPrintable(record.operation, to);
  blank();
  to.add(std::to_string(record.line));
  blank();
  addPrintable(record.message, to);
}

void addTextLine(std::string_view time, const Record& record, Pieces& to) {
  to.add(time);
  to.add(" ");
  to.add(levelName(record.level));
  to.add(" ");
  addTextRecord(record, to);
}

void addJSONLine(std::string_view time, const Record& record, Pieces& to) {
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
