// Whether what this computer has of a script is what the server has now, by the rules of a request.

#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "ScriptRepositoryRecords.h"

namespace VarnScripts {

enum class LocalCopy {
  absent,           ///< no version is recorded
  outdated,         ///< another version is recorded
  documentMissing,  ///< the version is recorded, and the data document is not there
  unlisted,         ///< the data document is not the one that the list names
  unrecorded,       ///< the data document was replaced and its version is not recorded
  upToDate,         ///< the script's file has still to pass the test of its checksum
};

/// The copy of the script `scriptID`, of which `recorded` is the recorded version and `onServer`
/// the server's entry. The agent modules are configured.
[[nodiscard]] LocalCopy localCopyOf(const std::string& scriptID,
                                    const std::optional<std::string>& recorded,
                                    const VarnScriptRepository::ScriptRepositoryMeta& onServer);

/// Why a request fetches the script anew: "the versions differ"; empty when it does not.
[[nodiscard]] std::string_view whyFetched(LocalCopy copy);

}  // namespace VarnScripts
