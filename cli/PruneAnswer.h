// What `prune` has to say: which scripts go, or why none does.

#pragma once

#include <optional>
#include <string>
#include <vector>

#include "CommandLine.h"
#include "Reason.h"
#include "ScriptRepositoryRecords.h"
#include "Settings.h"

namespace VarnScripts {

/// The recorded IDs that `entries` do not list, by the comparison of a removal. One that is written
/// in two ways is among them twice.
[[nodiscard]] std::vector<std::string> droppedIDs(
    std::vector<std::string> recordedIDs,
    const std::vector<VarnScriptRepository::ScriptRepositoryMeta>& entries);

/// The IDs as a removal takes them: of two ways to write one the first.
[[nodiscard]] std::vector<std::string> removalIDs(std::vector<std::string> scriptIDs);

struct PruneAnswer {
  bool dryRun = false;
  std::vector<std::string> removed;  ///< the IDs that are removed, or would be
  std::optional<Reason> reason;      ///< why none is
};

/// The IDs, one a line; control characters are shown as `?`.
[[nodiscard]] std::string pruneText(const PruneAnswer& answer);

/// The answer as one line with a JSON object.
[[nodiscard]] std::string pruneJson(const PruneAnswer& answer);

/// Writes the answer, as JSON when `line` asks for it. Otherwise the reason goes to standard error,
/// and the IDs are written for a dry run alone: what a removal does is in the log. Gives the exit
/// status.
[[nodiscard]] int answerPrune(const PruneAnswer& answer, const CommandLine& line,
                              const Settings& settings);

/// `prune --dry-run`: fetches the server's list and tells what would be removed. Changes nothing.
/// Gives the exit status, 3 when that can't be told.
[[nodiscard]] int pruneDryRun(const CommandLine& line, const Settings& settings);

}  // namespace VarnScripts
