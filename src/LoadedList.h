// The server's list in memory, as requests, the removal and the host share it. The class that holds
// it takes no lock, so whoever loads it or looks something up in it goes through here.
//
// Any thread. A list takes another's place whole; nobody waits for its download but those who have
// none.

#pragma once

#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "ScriptRepositoryRecords.h"

namespace VarnScriptRepository {

/// The entry of the script `scriptID` in the list, which is fetched first when this process has
/// none. Nothing without list or entry.
[[nodiscard]] std::optional<ScriptRepositoryMeta> entryInList(const std::string& scriptID);

/// The IDs of the container of all entries, which the removal goes by; nothing while it is absent.
[[nodiscard]] std::optional<std::vector<std::string>> listedIDs();

/// As long as the result lives, no list takes another's place. For a while that is free of waits;
/// who holds it loads no list.
[[nodiscard]] std::unique_lock<std::mutex> holdList();

}  // namespace VarnScriptRepository
