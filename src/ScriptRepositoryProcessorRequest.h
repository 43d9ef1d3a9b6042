// The inside of a `ScriptRepositoryProcessor`: the state of one request and its steps. Each step
// logs its own failures and throws nothing the caller would have to know.

#pragma once

#include <optional>
#include <string>
#include <vector>

#include "ScriptRepositoryRecords.h"
#include "VarnScriptRepository/ScriptRepositoryProcessor.h"

namespace VarnScriptRepository {

/// The state of one request and its steps.
struct ScriptRequest {
  const std::string scriptID;
  /// The processor's own list, which the caller may set until the script is processed; null without
  /// a processor.
  const std::optional<std::vector<std::string>>* const overrideExpectedReturnCode;
  /// Full path of the script file; absent until a path of the request has set it.
  std::optional<std::string> scriptFilePath;
  /// Full path of this script's data document.
  const std::string scriptDataFilePath;

  explicit ScriptRequest(std::string scriptID,
                         const std::optional<std::vector<std::string>>* overrideList = nullptr);

  // ---- Flow
  ProcessingResult processScript();

  // ---- Two paths
  ProcessingResult downloadAndExecuteScript(const ScriptRepositoryMeta& serverScriptRepoMeta);
  ProcessingResult executeScriptWithoutDownload(const ScriptRepositoryMeta& serverScriptRepoMeta);

  // ---- Files of one script
  /// The first item of the data document on disk, or nothing.
  std::optional<ScriptItem> getScriptItemData() const;
  /// Fetches the script file; sets `scriptFilePath` first, and records the path on success.
  bool downloadScript(const std::string& fileSystemLocation, const std::string& fileName);
  /// Whether the file at `scriptFilePath` has the checksum that the server published for it.
  bool isValidChecksumForFile(const VyFile& withFileData,
                              const std::vector<ChecksumValue>& allChecksumData) const;

  // ---- Execution
  ProcessingResult executeScript(const ScriptRepo& scriptData) const;

  // ---- Removal
  /// Removes the script file, the data document and the local record of this script.
  void removeScriptData() const;
};

}  // namespace VarnScriptRepository
