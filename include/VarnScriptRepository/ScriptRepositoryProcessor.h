// Runs one script of the server's repository from a verified local copy, and removes the local
// copies of scripts that the server dropped.
//
//     VarnScriptRepository::ScriptRepositoryProcessor processor("42");
//     const auto [accepted, output] = processor.processScript();
//
// The agent sets `AgentUtils::gv_globvars` before the first use. Everything runs on the caller's
// thread. The log tells why a script was not run. Nothing here throws.

#pragma once

#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "VarnExport.h"

namespace VarnScriptRepository {

/// What became of a request.
///
/// Both absent: the script was not run. (true, output): it ran and its exit code is accepted.
/// (false, output): it ran and its exit code is not accepted. The output is the script's standard
/// output and standard error together, UTF-8.
using ProcessingResult = std::pair<std::optional<bool>, std::optional<std::string>>;

struct ScriptRequest;

/// One request for one script ID: construct, perhaps set `overrideExpectedReturnCode`, call
/// `processScript()` once, read the result, drop.
///
/// One instance is used from one thread. Instances for different IDs may run at the same time;
/// requests for the same ID are not coordinated, see `ScriptTurn`.
class VARN_EXPORT ScriptRepositoryProcessor {
 public:
  /// Makes a request for the script `scriptID` ("42") and creates the data and scripts directories
  /// when they are missing. A failure to create them shows when the request is processed.
  explicit ScriptRepositoryProcessor(const std::string& scriptID);
  ~ScriptRepositoryProcessor();

  ScriptRepositoryProcessor(const ScriptRepositoryProcessor&) = delete;
  ScriptRepositoryProcessor& operator=(const ScriptRepositoryProcessor&) = delete;

  /// The exit codes, in decimal ("0", "-1"), that count as success in place of the server's own
  /// list. Absent at first: then the server's list decides. An empty list accepts no code. Compared
  /// byte for byte, nothing trimmed.
  std::optional<std::vector<std::string>> overrideExpectedReturnCode;

  /// Finds the script in the server's metadata, fetches and verifies what is needed, runs the
  /// script, and returns what became of it.
  ///
  /// Blocks through downloads and the run; the script is asked to end after 600 seconds. The
  /// metadata is fetched by the first request of the process and kept until `reloadServerList`.
  /// Afterwards the files and the local record of the script are the server's, also when the run
  /// failed.
  [[nodiscard]] ProcessingResult processScript();

  /// Removes the script files, data documents and local records of all scripts that the server no
  /// longer lists, as far as the list of all scripts has been handed to the library, which
  /// `reloadServerList` does. Takes no turns, see `removeDroppedScripts`.
  ///
  /// Downloads nothing and reports nothing but its log lines. Also a class method of the class
  /// `ScriptRepositoryProcessor` of the platform's object runtime, under the selector
  /// "removeServerRemovedScripts".
  static void removeServerRemovedScripts();

 private:
  std::unique_ptr<ScriptRequest> request;
};

}  // namespace VarnScriptRepository
