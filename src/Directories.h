// Where things are: the directories of a customer on this computer and on the server, as texts.
//
// They are plain concatenations: a base path that ends in a slash shows as a double slash. Any
// thread.

#pragma once

#include <string>

namespace VarnScriptRepository {

// ---- Of any customer -------------------------------------------------------------------------

/// "BASE/client-data/CUSTOMER", where all of a customer's directories lie on a computer.
[[nodiscard]] std::string customerDirectory(const std::string& basePath,
                                            const std::string& customerID);
/// Where the server's list and the data documents lie there.
[[nodiscard]] std::string dataDirectoryIn(const std::string& customerDirectory);
/// Where the script files lie there, and run.
[[nodiscard]] std::string scriptsDirectoryIn(const std::string& customerDirectory);
/// "/client-data/CUSTOMER/scriptrepo", where a customer's repository lies on the server.
[[nodiscard]] std::string serverDirectory(const std::string& customerID);
/// The list's name, on the server and here.
inline constexpr const char* kListName = "scripts-meta.xml";

// ---- Of this process's customer --------------------------------------------------------------

// Taken from the agent's global settings on first use and fixed from then on; safe under concurrent
// first use. A first use without memory throws `std::bad_alloc`, and the next one is the first
// again.

/// The agent's base directory.
[[nodiscard]] const std::string& basePath();
/// The customer's ID.
[[nodiscard]] const std::string& customerID();
[[nodiscard]] const std::string& scriptRepoDataDirectory();
[[nodiscard]] const std::string& scriptRepoScriptsDirectory();

/// Creates these two where nothing exists; a failure shows when they are used.
void createMissingDirectories();

/// The data document of a script.
[[nodiscard]] std::string dataDocumentPath(const std::string& scriptID);
/// The script file of this name.
[[nodiscard]] std::string scriptFilePath(const std::string& fileName);

}  // namespace VarnScriptRepository
