#include "List.h"

#include <sys/stat.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <exception>
#include <nlohmann/json.hpp>
#include <system_error>
#include <type_traits>
#include <utility>

#include "AgentModules.h"
#include "AgentUtils.h"
#include "ExitStatus.h"
#include "PathGuard.h"
#include "PrintableText.h"
#include "Reason.h"
#include "StandardStreams.h"
#include "VarnScriptRepository/ScriptRepositoryLocalMeta.h"

namespace VarnScripts {
namespace {

using VarnScriptRepository::ScriptLocalData;
using VarnScriptRepository::ScriptRepositoryConstants;

using Row = std::array<std::string, 4>;

// Whether something exists at `path`; `error` is set when that can't be found out.
bool exists(const std::string& path, std::error_code& error) {
  error.clear();
  struct stat status {};
  if (::stat(path.c_str(), &status) == 0) return true;
  if (errno != ENOENT && errno != ENOTDIR) error.assign(errno, std::generic_category());
  return false;
}

// In characters: bytes that continue a UTF-8 sequence take no column.
std::size_t width(const std::string& text) {
  return static_cast<std::size_t>(std::count_if(text.begin(), text.end(), [](char c) {
    return (static_cast<unsigned char>(c) & 0xc0) != 0x80;
  }));
}

Row rowOf(const ListedScript& script) {
  return {printable(script.scriptID), printable(script.version.value_or("-")),
          !script.scriptPath ? "-" : (script.fileExists ? "present" : "missing"),
          printable(script.scriptPath.value_or("-"))};
}

// The record of one row, or nothing when the row has gone since its key was read. A row that does
// not decode is listed by its key alone.
std::optional<ListedScript> scriptOf(AgentUtils::RootAccessKeyValueStorage& storage,
                                     const std::string& scriptID) {
  ListedScript script{scriptID, std::nullopt, std::nullopt, false};
  try {
    const auto record = storage.fetchValue(scriptID, std::type_identity<ScriptLocalData>{});
    if (!record) return std::nullopt;
    script.version = record->version();
    script.scriptPath = record->scriptPath();
  } catch (const std::exception&) {
    return script;
  }
  std::error_code ignored;
  script.fileExists = script.scriptPath && exists(*script.scriptPath, ignored);
  return script;
}

// What `read` takes from the store; nothing when there is no store, and with `error` when it can't
// be read.
template <class Read>
auto fromStore(const Read& read, std::optional<std::string>& error)
    -> decltype(read(std::declval<AgentUtils::RootAccessKeyValueStorage&>())) {
  const std::string& path = ScriptRepositoryConstants::FilePath::scriptRepository();
  std::error_code cause;
  if (!exists(path, cause)) {
    if (cause) error = "The store " + path + " can't be read: " + cause.message();
    return {};
  }
  try {
    AgentUtils::RootAccessKeyValueStorage storage(
        path, ScriptRepositoryConstants::TableNames::scriptToMeta);
    return read(storage);
  } catch (const std::exception& failure) {
    error = "The store " + path + " can't be read: " + failure.what();
    return {};
  }
}

// Sorted by ID, which is the order of the map's keys.
std::vector<ListedScript> allScripts(AgentUtils::RootAccessKeyValueStorage& storage) {
  std::vector<ListedScript> scripts;
  for (const auto& [scriptID, value] : storage.fetchTableAsDictionary()) {
    if (auto script = scriptOf(storage, scriptID)) scripts.push_back(std::move(*script));
  }
  return scripts;
}

}  // namespace

std::vector<ListedScript> listedScripts(std::optional<std::string>& error) {
  return fromStore(allScripts, error);
}

std::vector<ListedScript> listedScriptsIn(const std::string& store) {
  AgentUtils::RootAccessKeyValueStorage storage(
      store, ScriptRepositoryConstants::TableNames::scriptToMeta);
  return allScripts(storage);
}

std::optional<ListedScript> listedScript(const std::string& scriptID,
                                         std::optional<std::string>& error) {
  return fromStore([&](auto& storage) { return scriptOf(storage, scriptID); }, error);
}

std::string listTable(const std::vector<ListedScript>& scripts) {
  if (scripts.empty()) return "";
  std::vector<Row> rows = {{"SCRIPT ID", "VERSION", "FILE", "PATH"}};
  for (const auto& script : scripts) rows.push_back(rowOf(script));

  std::array<std::size_t, 4> widths{};
  for (const auto& row : rows) {
    for (std::size_t i = 0; i < row.size(); ++i) widths[i] = std::max(widths[i], width(row[i]));
  }
  std::string table;
  for (const auto& row : rows) {
    for (std::size_t i = 0; i + 1 < row.size(); ++i) {
      table += row[i] + std::string(widths[i] - width(row[i]) + 2, ' ');
    }
    table += row.back() + "\n";
  }
  return table;
}

std::string listJson(const std::vector<ListedScript>& scripts) {
  auto array = nlohmann::ordered_json::array();
  for (const auto& script : scripts) {
    nlohmann::ordered_json object;
    object["script_id"] = script.scriptID;
    object["version"] = nullptr;
    if (script.version) object["version"] = *script.version;
    object["script_path"] = nullptr;
    if (script.scriptPath) object["script_path"] = *script.scriptPath;
    object["present"] = script.fileExists;
    array.push_back(std::move(object));
  }
  const auto replaced = nlohmann::ordered_json::error_handler_t::replace;
  return printableJSON(array.dump(-1, ' ', false, replaced)) + "\n";
}

int list(const CommandLine& line, const Settings& settings) {
  if (const auto error = configureAgentModules(settings, {})) {
    writeErrorLine("varn-scripts: " + error->line);
    return kExitUsage;
  }
  PathGuard guard(MissingDirectory::left);
  if (!guard.allows(pathsOfStore())) {
    writeReason(guard.refusal(), settings);
    return kExitNotRun;
  }
  std::optional<std::string> error;
  const auto scripts = listedScripts(error);
  if (error) {
    writeReason(*error, settings);
    return kExitNotRun;
  }
  const bool written = writeOutput(line.json ? listJson(scripts) : listTable(scripts));
  return written ? kExitSuccess : kExitNotRun;
}

}  // namespace VarnScripts
