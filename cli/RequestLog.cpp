#include "RequestLog.h"

#include <utility>

namespace VarnScripts {

void RequestLog::add(const AgentLog::Record& record) {
  messageBeforeLast_ = std::move(last_.message);
  last_ = record;
}

const std::string& RequestLog::reason() const {
  // A script ID or a version may hold any text, but only this closing line ends so.
  const bool carriesStatus = last_.source == "ScriptRepositoryProcessor" &&
                             last_.operation == "processScript()" &&
                             last_.message.ends_with(" status (nil, nil)");
  return carriesStatus ? messageBeforeLast_ : last_.message;
}

}  // namespace VarnScripts
