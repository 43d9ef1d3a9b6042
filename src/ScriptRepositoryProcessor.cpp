// A request, from top to bottom: construction, the flow and its two paths, the files of one script,
// execution, removal.

#include "VarnScriptRepository/ScriptRepositoryProcessor.h"

#include <algorithm>
#include <set>
#include <string_view>
#include <system_error>
#include <utility>

#include "AgentUtils.h"
#include "Directories.h"
#include "DocumentTest.h"
#include "LoadedList.h"
#include "MarkupParser.h"
#include "ObjectRuntimeRegistration.h"
#include "ScriptRepositoryLocalMetaProcessor.h"
#include "ScriptRepositoryProcessorRequest.h"
#include "ScriptRepositoryUtil.h"
#include "ScriptRules.h"
#include "support/Download.h"
#include "support/Files.h"
#include "support/Guard.h"
#include "support/RunEvents.h"
#include "support/Text.h"
#include "support/UnitLog.h"

namespace VarnScriptRepository {
namespace {

constexpr const char* kUnit = "ScriptRepositoryProcessor";

/// Every script is asked to end after this many seconds.
constexpr std::int64_t kTimeLimit = 600;

}  // namespace

// ---- Construction ----------------------------------------------------------------------------

ScriptRequest::ScriptRequest(std::string id,
                             const std::optional<std::vector<std::string>>* overrideList)
    : scriptID(std::move(id)),
      overrideExpectedReturnCode(overrideList),
      scriptDataFilePath(dataDocumentPath(scriptID)) {
  createMissingDirectories();
}

ScriptRepositoryProcessor::ScriptRepositoryProcessor(const std::string& scriptID)
    : request(guarded(std::unique_ptr<ScriptRequest>{}, [&] {
        return std::make_unique<ScriptRequest>(scriptID, &overrideExpectedReturnCode);
      })) {}

ScriptRepositoryProcessor::~ScriptRepositoryProcessor() = default;

// ---- Flow ------------------------------------------------------------------------------------

ProcessingResult ScriptRepositoryProcessor::processScript() {
  // Without a request there was no memory to make one.
  if (!request) return {};
  return guarded(ProcessingResult{}, [this] { return request->processScript(); });
}

namespace {

/// The line that ends a request. The output stands between its quotation marks as it is, not
/// escaped.
std::string statusLine(std::string_view beginning, const ProcessingResult& result) {
  const auto& [accepted, output] = result;
  const char* const verdict = accepted ? (*accepted ? "Optional(true)" : "Optional(false)") : "nil";
  if (!output) return text::joined({beginning, " status (", verdict, ", nil)"});
  return text::joined({beginning, " status (", verdict, ", Optional(\"", *output, "\"))"});
}

}  // namespace

ProcessingResult ScriptRequest::processScript() {
  const UnitLog log{kUnit, "processScript()"};
  // Its own from here on: another list may take the place of the one that it is of.
  const auto server = entryInList(scriptID);
  if (!server) {
    // Log searches match this line exactly; its spelling stays.
    log.info("Processing Script ID " + scriptID +
             " not able to get server script repo meta to procees");
    return {};
  }

  const auto localVersion = ScriptRepositoryLocalMetaProcessor::shared().getScriptVersion(scriptID);
  const std::string versions = "Processing Script ID " + scriptID + " Server Version " +
                               server->modifiedTime + " Local Version " +
                               localVersion.value_or("--");
  // The script file itself is not looked at here: the checksum test does that.
  const bool upToDate = isSameVersion(localVersion, server->modifiedTime) &&
                        files::exists(scriptDataFilePath) &&
                        isDocumentOf(*server, scriptDataFilePath);
  // A path on which memory runs out has failed, and its status line comes as ever.
  auto result = guarded(ProcessingResult{}, [&] {
    if (upToDate) {
      log.info(versions + " Proceeding without Downloading Script");
      return executeScriptWithoutDownload(*server);
    }
    log.info(versions + " Downloading and Executing Script");
    return downloadAndExecuteScript(*server);
  });
  // A script that ran has run, whether or not there is memory for this line.
  guarded([&] { log.info(statusLine(versions, result)); });
  return result;
}

// ---- Two paths -------------------------------------------------------------------------------

ProcessingResult ScriptRequest::downloadAndExecuteScript(
    const ScriptRepositoryMeta& serverScriptRepoMeta) {
  const UnitLog log{kUnit, "downloadAndExecuteScript(serverScriptRepoMeta:)"};
  const auto& mapping = serverScriptRepoMeta.scriptPathMapping;
  if (!mapping || mapping->empty()) {
    log.info("Not able to get download URL of script data");
    tellFailure(RequestStep::documentLookUp, scriptID);
    return {};
  }
  if (!download(mapping->front().filepath, scriptDataFilePath)) {
    log.info("Download failure of script data");
    tellFailure(RequestStep::documentDownload, mapping->front().filepath);
    return {};
  }
  const auto item = getScriptItemData();
  if (!item) {
    log.info("Unable to get script items data");
    return {};
  }
  const auto file = item->getFileData(serverScriptRepoMeta.fileID);
  if (!file) {
    log.info("Unable to get file data from script items data");
    tellFailure(RequestStep::fileLookUp, serverScriptRepoMeta.fileID);
    return {};
  }
  if (!downloadScript(file->fileSystemLocation, file->fileName)) {
    log.info("Download failure of script");
    return {};
  }
  if (!isValidChecksumForFile(*file, item->checksumValues)) {
    log.info("Not able to compute checksum processing");
    return {};
  }
  // Recorded before the script runs, and kept also when nothing can be run: what is on disk is this
  // version, and it is not fetched again.
  ScriptRepositoryLocalMetaProcessor::shared().setScriptVersion(scriptID,
                                                                serverScriptRepoMeta.modifiedTime);
  const auto repo = item->getScriptRepo(scriptID);
  if (!repo) {
    // Log searches match this line exactly; its wording stays.
    log.info("Not able get script repo data");
    tellFailure(RequestStep::definitionLookUp, scriptID);
    return {};
  }
  return executeScript(*repo);
}

ProcessingResult ScriptRequest::executeScriptWithoutDownload(
    const ScriptRepositoryMeta& serverScriptRepoMeta) {
  const UnitLog log{kUnit, "executeScriptWithoutDownload(serverScriptRepoMeta:)"};
  const auto item = getScriptItemData();
  if (!item) return {};
  const auto file = item->getFileData(serverScriptRepoMeta.fileID);
  if (!file) {
    log.info("Unable to get script data");
    tellFailure(RequestStep::fileLookUp, serverScriptRepoMeta.fileID);
    return {};
  }
  scriptFilePath = VarnScriptRepository::scriptFilePath(file->fileName);
  if (!isValidChecksumForFile(*file, item->checksumValues)) {
    log.info("Not able to compute checksum processing, redownloading script");
    if (!downloadScript(file->fileSystemLocation, file->fileName)) return {};
    if (!isValidChecksumForFile(*file, item->checksumValues)) {
      log.info("Not able to compute checksum processing after redownloading");
      return {};
    }
  }
  const auto repo = item->getScriptRepo(scriptID);
  if (!repo) {
    log.info("Not able to get script data");
    tellFailure(RequestStep::definitionLookUp, scriptID);
    return {};
  }
  return executeScript(*repo);
}

// ---- Files of one script ---------------------------------------------------------------------

std::optional<ScriptItem> ScriptRequest::getScriptItemData() const {
  const UnitLog log{kUnit, "getScriptItemData()"};
  std::error_code error;
  std::string bytes = files::readWhole(scriptDataFilePath, error);
  if (error) {
    const std::string cause = files::description(error);
    log.info("Error while reading file " + scriptDataFilePath + " " + cause);
    tellFailure(RequestStep::documentRead, scriptDataFilePath, cause);
    return std::nullopt;
  }
  auto roots = guarded(std::optional<std::vector<ScriptRoot>>{}, [&] {
    return MarkupParser::XML::parse(std::move(bytes), std::nullopt, false).toStruct<ScriptRoot>();
  });
  if (!roots || roots->empty()) {
    log.info("Unable to get file data");
    tellFailure(RequestStep::documentDecode, scriptDataFilePath);
    return std::nullopt;
  }
  auto& items = roots->front().script;
  if (items.empty()) {
    // The same words as above, on purpose: the document holds nothing to work with.
    log.info("Unable to get file data");
    tellFailure(RequestStep::documentDecode, scriptDataFilePath);
    return std::nullopt;
  }
  return std::move(items.front());
}

bool ScriptRequest::downloadScript(const std::string& fileSystemLocation,
                                   const std::string& fileName) {
  const std::string localPath = VarnScriptRepository::scriptFilePath(fileName);
  // Set whatever becomes of the download: a partial or stale file fails the checksum test.
  scriptFilePath = localPath;
  const std::string location = serverPath(fileSystemLocation);
  if (!download(location, localPath)) {
    tellFailure(RequestStep::fileDownload, location);
    return false;
  }
  ScriptRepositoryLocalMetaProcessor::shared().setScriptPath(scriptID, localPath);
  return true;
}

bool ScriptRequest::isValidChecksumForFile(
    const VyFile& withFileData, const std::vector<ChecksumValue>& allChecksumData) const {
  const UnitLog log{kUnit, "isValidChecksumForFile(withFileData:allChecksumData:)"};
  if (withFileData.csToVyFiles.empty()) {
    log.info("Unable to get checksum ID");
    tellFailure(RequestStep::checksumLookUp, scriptFilePath.value_or(""));
    return false;
  }
  const ChecksumValue* const checksum = checksumOf(withFileData, allChecksumData);
  if (checksum == nullptr) {
    log.info("Unable to get checksum data");
    tellFailure(RequestStep::checksumLookUp, scriptFilePath.value_or(""));
    return false;
  }
  if (!scriptFilePath) return false;
  const bool matches = guarded(false, [&] {
    return AgentUtils::VyCryptography::validateCheckSumForFile(
        *scriptFilePath, checksum->checksumType, checksum->checksumVal);
  });
  if (!matches) {
    log.info("Checksum mismatch ID " + checksum->checksumID + " Server Checksum " +
             checksum->checksumVal + " Server Checksum Type " + checksum->checksumType);
    tellFailure(RequestStep::checksumTest, *scriptFilePath);
  }
  return matches;
}

// ---- Execution -------------------------------------------------------------------------------

ProcessingResult ScriptRequest::executeScript(const ScriptRepo& scriptData) const {
  const UnitLog log{kUnit, "executeScript(scriptData:)"};
  if (!scriptFilePath) {
    log.info("Unable to get script file path");
    return {};
  }
  const auto launchPath = getLaunchPath(scriptData.scriptName);
  if (!launchPath) {
    log.info("Unable to get launch path for " + scriptData.scriptName);
    tellFailure(RequestStep::interpreterLookUp, scriptData.scriptName);
    return {};
  }
  const std::vector<std::string> arguments = splitWithQuotes(scriptData.scriptArgs);
  const std::vector<std::string> expectedCodes = codesIn(scriptData.exitCode);
  log.info("Script Name: " + scriptData.scriptName + " Args: " + scriptData.scriptArgs +
           " Expected Exit Code: " + scriptData.exitCode);
  auto [status, output] =
      shell(*launchPath, *scriptFilePath, arguments, scriptRepoScriptsDirectory(), kTimeLimit);
  if (!status || !output) {
    log.info("Script Output: No Output Exit Code: nil");
    return {};
  }
  const std::string code = std::to_string(*status);
  // Without memory for the line, the verdict on a script that has run still stands.
  guarded([&, &written = *output] {
    log.info(text::joined({"Script Output: ", written, " Exit Code: ", code}));
  });

  // A list set by the caller decides alone, even an empty one.
  const auto* const overrideList = overrideExpectedReturnCode;
  const bool overridden = overrideList != nullptr && overrideList->has_value();
  const auto& codes = overridden ? **overrideList : expectedCodes;
  if (std::ranges::find(codes, code) != codes.end()) return {true, std::move(output)};
  guarded([&] {
    // Log searches match these lines exactly; the spelling of the first one stays.
    log.info((overridden ? "Script Return Code did not match expected overriden exit code: "
                         : "Script Return Code did not match expected exit code: ") +
             text::listText(codes));
  });
  return {false, std::move(output)};
}

// ---- Removal ---------------------------------------------------------------------------------

namespace {

/// The local IDs that the server does not list, each once, in the order of the store.
std::vector<std::string> droppedIDs(const std::vector<std::string>& localIDs,
                                    const std::vector<std::string>& serverIDs) {
  std::set<std::string> kept;
  for (const std::string& id : serverIDs) kept.insert(text::equalityKey(id));
  std::vector<std::string> dropped;
  for (const std::string& id : localIDs) {
    // An ID that was taken counts as kept from then on, so that none is taken twice.
    if (kept.insert(text::equalityKey(id)).second) dropped.push_back(id);
  }
  return dropped;
}

/// The lines that are logged carry the caller's number: it tells which file was to go.
void removeWithLog(const std::string& path, const UnitLog& log, int line = __builtin_LINE()) {
  if (!files::exists(path)) return;
  log.info("Removing File " + path, line);
  std::error_code error;
  files::removeItem(path, error);
  if (error) log.info("Removing File Error " + files::description(error), line);
}

}  // namespace

void ScriptRepositoryProcessor::removeServerRemovedScripts() {
  const UnitLog log{kUnit, "removeServerRemovedScripts()"};
  guarded([&] {
    const auto serverIDs = listedIDs();
    if (!serverIDs) {
      // Nothing in the library sets the container, so removal is put off until the host does.
      log.info(
          "Removing Local Scripts, Script Repo Meta Data Not available, will be processed later");
      return;
    }
    const std::vector<std::string> dropped =
        droppedIDs(ScriptRepositoryLocalMetaProcessor::shared().getAllScriptIDs(), *serverIDs);
    if (dropped.empty()) {
      log.info("No Scripts to remove from Script Repo");
      return;
    }
    log.info("Script Repository Processing: Removing " + text::listText(dropped) + " Scripts");
    for (const std::string& id : dropped) {
      // What happens to one script stops none of the others.
      guarded([&] { ScriptRequest(id).removeScriptData(); });
    }
  });
}

void ScriptRequest::removeScriptData() const {
  const UnitLog log{kUnit, "removeScriptData()"};
  auto& localMeta = ScriptRepositoryLocalMetaProcessor::shared();
  guarded([&] {
    if (const auto path = localMeta.getScriptPath(scriptID)) removeWithLog(*path, log);
  });
  guarded([&] { removeWithLog(scriptDataFilePath, log); });
  // The row goes even when a file could not be removed; that file is not tried again.
  localMeta.removeScriptData(scriptID);
}

namespace {

// Stands in this file, so that every program has it that uses the class, also one that links the
// units from an archive.
[[gnu::constructor]] void registerRemoval() {
  registerWithObjectRuntime(ScriptRepositoryProcessor::removeServerRemovedScripts);
}

}  // namespace

}  // namespace VarnScriptRepository
