// What lies behind the entries of a list in the server's tree.

#pragma once

#include <optional>
#include <string>
#include <utility>

#include "ScriptRepositoryRecords.h"
#include "publish/Documents.h"
#include "publish/ServerFiles.h"

namespace VarnScripts::publishing {

/// The content of a repository in `files`, whose directory below the server's root is `directory`.
/// What can't be read or decoded is as good as missing: no client can take it either. One thread
/// uses it, as it does `files`.
class PublishedContent {
 public:
  PublishedContent(ServerFiles& files, std::string directory)
      : files_(files), directory_(std::move(directory)) {}

  /// The data document that the entry names, or nothing.
  [[nodiscard]] std::optional<VarnScriptRepository::ScriptRoot> documentOf(
      const VarnScriptRepository::ScriptRepositoryMeta& entry);

  /// What the list names and `current` does not: its data documents, and the script files that
  /// these name in turn.
  [[nodiscard]] ContentNames contentOf(const VarnScriptRepository::ScriptsRepoMetaRoot& list,
                                       const ContentNames& current);

 private:
  [[nodiscard]] std::optional<VarnScriptRepository::ScriptRoot> documentAt(const std::string& name);
  void addContentAt(const std::string& filepath, const ContentNames& current,
                    ContentNames& content);

  ServerFiles& files_;
  const std::string directory_;
};

}  // namespace VarnScripts::publishing
