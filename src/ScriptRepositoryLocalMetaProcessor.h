// The one way to the local script state: one row per script ID in the table "ScriptToMeta".
//
// One instance per process, never destroyed; the store is opened once, when it is made. Takes no
// lock: two setters at the same time for one ID can lose one of the two updates.

#pragma once

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "AgentUtils.h"

namespace VarnScriptRepository {

/// Reads and writes the version and the path of each script. No operation throws or reports a
/// failure: a failed read counts as a missing row, a failed write is dropped.
class ScriptRepositoryLocalMetaProcessor {
  // The order of the virtual functions is part of the class's contract.
 public:
  /// The instance of this process, made on first use. When its store can't be opened it stays
  /// without one for the life of the process.
  static ScriptRepositoryLocalMetaProcessor& shared();

  ScriptRepositoryLocalMetaProcessor();

  /// The recorded version; nothing without store, row or field.
  virtual std::optional<std::string> getScriptVersion(const std::string& forScriptID);

  /// Records `version` and keeps the recorded path. A row that can't be read is replaced by a
  /// record of this field alone.
  virtual void setScriptVersion(const std::string& forScriptID, const std::string& version);

  /// The recorded path of the script file; nothing without store, row or field.
  virtual std::optional<std::string> getScriptPath(const std::string& forScriptID);

  /// Records `path` and keeps the recorded version. A row that can't be read is replaced by a
  /// record of this field alone.
  virtual void setScriptPath(const std::string& forScriptID, const std::string& path);

  /// Removes the row of the script.
  virtual void removeScriptData(const std::string& forScriptID);

  /// The ID of every row, in no particular order. Without a store: an empty list and one line at
  /// error level.
  virtual std::vector<std::string> getAllScriptIDs();

  ScriptRepositoryLocalMetaProcessor(const ScriptRepositoryLocalMetaProcessor&) = delete;
  ScriptRepositoryLocalMetaProcessor& operator=(const ScriptRepositoryLocalMetaProcessor&) = delete;
  virtual ~ScriptRepositoryLocalMetaProcessor();

 private:
  std::unique_ptr<AgentUtils::RootAccessKeyValueStorage> storage_;
};

}  // namespace VarnScriptRepository
