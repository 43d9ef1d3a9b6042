#include "Inquiry.h"

#include <cstdint>
#include <exception>
#include <filesystem>
#include <stdexcept>
#include <system_error>
#include <utility>

#include "AgentModules.h"
#include "AgentUtils.h"
#include "Directories.h"
#include "ExitStatus.h"
#include "RecordOwner.h"
#include "StandardStreams.h"
#include "StoreCopy.h"
#include "VarnScriptRepository/ScriptRepositoryLocalMeta.h"

namespace VarnScripts {

using VarnScriptRepository::RequestStep;
using VarnScriptRepository::ScriptRepositoryConstants;
using VarnScriptRepository::ScriptRepositoryMeta;
using VarnScriptRepository::ScriptsRepoMetaRoot;

Inquiry::Inquiry(const std::string& scriptID, const Settings& settings)
    : settings_(settings),
      progress_(Progress::isPossible() && !settings.log.quiet),
      reason_(scriptID, settings) {}

std::optional<int> Inquiry::begin(SignalForwarding& signals) {
  ModuleObservers observers;
  observers.onFailure = [this](const std::string& subject, const std::string& cause) {
    reason_.moduleFailed(subject, cause);
  };
  observers.onRecord = [this](const AgentLog::Record&) { progress_.makeWay(); };
  observers.onDownloadProgress = [this](std::uint64_t received, std::uint64_t total) {
    progress_.showDownload(received, total);
  };
  observers.onListJudged = [this](const AgentUtils::ListJudgement& list) {
    reason_.listJudged(list);
    if (list.refusal.empty()) list_ = list;
  };
  observers.onlyLooks = true;
  guard_.watch(observers);
  if (const auto error = configureAgentModules(settings_, observers)) {
    progress_.finish();
    writeErrorLine("varn-scripts: " + error->line);
    return kExitUsage;
  }
  prepareDownloads();
  std::error_code error;
  signals.guard([&] {
    temporary_.emplace(error);
    return [path = temporary_->path()] { removeDirectory(path); };
  });
  if (!error) return std::nullopt;
  progress_.finish();
  writeReason("No temporary directory can be made: " + error.message(), settings_);
  return kExitNotRun;
}

std::optional<Reason> Inquiry::refusal(const std::vector<std::string>& scriptIDs) {
  std::vector<UsedPath> paths = pathsOfRequests();
  for (const std::string& scriptID : scriptIDs) {
    for (UsedPath& path : pathsOfScript(scriptID)) paths.push_back(std::move(path));
  }
  paths.push_back({temporaryPath("store"), PathEnd::ownFile});
  if (!guard_.allows(paths)) return Reason{ReasonCode::unsafeDirectory, guard_.refusal()};
  try {
    if (auto complaint = complaintAboutRecord(copyOfStore(), settings_)) {
      return Reason{ReasonCode::foreignRecord, std::move(*complaint)};
    }
  } catch (const std::exception&) {
    // A request takes a store that can't be read for none at all.
  }
  return std::nullopt;
}

const std::string& Inquiry::copyOfStore() {
  if (copyOfStore_) return *copyOfStore_;
  const std::string& store = ScriptRepositoryConstants::FilePath::scriptRepository();
  std::error_code error;
  const bool isThere = std::filesystem::exists(store, error);
  if (error) throw std::runtime_error(error.message());
  const std::string copy = isThere ? temporaryPath("store") : "";
  if (isThere) copyStore(store, copy);
  return copyOfStore_.emplace(copy);
}

std::vector<ListedScript> Inquiry::records(std::optional<std::string>& error) {
  try {
    const std::string& store = copyOfStore();
    if (!store.empty()) return listedScriptsIn(store);
  } catch (const std::exception& failure) {
    error = unreadableStore(failure.what());
  }
  return {};
}

std::optional<std::vector<ScriptRepositoryMeta>> Inquiry::fetchServerList() {
  const std::string path = VarnScriptRepository::serverDirectory(settings_.agent.customerID) + "/" +
                           VarnScriptRepository::kListName;
  const std::string copy = temporaryPath("list.xml");
  if (!AgentUtils::HttpHandlermac::initWithServerInfo().downloadFileWithRootPermission(path,
                                                                                       copy)) {
    reason_.stepFailed({RequestStep::listDownload, path, {}});
    return std::nullopt;
  }
  auto root = decodedFile<ScriptsRepoMetaRoot>(copy, RequestStep::listRead, RequestStep::listDecode,
                                               reason_);
  if (!root) return std::nullopt;
  if (!root->scriptsMeta.empty()) return std::move(root->scriptsMeta.front().scriptRepo);
  reason_.stepFailed({RequestStep::listDecode, copy, {}});
  return std::nullopt;
}

Reason Inquiry::whyNoList() const {
  // A file:// server's files are looked at as they are read.
  if (!guard_.refusal().empty()) return {ReasonCode::unsafeDirectory, guard_.refusal()};
  return reason_.reason();
}

}  // namespace VarnScripts
