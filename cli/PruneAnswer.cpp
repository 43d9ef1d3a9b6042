#include "PruneAnswer.h"

#include <nlohmann/json.hpp>
#include <set>
#include <utility>

#include "ExitStatus.h"
#include "Inquiry.h"
#include "List.h"
#include "PrintableText.h"
#include "SignalForwarding.h"
#include "StandardStreams.h"
#include "support/Text.h"

namespace VarnScripts {
namespace {

using VarnScriptRepository::ScriptRepositoryMeta;
using VarnScriptRepository::text::equalityKey;

PruneAnswer foreseen(Inquiry& inquiry) {
  if (auto refusal = inquiry.refusal({})) return {true, {}, std::move(refusal)};
  const auto entries = inquiry.fetchServerList();
  if (!entries) return {true, {}, inquiry.whyNoList()};
  std::optional<std::string> unreadable;
  const std::vector<ListedScript> records = inquiry.records(unreadable);
  if (unreadable) return {true, {}, Reason{ReasonCode::localStateFailed, *unreadable}};
  std::vector<std::string> recordedIDs;
  recordedIDs.reserve(records.size());
  for (const ListedScript& script : records) recordedIDs.push_back(script.scriptID);
  return {true, removalIDs(droppedIDs(std::move(recordedIDs), *entries)), std::nullopt};
}

}  // namespace

std::vector<std::string> droppedIDs(std::vector<std::string> recordedIDs,
                                    const std::vector<ScriptRepositoryMeta>& entries) {
  std::set<std::string> listed;
  for (const auto& entry : entries) listed.insert(equalityKey(entry.scriptID));
  std::erase_if(recordedIDs, [&listed](const std::string& scriptID) {
    return listed.contains(equalityKey(scriptID));
  });
  return recordedIDs;
}

std::vector<std::string> removalIDs(std::vector<std::string> scriptIDs) {
  std::set<std::string> taken;
  std::erase_if(scriptIDs, [&taken](const std::string& scriptID) {
    return !taken.insert(equalityKey(scriptID)).second;
  });
  return scriptIDs;
}

std::string pruneText(const PruneAnswer& answer) {
  std::string text;
  for (const std::string& scriptID : answer.removed) text += printable(scriptID) + "\n";
  return text;
}

std::string pruneJson(const PruneAnswer& answer) {
  using nlohmann::ordered_json;
  ordered_json object;
  object["dry_run"] = answer.dryRun;
  object["removed"] = answer.removed;
  if (answer.reason) {
    object["reason"] = answer.reason->sentence;
    object["reason_code"] = nameOf(answer.reason->code);
  }
  return printableJSON(object.dump(-1, ' ', false, ordered_json::error_handler_t::replace)) + "\n";
}

int answerPrune(const PruneAnswer& answer, const CommandLine& line, const Settings& settings) {
  bool written = true;
  if (line.json) {
    written = writeAnswer(pruneJson(answer), settings);
  } else if (answer.reason) {
    writeReason(answer.reason->sentence, settings);
  } else if (answer.dryRun) {
    written = writeAnswer(pruneText(answer), settings);
  }
  return written && !answer.reason ? kExitSuccess : kExitNotRun;
}

int pruneDryRun(const CommandLine& line, const Settings& settings) {
  // Before any other thread, and never destroyed: its thread runs until the process ends.
  auto& signals = *new SignalForwarding;
  Inquiry inquiry("", settings);
  if (const auto status = inquiry.begin(signals)) return *status;
  const PruneAnswer answer = foreseen(inquiry);
  inquiry.finish();
  return answerPrune(answer, line, settings);
}

}  // namespace VarnScripts
