#include "List.h"

#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <exception>
#include <map>
#include <nlohmann/json.hpp>
#include <system_error>
#include <type_traits>
#include <utility>

#include "AgentModules.h"
#include "AgentUtils.h"
#include "ExitStatus.h"
#include "Inquiry.h"
#include "LocalCopy.h"
#include "PathGuard.h"
#include "PrintableText.h"
#include "Reason.h"
#include "ScriptRepositoryRecords.h"
#include "SignalForwarding.h"
#include "StandardStreams.h"
#include "TrustedKeys.h"
#include "VarnScriptRepository/ScriptRepositoryLocalMeta.h"

namespace VarnScripts {
namespace {

using VarnScriptRepository::ScriptLocalData;
using VarnScriptRepository::ScriptRepositoryConstants;
using VarnScriptRepository::ScriptRepositoryMeta;

using nlohmann::ordered_json;

using Row = std::vector<std::string>;

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
    if (cause) error = unreadableStore(cause.message());
    return {};
  }
  try {
    AgentUtils::RootAccessKeyValueStorage storage(
        path, ScriptRepositoryConstants::TableNames::scriptToMeta);
    return read(storage);
  } catch (const std::exception& failure) {
    error = unreadableStore(failure.what());
    return {};
  }
}

// The rows under their headings, each column as wide as what is in it.
std::string tableOf(std::vector<Row> rows, const Row& headings) {
  if (rows.empty()) return "";
  rows.insert(rows.begin(), headings);
  std::vector<std::size_t> widths(headings.size());
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

ordered_json orNull(const std::optional<std::string>& text) {
  return text ? ordered_json(*text) : ordered_json();
}

std::string oneLine(const ordered_json& json) {
  return printableJSON(json.dump(-1, ' ', false, ordered_json::error_handler_t::replace)) + "\n";
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

std::string unreadableStore(const std::string& cause) {
  return "The store " + ScriptRepositoryConstants::FilePath::scriptRepository() +
         " can't be read: " + cause;
}

std::string listTable(const std::vector<ListedScript>& scripts) {
  std::vector<Row> rows;
  rows.reserve(scripts.size());
  for (const auto& script : scripts) rows.push_back(rowOf(script));
  return tableOf(std::move(rows), {"SCRIPT ID", "VERSION", "FILE", "PATH"});
}

std::string listJson(const std::vector<ListedScript>& scripts) {
  auto array = ordered_json::array();
  for (const auto& script : scripts) {
    array.push_back({{"script_id", script.scriptID},
                     {"version", orNull(script.version)},
                     {"script_path", orNull(script.scriptPath)},
                     {"present", script.fileExists}});
  }
  return oneLine(array);
}

std::string serverTable(const std::vector<ServerScript>& scripts) {
  std::vector<Row> rows;
  for (const auto& script : scripts) {
    std::string state(script.state);
    std::replace(state.begin(), state.end(), '_', ' ');
    rows.push_back({printable(script.scriptID), printable(script.version), state,
                    printable(script.platform.value_or("-")),
                    printable(script.name.value_or("-"))});
  }
  return tableOf(std::move(rows), {"SCRIPT ID", "VERSION", "HERE", "PLATFORM", "NAME"});
}

std::string serverJson(const std::vector<ServerScript>& scripts) {
  auto array = ordered_json::array();
  for (const auto& script : scripts) {
    array.push_back({{"script_id", script.scriptID},
                     {"name", orNull(script.name)},
                     {"version", script.version},
                     {"platform", orNull(script.platform)},
                     {"state", script.state},
                     {"local_version", orNull(script.localVersion)}});
  }
  return oneLine(array);
}

namespace {

int failed(std::string_view reason, const Settings& settings) {
  writeReason(reason, settings);
  return kExitNotRun;
}

// Says when the place of the store is not there at all: its name may be misspelt. Before the first
// request it is not there either, so it is no failure.
void remarkOnMissingDirectory(const Settings& settings) {
  const AgentUtils::AgentSettings& agent = settings.agent;
  // A data path that nobody gave lies below the base path.
  const bool isDefault =
      !agent.basePath.empty() && agent.dataPath == ownDataPath(agent.basePath, agent.customerID);
  const std::string& directory = isDefault ? agent.basePath : agent.dataPath;
  if (AgentUtils::FileUtils().isFileExists(directory)) return;
  writeRemark((isDefault ? "base_path " : "data_path ") + directory +
                  " does not exist; without it there is nothing to list",
              settings);
}

int listLocal(const CommandLine& line, const Settings& settings) {
  if (const auto error = configureAgentModules(settings, {})) {
    writeErrorLine("varn-scripts: " + error->line);
    return kExitUsage;
  }
  PathGuard guard(MissingDirectory::left);
  if (!guard.allows(pathsOfStore())) return failed(guard.refusal(), settings);
  std::optional<std::string> error;
  const auto scripts = listedScripts(error);
  if (error) return failed(*error, settings);
  if (scripts.empty()) remarkOnMissingDirectory(settings);
  const bool written = writeAnswer(line.json ? listJson(scripts) : listTable(scripts), settings);
  return written ? kExitSuccess : kExitNotRun;
}

std::string_view stateOf(const ScriptRepositoryMeta& entry, const ListedScript* record) {
  switch (localCopyOf(entry.scriptID, record != nullptr ? record->version : std::nullopt, entry)) {
    case LocalCopy::absent:
      return "absent";
    case LocalCopy::outdated:
      return "outdated";
    case LocalCopy::documentMissing:
    case LocalCopy::unlisted:
    case LocalCopy::unrecorded:
      return "incomplete";
    case LocalCopy::upToDate:
      break;
  }
  return record->fileExists ? "up_to_date" : "incomplete";
}

std::vector<ServerScript> serverScripts(const std::vector<ScriptRepositoryMeta>& entries,
                                        const std::vector<ListedScript>& records) {
  std::map<std::string_view, const ListedScript*> byID;
  for (const ListedScript& record : records) byID.emplace(record.scriptID, &record);
  std::vector<ServerScript> scripts;
  for (const ScriptRepositoryMeta& entry : entries) {
    const auto found = byID.find(entry.scriptID);
    const ListedScript* const record = found != byID.end() ? found->second : nullptr;
    scripts.push_back({entry.scriptID, entry.scriptName, entry.modifiedTime, entry.osPlatform,
                       record != nullptr ? record->version : std::nullopt, stateOf(entry, record)});
  }
  return scripts;
}

int listServer(const CommandLine& line, const Settings& settings) {
  // Before any other thread, and never destroyed: its thread runs until the process ends.
  auto& signals = *new SignalForwarding;
  Inquiry inquiry("", settings);
  if (const auto status = inquiry.begin(signals)) return *status;
  std::optional<Reason> refusal = inquiry.refusal({});
  std::optional<std::string> unreadable;
  std::optional<std::vector<ScriptRepositoryMeta>> entries;
  std::vector<ListedScript> records;
  if (!refusal) entries = inquiry.fetchServerList();
  if (entries) records = inquiry.records(unreadable);
  inquiry.finish();
  if (refusal) return failed(refusal->sentence, settings);
  if (!entries) return failed(inquiry.whyNoList().sentence, settings);
  if (unreadable) return failed(*unreadable, settings);
  if (const auto& signers = inquiry.listSigners()) {
    writeRemark("the list is " + whoSigned(*signers), settings);
  }
  const auto scripts = serverScripts(*entries, records);
  const bool written =
      writeAnswer(line.json ? serverJson(scripts) : serverTable(scripts), settings);
  return written ? kExitSuccess : kExitNotRun;
}

}  // namespace

int list(const CommandLine& line, const Settings& settings) {
  return line.listServer ? listServer(line, settings) : listLocal(line, settings);
}

}  // namespace VarnScripts
