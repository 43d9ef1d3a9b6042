// What became of a request, and how it is handed out: the output, the reason, or one JSON object.

#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <system_error>

#include "Pieces.h"
#include "Reason.h"
#include "Settings.h"
#include "VarnScriptRepository/ScriptRepositoryProcessor.h"
#include "VarnScriptRepository/ScriptRunObserver.h"

namespace VarnScripts {

/// A script that ran.
struct ScriptRun {
  std::chrono::system_clock::time_point started;
  std::string version;
  std::string path;
  VarnScriptRepository::ScriptEnd end{};  ///< without a cause
};

struct Outcome {
  VarnScriptRepository::ProcessingResult result;
  std::optional<Reason> reason;  ///< when no script was run
  std::optional<ScriptRun> run;  ///< when one was, and there was memory to note it
  /// Who has signed the list, when keys are trusted and it counts.
  std::optional<AgentUtils::ListJudgement> list{};
};

/// The exit status for it.
[[nodiscard]] int exitStatusOf(const Outcome& outcome);

/// Adds it as one line with a JSON object. Everything in it is made readable, whatever bytes the ID
/// on the command line had. Of the output as much as the settings let be written.
void addJSON(const std::string& scriptID, const Outcome& outcome, const Settings& settings,
             Pieces& to);

/// What of the output stands on standard output already.
struct WrittenOutput {
  std::uint64_t length = 0;  ///< of its beginning
  std::error_code error{};   ///< why nothing more can be written
};

/// Writes the rest of the output to standard output, and what is missing in it and why it is
/// rejected to standard error; or there the reason.
void writeText(const Outcome& outcome, const Settings& settings, const WrittenOutput& written);

}  // namespace VarnScripts
