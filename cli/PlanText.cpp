#include "PlanText.h"

#include <algorithm>
#include <nlohmann/json.hpp>
#include <tuple>
#include <type_traits>

#include "PrintableText.h"
#include "TrustedKeys.h"

namespace VarnScripts {
namespace {

using nlohmann::ordered_json;
using VarnScriptRepository::ScriptRepositoryMeta;

ordered_json orNull(const std::string& text) {
  return text.empty() ? ordered_json() : ordered_json(text);
}

template <class T>
ordered_json orNull(const std::optional<T>& value) {
  return value ? ordered_json(*value) : ordered_json();
}

// The entry under the keys of the list, without what the list leaves out.
ordered_json entryJson(const ScriptRepositoryMeta& entry) {
  auto object = ordered_json::object();
  const auto add = [&](const auto& field) {
    const std::string key(field.key);
    const auto& value = entry.*field.member;
    using Value = std::remove_cvref_t<decltype(value)>;
    if constexpr (std::is_same_v<Value, std::string>) {
      object[key] = value;
    } else if constexpr (std::is_same_v<Value, std::optional<std::string>>) {
      if (value) object[key] = *value;
    } else if (value) {
      for (const auto& path : *value) object[key].push_back({{"filepath", path.filepath}});
    }
  };
  std::apply([&](const auto&... field) { (add(field), ...); }, ScriptRepositoryMeta::fields());
  return object;
}

std::string dumped(const ordered_json& json) {
  return printableJSON(json.dump(-1, ' ', false, ordered_json::error_handler_t::replace));
}

const char* stepName(RequestPlan::Step step) {
  return step == RequestPlan::Step::upToDate ? "up_to_date" : "download";
}

void addLine(std::string& text, const char* label, const std::string& value) {
  constexpr std::size_t kLabelWidth = 16;
  std::string column = std::string(label) + ":";
  column.resize(std::max(kLabelWidth, column.size() + 1), ' ');
  text += column + printable(value) + "\n";
}

}  // namespace

std::string planText(const RequestPlan& plan) {
  std::string text;
  addLine(text, "script", plan.scriptID);
  if (plan.list) addLine(text, "list", whoSigned(*plan.list));
  if (plan.entry) {
    if (plan.entry->scriptName) addLine(text, "name", *plan.entry->scriptName);
    addLine(text, "server version", plan.entry->modifiedTime);
    addLine(text, "local version", plan.localVersion.value_or("none"));
  }
  if (plan.step) {
    const bool upToDate = *plan.step == RequestPlan::Step::upToDate;
    std::string step = upToDate ? "up to date" : "download";
    if (!plan.reason.empty()) step += ": " + plan.reason;
    addLine(text, "step", step);
  }
  for (const std::string& path : plan.downloads) addLine(text, "fetch", path);
  if (plan.scriptFile) addLine(text, "script file", *plan.scriptFile);
  if (plan.interpreter) addLine(text, "interpreter", *plan.interpreter);
  if (plan.arguments) addLine(text, "arguments", dumped(*plan.arguments));
  if (plan.acceptedCodes) addLine(text, "accepted codes", dumped(*plan.acceptedCodes));
  if (plan.waitsFor) {
    addLine(text, "waits", plan.waitsFor->sentence + " (with --no-wait it is not run)");
  }
  if (plan.problem) addLine(text, "not run", plan.problem->sentence);
  return text;
}

std::string planJson(const RequestPlan& plan) {
  ordered_json object;
  object["script_id"] = plan.scriptID;
  if (plan.list) {
    object["signed_by"] = plan.list->signedBy;
    object["serial"] = plan.list->serial;
  }
  object["entry"] = plan.entry ? entryJson(*plan.entry) : ordered_json();
  object["local_version"] = orNull(plan.localVersion);
  object["step"] = plan.step ? ordered_json(stepName(*plan.step)) : ordered_json();
  object["reason"] = orNull(plan.reason);
  object["downloads"] = plan.downloads;
  object["script_file"] = orNull(plan.scriptFile);
  object["interpreter"] = orNull(plan.interpreter);
  object["arguments"] = orNull(plan.arguments);
  object["accepted_codes"] = orNull(plan.acceptedCodes);
  object["waits_for"] = ordered_json();
  if (plan.waitsFor) {
    object["waits_for"] = {{"reason", plan.waitsFor->sentence},
                           {"reason_code", nameOf(plan.waitsFor->code)}};
  }
  object["problem"] = plan.problem ? orNull(plan.problem->sentence) : ordered_json();
  object["reason_code"] = plan.problem ? ordered_json(nameOf(plan.problem->code)) : ordered_json();
  return dumped(object) + "\n";
}

}  // namespace VarnScripts
