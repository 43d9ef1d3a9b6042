#include "Outcome.h"

#include <time.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <string_view>

#include "ExitStatus.h"
#include "JsonText.h"
#include "StandardStreams.h"

namespace VarnScripts {
namespace {

using VarnScriptRepository::ProcessingResult;
using VarnScriptRepository::ScriptEnd;

// The output as far as the settings let it be written.
struct ShownOutput {
  ShownOutput(std::string_view output, const Settings& settings)
      : text(settings.maxOutput ? beginningOf(output, *settings.maxOutput) : output),
        leftOut(output.size() - text.size()) {}

  std::string_view text;
  std::size_t leftOut;
};

const char* statusOf(const ProcessingResult& result) {
  if (!result.first) return "not_run";
  return *result.first ? "accepted" : "rejected";
}

// RFC 3339, UTC, with milliseconds.
std::string timeText(std::chrono::system_clock::time_point time) {
  const auto second = std::chrono::floor<std::chrono::seconds>(time);
  const auto rest = std::chrono::duration_cast<std::chrono::milliseconds>(time - second);
  const std::time_t sinceEpoch = std::chrono::system_clock::to_time_t(second);
  std::tm utc{};
  ::gmtime_r(&sinceEpoch, &utc);
  char text[sizeof "2026-11-21T06:30:16"] = "";
  std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%S", &utc);
  const std::string digits = std::to_string(1000 + rest.count());
  return std::string(text) + '.' + digits.substr(1) + 'Z';
}

void addText(std::string_view key, std::string_view text, Pieces& to) {
  to.add(key);
  addJSONText(text, to);
}

void addNumber(std::string_view key, std::uint64_t number, Pieces& to) {
  to.add(key);
  to.add(std::to_string(number));
}

void addRun(const ScriptRun& run, std::size_t leftOut, Pieces& to) {
  const ScriptEnd& end = run.end;
  to.add(end.how == ScriptEnd::How::signalled ? ",\"signal\":" : ",\"exit_code\":");
  to.add(end.how == ScriptEnd::How::statusLost ? "null" : std::to_string(end.code));
  to.add(end.limitReached ? ",\"timed_out\":true" : ",\"timed_out\":false");
  addText(",\"started\":", timeText(run.started), to);
  const auto duration = std::chrono::duration_cast<std::chrono::milliseconds>(end.duration);
  addNumber(",\"duration_ms\":", static_cast<std::uint64_t>(duration.count()), to);
  addText(",\"version\":", run.version, to);
  addText(",\"path\":", run.path, to);
  addNumber(",\"output_bytes\":", end.outputBytes, to);
  addNumber(",\"dropped_bytes\":", end.droppedBytes, to);
  if (end.lostBytes > 0) addNumber(",\"lost_bytes\":", end.lostBytes, to);
  if (leftOut > 0) addNumber(",\"left_out_bytes\":", leftOut, to);
}

void addSigners(const AgentUtils::ListJudgement& list, Pieces& to) {
  std::string_view before = ",\"signed_by\":[";
  for (const std::string& name : list.signedBy) {
    addText(before, name, to);
    before = ",";
  }
  addNumber("],\"serial\":", list.serial, to);
}

// What whoever reads no log would miss.
void writeEnd(const Outcome& outcome) {
  const ScriptEnd& end = outcome.run->end;
  if (outcome.result.first.value_or(true)) {
    if (end.limitReached) {
      writeErrorLine("varn-scripts: the script was asked to end at the time limit");
    }
    return;
  }
  const bool isSignal = end.how == ScriptEnd::How::signalled;
  writeErrorLine(std::string("varn-scripts: rejected: the ") +
                 (isSignal ? "script was ended by signal " : "exit code is ") +
                 std::to_string(end.code) +
                 (end.limitReached ? " (asked to end at the time limit)" : ""));
}

}  // namespace

int exitStatusOf(const Outcome& outcome) {
  const auto& accepted = outcome.result.first;
  if (!accepted) return kExitNotRun;
  return *accepted ? kExitSuccess : kExitRejected;
}

void addJSON(const std::string& scriptID, const Outcome& outcome, const Settings& settings,
             Pieces& to) {
  addText("{\"script_id\":", scriptID, to);
  addText(",\"status\":", statusOf(outcome.result), to);
  std::size_t leftOut = 0;
  if (outcome.result.second) {
    const ShownOutput shown(*outcome.result.second, settings);
    leftOut = shown.leftOut;
    addText(",\"output\":", shown.text, to);
  } else {
    to.add(",\"output\":null");
  }
  if (outcome.run) addRun(*outcome.run, leftOut, to);
  if (outcome.reason) {
    addText(",\"reason\":", outcome.reason->sentence, to);
    addText(",\"reason_code\":", nameOf(outcome.reason->code), to);
  }
  if (outcome.list) addSigners(*outcome.list, to);
  to.add("}\n");
}

void writeText(const Outcome& outcome, const Settings& settings, const WrittenOutput& written) {
  if (outcome.reason) writeReason(outcome.reason->sentence, settings);
  if (!outcome.result.second) return;
  const std::string& output = *outcome.result.second;
  const ShownOutput shown(output, settings);
  if (written.error) {
    writeOutputFailure(written.error, settings);
  } else {
    writeAnswer(shown.text.substr(std::min<std::uint64_t>(written.length, shown.text.size())),
                settings);
  }
  if (outcome.run && outcome.run->end.droppedBytes > 0) {
    writeRemark(std::to_string(outcome.run->end.droppedBytes) +
                    " bytes of output are left out: they are not UTF-8",
                settings);
  }
  if (shown.leftOut > 0) {
    writeRemark(std::to_string(shown.leftOut) + " of " + std::to_string(output.size()) +
                    " bytes of output are left out (max_output)",
                settings);
  }
  if (outcome.run && showsWarnings(settings.log)) writeEnd(outcome);
}

}  // namespace VarnScripts
