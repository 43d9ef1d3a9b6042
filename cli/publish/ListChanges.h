// What becomes of each ID when one list takes the place of another. Pure functions; any thread.

#pragma once

#include <cstddef>
#include <functional>
#include <optional>
#include <string>
#include <string_view>

#include "ScriptRepositoryRecords.h"

namespace VarnScripts::publishing {

/// The changes from one list to another.
struct ListChanges {
  /// A line for each ID that is not as it was: "+ 43", "~ 42 (script, arguments)", "- 17". In the
  /// order of the new list, and then of the old one.
  std::string lines;
  std::size_t before = 0;   ///< how many IDs the old list had
  std::size_t dropped = 0;  ///< how many of them the new one does not have

  /// Whether so many are dropped that it is more likely a mistake: all of them, or more than a
  /// third of ten or more.
  [[nodiscard]] bool dropsMany() const;
};

/// Gives the data document that belongs to an entry, or nothing when it can't be had.
using DocumentOfEntry = std::function<std::optional<VarnScriptRepository::ScriptRoot>(
    const VarnScriptRepository::ScriptRepositoryMeta& entry)>;

/// Compares the lists entry by entry. Documents are asked for where two entries of one ID differ;
/// of what they alone tell, nothing is said when one is missing.
[[nodiscard]] ListChanges listChanges(const VarnScriptRepository::ScriptsRepoMetaRoot& before,
                                      const VarnScriptRepository::ScriptsRepoMetaRoot& after,
                                      const DocumentOfEntry& documentBefore,
                                      const DocumentOfEntry& documentAfter);

/// What in the list is not as `publish` writes it for a repository in `directory`, or nothing.
[[nodiscard]] std::optional<std::string> complaintAboutList(
    const VarnScriptRepository::ScriptsRepoMetaRoot& list, std::string_view directory);

}  // namespace VarnScripts::publishing
