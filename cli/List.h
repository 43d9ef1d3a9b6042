// The command `list`: the local records, as a table for people or as JSON.

#pragma once

#include <optional>
#include <string>
#include <vector>

#include "CommandLine.h"
#include "Settings.h"

namespace VarnScripts {

/// What is recorded of one script.
struct ListedScript {
  std::string scriptID;
  std::optional<std::string> version;
  std::optional<std::string> scriptPath;
  bool fileExists = false;  ///< whether something stands at `scriptPath`
};

/// All records, sorted by ID. Opens no store that does not exist and creates nothing. `error` is a
/// line that tells why a store that is there can't be read.
[[nodiscard]] std::vector<ListedScript> listedScripts(std::optional<std::string>& error);

/// All records of the store at `store`, which may be a copy. Throws when it can't be opened.
[[nodiscard]] std::vector<ListedScript> listedScriptsIn(const std::string& store);

/// The record of one script, or nothing; otherwise as `listedScripts`.
[[nodiscard]] std::optional<ListedScript> listedScript(const std::string& scriptID,
                                                       std::optional<std::string>& error);

/// The records as a table with aligned columns, "-" for what is absent. No records give an empty
/// text. Control characters are shown as `?`.
[[nodiscard]] std::string listTable(const std::vector<ListedScript>& scripts);

/// The records as one line with a JSON array.
[[nodiscard]] std::string listJson(const std::vector<ListedScript>& scripts);

/// Lists the local records by ID. Gives the exit status: 3 when there is a store that can't be
/// read, or the list can't be written.
[[nodiscard]] int list(const CommandLine& line, const Settings& settings);

}  // namespace VarnScripts
