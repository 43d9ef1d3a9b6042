// The command `list`: the local records, or what the server lists and what of it is here; as a
// table for people or as JSON.

#pragma once

#include <optional>
#include <string>
#include <string_view>
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

/// One script of the server's list.
struct ServerScript {
  std::string scriptID;
  std::optional<std::string> name;
  std::string version;
  std::optional<std::string> platform;  ///< as the server writes it
  std::optional<std::string> localVersion;
  /// What this computer has of it: "up_to_date", "outdated" (another version), "incomplete" (that
  /// version, but not all of its files) or "absent". No checksum is tested for it.
  std::string_view state;
};

/// The scripts as a table with aligned columns, likewise.
[[nodiscard]] std::string serverTable(const std::vector<ServerScript>& scripts);

/// The scripts as one line with a JSON array.
[[nodiscard]] std::string serverJson(const std::vector<ServerScript>& scripts);

/// The line that tells that the store can't be read.
[[nodiscard]] std::string unreadableStore(const std::string& cause);

/// Lists the local records by ID, or what the server lists in its order. Gives the exit status: 3
/// when there is a store that can't be read, the server's list can't be had, or the answer can't be
/// written.
[[nodiscard]] int list(const CommandLine& line, const Settings& settings);

}  // namespace VarnScripts
