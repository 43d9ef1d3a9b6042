// Finds out what a request would do, by the library's own rules, from the server's documents, the
// local documents and the local store. Changes none of them.

#pragma once

#include <optional>
#include <string>
#include <vector>

#include "Inquiry.h"
#include "LocalCopy.h"
#include "Reason.h"
#include "ScriptRepositoryRecords.h"

namespace VarnScripts {

/// What a request would do; members that it would not come to are absent.
struct RequestPlan {
  enum class Step {
    upToDate,  ///< the local data document would be used
    download,  ///< data document and script would be fetched
  };

  std::string scriptID;
  std::optional<AgentUtils::ListJudgement> list;  ///< who has signed it, when keys are trusted
  std::optional<VarnScriptRepository::ScriptRepositoryMeta> entry;  ///< in the server's list
  std::optional<std::string> localVersion;
  std::optional<Step> step;
  std::string reason;                  ///< why something would be fetched; empty when nothing would
  std::vector<std::string> downloads;  ///< the server paths that would be fetched, in order
  std::optional<std::string> scriptFile;  ///< the script's full path on this computer
  std::optional<std::string> interpreter;
  std::optional<std::vector<std::string>> arguments;
  std::optional<std::vector<std::string>> acceptedCodes;
  /// What keeps the request waiting now, and would end it if it must not wait.
  std::optional<Reason> waitsFor;
  std::optional<Reason> problem;  ///< why no script would be run; absent when one would
};

/// What a request for `scriptID` would do now, asked with `inquiry`, which has begun.
[[nodiscard]] RequestPlan makePlan(const std::string& scriptID, Inquiry& inquiry);

}  // namespace VarnScripts
