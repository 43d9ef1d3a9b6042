#include "RequestLog.h"

#include <cstddef>
#include <utility>

namespace VarnScripts {

namespace {

constexpr std::size_t kMostKept = 64 * 1024;

}  // namespace

void RequestLog::add(const AgentLog::Record& record) {
  beforeLast_ = std::exchange(last_, std::string(record.message.substr(0, kMostKept)));
  // A script ID or a version may hold any text, but only this closing line ends so.
  lastCarriesStatus_ = record.source == "ScriptRepositoryProcessor" &&
                       record.operation == "processScript()" &&
                       record.message.ends_with(" status (nil, nil)");
}

const std::string& RequestLog::reason() const { return lastCarriesStatus_ ? beforeLast_ : last_; }

}  // namespace VarnScripts
