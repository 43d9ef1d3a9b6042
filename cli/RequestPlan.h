// Finds out what a request would do, by the library's own rules, from the server's documents, the
// local documents and the local store. Changes none of them.

#pragma once

#include <optional>
#include <string>
#include <vector>

#include "Reason.h"
#include "ScriptRepositoryRecords.h"
#include "TemporaryDirectory.h"

namespace VarnScripts {

/// What a request would do; members that it would not come to are absent.
struct RequestPlan {
  enum class Step {
    upToDate,  ///< the local data document would be used
    download,  ///< data document and script would be fetched
  };

  std::string scriptID;
  std::optional<VarnScriptRepository::ScriptRepositoryMeta> entry;  ///< in the server's list
  std::optional<std::string> localVersion;
  std::optional<Step> step;
  std::string reason;                  ///< why something would be fetched; empty when nothing would
  std::vector<std::string> downloads;  ///< the server paths that would be fetched, in order
  std::optional<std::string> scriptFile;  ///< the script's full path on this computer
  std::optional<std::string> interpreter;
  std::optional<std::vector<std::string>> arguments;
  std::optional<std::vector<std::string>> acceptedCodes;
  std::string problem;  ///< why no script would be run; empty when one would
};

/// What a request for `scriptID` would do now. The agent modules are configured, and what they say
/// of failures comes to `reason`; documents of the server are fetched into `temporary`.
[[nodiscard]] RequestPlan makePlan(const std::string& scriptID, const std::string& customer,
                                   const TemporaryDirectory& temporary, ReasonFinder& reason);

}  // namespace VarnScripts
