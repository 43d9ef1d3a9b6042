// Owns the server's repository metadata on this computer: where "scripts-meta.xml" lies on the
// server and on disk, how it is fetched and loaded, and the entries in memory.
//
// One instance per process, never destroyed. It takes no lock: a load must not run at the same time
// as another call.

#pragma once

#include <optional>
#include <string>
#include <vector>

#include "ScriptRepositoryRecords.h"

namespace VarnScriptRepository {

/// The server's list: where it lies, how it is fetched and loaded, and its entries.
class ScriptRepositoryMetaProcessor {
  // The order of the virtual functions is part of the class's contract.
 public:
  /// The instance of this process, made on first use. Aborts the process when
  /// `AgentUtils::gv_globvars` is null.
  static ScriptRepositoryMetaProcessor& shared();

  /// The entries of the loaded document; absent until a load succeeds. An empty list is loaded.
  virtual const std::optional<std::vector<ScriptRepositoryMeta>>& scriptRepoMetaData() const;
  virtual void setScriptRepoMetaData(std::optional<std::vector<ScriptRepositoryMeta>> entries);
  virtual std::optional<std::vector<ScriptRepositoryMeta>>& modifyScriptRepoMetaData();

  /// The container of all entries, for the removal of scripts that the server dropped. Nothing in
  /// the library fills it; the host may.
  virtual const std::optional<ScriptRepoAllMetaData>& scriptRepoAllMetaData() const;
  virtual void setScriptRepoAllMetaData(std::optional<ScriptRepoAllMetaData> container);
  virtual std::optional<ScriptRepoAllMetaData>& modifyScriptRepoAllMetaData();

  ScriptRepositoryMetaProcessor();

  /// The version stamp of the entry for the ID, or nothing.
  virtual std::optional<std::string> getModifiedTime(const std::string& forScriptID) const;

  /// The entry for the ID, or nothing.
  virtual std::optional<ScriptRepositoryMeta> getServerScriptRepoMeta(
      const std::string& forScriptID) const;

  /// The first entry whose ID equals `scriptID` as text, or nothing. Looks in memory only.
  virtual std::optional<ScriptRepositoryMeta> getScriptRepoForID(const std::string& scriptID) const;

  /// Reads and decodes the local document into `scriptRepoMetaData`. A document that does not
  /// decode makes it absent, without a line; a file that can't be read leaves it as it was and
  /// logs the cause.
  virtual void loadScriptRepoMetaData();

  /// The IDs of all loaded entries in document order, or nothing when none are loaded.
  virtual std::optional<std::vector<std::string>> getAllAvailableScriptIDs() const;

  /// Fetches the document from the server to its local path. True on success; the entries in
  /// memory stay as they are. Logs the outcome.
  virtual bool downloadScriptRepoMeta();

  ScriptRepositoryMetaProcessor(const ScriptRepositoryMetaProcessor&) = delete;
  ScriptRepositoryMetaProcessor& operator=(const ScriptRepositoryMetaProcessor&) = delete;
  virtual ~ScriptRepositoryMetaProcessor();

 private:
  friend class ScriptRepositoryMetaProcessorPeer;

  std::optional<std::vector<ScriptRepositoryMeta>> scriptRepoMetaData_;
  std::optional<ScriptRepoAllMetaData> scriptRepoAllMetaData_;
  const std::string scriptsRepoMetaFilePath_;
  const std::string scriptRepoMetaDownloadURL_;
  const std::string basePath_;
  const std::string customerID_;
};

}  // namespace VarnScriptRepository
