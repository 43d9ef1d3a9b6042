#include "ScriptRepositoryMetaProcessor.h"

#include <system_error>
#include <utility>

#include "AgentUtils.h"
#include "Directories.h"
#include "MarkupParser.h"
#include "support/Download.h"
#include "support/Files.h"
#include "support/Guard.h"
#include "support/RunEvents.h"
#include "support/Settings.h"
#include "support/Text.h"
#include "support/UnitLog.h"

namespace VarnScriptRepository {
namespace {

constexpr const char* kUnit = "ScriptRepositoryMetaProcessor";

/// The entries of the document in `bytes`; nothing when it does not decode or has no
/// `scripts-meta`.
std::optional<std::vector<ScriptRepositoryMeta>> decodeEntries(std::string bytes) {
  auto roots = MarkupParser::XML::parse(std::move(bytes), std::nullopt, false)
                   .toStruct<ScriptsRepoMetaRoot>();
  if (!roots || roots->empty() || roots->front().scriptsMeta.empty()) return std::nullopt;
  return std::move(roots->front().scriptsMeta.front().scriptRepo);
}

}  // namespace

// ---- Lifetime --------------------------------------------------------------------------------

ScriptRepositoryMetaProcessor& ScriptRepositoryMetaProcessor::shared() {
  // Never destroyed: requests on other threads may outlive static destruction.
  static auto& instance = *new ScriptRepositoryMetaProcessor;
  return instance;
}

ScriptRepositoryMetaProcessor::ScriptRepositoryMetaProcessor()
    : scriptsRepoMetaFilePath_(dataDirectoryIn(customerDirectory(globalSettings().vyagentBasePath,
                                                                 globalSettings().vyCustomerID)) +
                               "/" + kListName),
      scriptRepoMetaDownloadURL_(serverDirectory(globalSettings().vyCustomerID) + "/" + kListName),
      basePath_(globalSettings().vyagentBasePath),
      customerID_(globalSettings().vyCustomerID) {}

ScriptRepositoryMetaProcessor::~ScriptRepositoryMetaProcessor() = default;

// ---- State -----------------------------------------------------------------------------------

const std::optional<std::vector<ScriptRepositoryMeta>>&
ScriptRepositoryMetaProcessor::scriptRepoMetaData() const {
  return scriptRepoMetaData_;
}

void ScriptRepositoryMetaProcessor::setScriptRepoMetaData(
    std::optional<std::vector<ScriptRepositoryMeta>> entries) {
  scriptRepoMetaData_ = std::move(entries);
}

std::optional<std::vector<ScriptRepositoryMeta>>&
ScriptRepositoryMetaProcessor::modifyScriptRepoMetaData() {
  return scriptRepoMetaData_;
}

const std::optional<ScriptRepoAllMetaData>& ScriptRepositoryMetaProcessor::scriptRepoAllMetaData()
    const {
  return scriptRepoAllMetaData_;
}

void ScriptRepositoryMetaProcessor::setScriptRepoAllMetaData(
    std::optional<ScriptRepoAllMetaData> container) {
  scriptRepoAllMetaData_ = std::move(container);
}

std::optional<ScriptRepoAllMetaData>& ScriptRepositoryMetaProcessor::modifyScriptRepoAllMetaData() {
  return scriptRepoAllMetaData_;
}

// ---- Look-ups --------------------------------------------------------------------------------

std::optional<std::string> ScriptRepositoryMetaProcessor::getModifiedTime(
    const std::string& forScriptID) const {
  auto entry = getScriptRepoForID(forScriptID);
  if (!entry) return std::nullopt;
  return std::move(entry->modifiedTime);
}

std::optional<ScriptRepositoryMeta> ScriptRepositoryMetaProcessor::getServerScriptRepoMeta(
    const std::string& forScriptID) const {
  return getScriptRepoForID(forScriptID);
}

std::optional<ScriptRepositoryMeta> ScriptRepositoryMetaProcessor::getScriptRepoForID(
    const std::string& scriptID) const {
  return guarded(std::optional<ScriptRepositoryMeta>{},
                 [&]() -> std::optional<ScriptRepositoryMeta> {
                   const auto& entries = scriptRepoMetaData();
                   if (!entries) return std::nullopt;
                   for (const ScriptRepositoryMeta& entry : *entries) {
                     if (text::equal(entry.scriptID, scriptID)) return entry;
                   }
                   return std::nullopt;
                 });
}

std::optional<std::vector<std::string>> ScriptRepositoryMetaProcessor::getAllAvailableScriptIDs()
    const {
  using IDs = std::optional<std::vector<std::string>>;
  return guarded(IDs{}, [this]() -> IDs {
    const auto& entries = scriptRepoMetaData();
    if (!entries) return std::nullopt;
    std::vector<std::string> ids;
    ids.reserve(entries->size());
    for (const ScriptRepositoryMeta& entry : *entries) ids.push_back(entry.scriptID);
    return ids;
  });
}

// ---- Download and load -----------------------------------------------------------------------

void ScriptRepositoryMetaProcessor::loadScriptRepoMetaData() {
  const UnitLog log{kUnit, "loadScriptRepoMetaData()"};
  guarded([&] {
    std::error_code error;
    std::string bytes = files::readWhole(scriptsRepoMetaFilePath_, error);
    if (error) {
      const std::string cause = files::description(error);
      log.info("Error while getting data " + cause);
      tellFailure(RequestStep::listRead, scriptsRepoMetaFilePath_, cause);
      return;
    }
    // Only the list is filled. Removal reads `scriptRepoAllMetaData`, which stays absent here.
    setScriptRepoMetaData(guarded(std::optional<std::vector<ScriptRepositoryMeta>>{},
                                  [&] { return decodeEntries(std::move(bytes)); }));
    if (!scriptRepoMetaData()) tellFailure(RequestStep::listDecode, scriptsRepoMetaFilePath_);
  });
}

bool ScriptRepositoryMetaProcessor::downloadScriptRepoMeta() {
  const UnitLog log{kUnit, "downloadScriptRepoMeta()"};
  const bool downloaded = download(scriptRepoMetaDownloadURL_, scriptsRepoMetaFilePath_);
  guarded([&] {
    log.info(downloaded ? "Script-Meta Download Success" : "Script-Meta Download Failed");
  });
  if (!downloaded) tellFailure(RequestStep::listDownload, scriptRepoMetaDownloadURL_);
  return downloaded;
}

}  // namespace VarnScriptRepository
