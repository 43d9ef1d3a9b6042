#include "RequestPlan.h"

#include <exception>
#include <stdexcept>
#include <system_error>
#include <type_traits>
#include <utility>

#include "AgentUtils.h"
#include "Calls.h"
#include "ChecksumTest.h"
#include "Directories.h"
#include "DocumentMark.h"
#include "DownloadTarget.h"
#include "DownloadTrust.h"
#include "RequestFiles.h"
#include "ScriptRepositoryMetaProcessor.h"
#include "ScriptRules.h"
#include "ScriptTurn.h"
#include "VarnScriptRepository/ScriptRepositoryLocalMeta.h"
#include "Writability.h"
#include "signing/TrustStateFile.h"

namespace VarnScripts {
namespace {

using AgentUtils::FileUtils;
using AgentUtils::HttpHandlermac;
using VarnScriptRepository::ChecksumValue;
using VarnScriptRepository::RequestStep;
using VarnScriptRepository::ScriptItem;
using VarnScriptRepository::ScriptLocalData;
using VarnScriptRepository::ScriptRepo;
using VarnScriptRepository::ScriptRepositoryConstants;
using VarnScriptRepository::ScriptRepositoryMetaProcessor;
using VarnScriptRepository::ScriptRoot;
using VarnScriptRepository::VyFile;

// Each step says true when the next one is to follow.
class PlanMaker {
 public:
  PlanMaker(const std::string& scriptID, Inquiry& inquiry)
      : scriptID_(scriptID), inquiry_(inquiry), mark_(scriptID) {
    plan_.scriptID = scriptID;
  }

  RequestPlan make() {
    if (mayBegin() && findEntry()) {
      findLocalVersion();
      decideStep();
      ScriptItem item;
      if (takeDocument(item)) followDocument(item);
    }
    // As in a request: it is the reason, whatever failed because of it.
    const std::string& refusal = inquiry_.guard().refusal();
    if (!refusal.empty()) plan_.problem = {ReasonCode::unsafeDirectory, refusal};
    return std::move(plan_);
  }

 private:
  bool stop(Reason reason) {
    plan_.problem = std::move(reason);
    return false;
  }

  bool stop() { return stop(inquiry_.reason().reason()); }

  bool stop(RequestStep step, const std::string& subject, const std::string& cause = "") {
    inquiry_.reason().stepFailed({step, subject, cause});
    return stop();
  }

  [[nodiscard]] bool upToDate() const { return plan_.step == RequestPlan::Step::upToDate; }

  // What the host of a request does before the library's first step.
  bool mayBegin() {
    if (auto refusal = inquiry_.refusal({scriptID_})) return stop(std::move(*refusal));
    const std::string lock = VarnScriptRepository::requestLockPath();
    if (const auto error = whyNotOpened(lock)) return stop(lockNotTaken(lock, error));
    if (const auto holder = VarnScriptRepository::turnHolder(lock, scriptID_))
      plan_.waitsFor = inUse(scriptID_, *holder);
    if (!mark_.isThere()) return true;
    std::error_code error = whyNotRemoved(VarnScriptRepository::dataDocumentPath(scriptID_));
    if (!error) error = whyNotRemoved(mark_.path());
    return error ? stop(documentStays(scriptID_, mark_.path(), error)) : true;
  }

  // Why this computer would not take a download to `path`; empty when it would.
  [[nodiscard]] std::string whyNotTaken(const std::string& path) const {
    try {
      AgentUtils::requireTarget(path, inquiry_.settings().agent.basePath);
      AgentUtils::requireOutsideTrustState(path, AgentUtils::settings());
      return "";
    } catch (const AgentUtils::DownloadFailure& failure) {
      return failure.what();
    }
  }

  // Why this computer could not remember that it has accepted the list; empty when it could.
  [[nodiscard]] static std::string whyNotRemembered() {
    const AgentUtils::AgentSettings& agent = AgentUtils::settings();
    if (agent.trustedKeys.empty()) return "";
    const std::string state = AgentUtils::signing::trustStatePath(agent.dataPath);
    const std::string lock = AgentUtils::signing::lockOfTrustState(state);
    const auto error = whyNotOpened(lock);
    if (!error) return "";
    return "the record of accepted lists " + state + " can't be locked: " + lock + ": " +
           error.message();
  }

  bool findEntry() {
    auto entries = inquiry_.fetchServerList();
    if (!entries) return stop(inquiry_.whyNoList());
    plan_.list = inquiry_.listSigners();
    const std::string name = std::string("/") + VarnScriptRepository::kListName;
    const std::string list =
        VarnScriptRepository::serverDirectory(inquiry_.settings().agent.customerID) + name;
    const std::string why = whyNotTaken(VarnScriptRepository::scriptRepoDataDirectory() + name);
    if (!why.empty()) return stop(RequestStep::listDownload, list, why);
    if (const std::string unremembered = whyNotRemembered(); !unremembered.empty()) {
      inquiry_.reason().listJudged({unremembered, {}, 0, {}});
      inquiry_.reason().moduleFailed(list, unremembered);
      return stop(RequestStep::listDownload, list);
    }
    auto& metadata = ScriptRepositoryMetaProcessor::shared();
    metadata.setScriptRepoMetaData(std::move(*entries));
    plan_.entry = metadata.getScriptRepoForID(scriptID_);
    return plan_.entry ? true : stop(RequestStep::listLookUp, scriptID_);
  }

  void findLocalVersion() {
    try {
      const std::string& copy = inquiry_.copyOfStore();
      if (copy.empty()) return;
      AgentUtils::RootAccessKeyValueStorage storage(
          copy, ScriptRepositoryConstants::TableNames::scriptToMeta);
      const auto record = storage.fetchValue(scriptID_, std::type_identity<ScriptLocalData>{});
      if (record) plan_.localVersion = record->version();
    } catch (const std::exception&) {
      // A request takes a store or a row that can't be read for none at all.
    }
  }

  void decideStep() {
    const LocalCopy copy = localCopyOf(scriptID_, plan_.localVersion, *plan_.entry);
    plan_.step =
        copy == LocalCopy::upToDate ? RequestPlan::Step::upToDate : RequestPlan::Step::download;
    plan_.reason = whyFetched(copy);
  }

  bool takeDocument(ScriptItem& item) {
    std::string path = VarnScriptRepository::dataDocumentPath(scriptID_);
    if (!upToDate() && !fetchDocument(path)) return false;
    auto root = decodedFile<ScriptRoot>(path, RequestStep::documentRead,
                                        RequestStep::documentDecode, inquiry_.reason());
    if (!root) return stop();
    if (root->script.empty()) return stop(RequestStep::documentDecode, path);
    item = std::move(root->script.front());
    return true;
  }

  // Fetches the data document, whose place would be `path`, and makes `path` where it is now.
  bool fetchDocument(std::string& path) {
    const auto& mapping = plan_.entry->scriptPathMapping;
    if (!mapping || mapping->empty()) return stop(RequestStep::documentLookUp, scriptID_);
    const std::string& filepath = mapping->front().filepath;
    plan_.downloads.push_back(filepath);
    const std::string copy = inquiry_.temporaryPath("document.xml");
    if (!HttpHandlermac::initWithServerInfo().downloadFileWithRootPermission(filepath, copy)) {
      return stop(RequestStep::documentDownload, filepath);
    }
    std::string why = whyNotTaken(path);
    if (why.empty()) {
      const auto error = whyNoFileIn(posix::directoryOf(mark_.path()));
      if (error) why = markNotMade(mark_) + ": " + error.message();
    }
    path = copy;
    return why.empty() ? true : stop(RequestStep::documentDownload, filepath, why);
  }

  void followDocument(const ScriptItem& item) {
    const auto file = item.getFileData(plan_.entry->fileID);
    if (!file) {
      stop(RequestStep::fileLookUp, plan_.entry->fileID);
      return;
    }
    plan_.scriptFile = VarnScriptRepository::scriptFilePath(file->fileName);
    if (!checkScriptFile(item, *file)) return;
    if (const auto repo = item.getScriptRepo(scriptID_)) {
      describeRun(*repo);
    } else {
      stop(RequestStep::definitionLookUp, scriptID_);
    }
  }

  // Whether the script's file is there as it must be, or would be fetched.
  bool checkScriptFile(const ScriptItem& item, const VyFile& file) {
    if (!inquiry_.guard().allows({{*plan_.scriptFile, PathEnd::ownFile}})) return false;
    const auto* const checksum = VarnScriptRepository::checksumOf(file, item.checksumValues);
    if (upToDate() && checksum != nullptr && isVerified(*checksum)) return true;
    const std::string location = VarnScriptRepository::serverPath(file.fileSystemLocation);
    plan_.downloads.push_back(location);
    const std::string why = whyNotTaken(*plan_.scriptFile);
    if (!why.empty()) return stop(RequestStep::fileDownload, location, why);
    return checksum != nullptr ? true : stop(RequestStep::checksumLookUp, *plan_.scriptFile);
  }

  // Whether the local file is what its checksum says. Whether the one that would be fetched in its
  // place is can't be known without fetching it.
  bool isVerified(const ChecksumValue& checksum) {
    const std::string& path = *plan_.scriptFile;
    const char* wrong = "";
    try {
      wrong = AgentUtils::complaintAboutFile(path, checksum.checksumType, checksum.checksumVal);
    } catch (const std::runtime_error&) {
      return false;  // refused by the guard, which is reported at the end
    }
    if (wrong == nullptr) return true;
    inquiry_.reason().stepFailed({RequestStep::checksumTest, path, wrong});
    plan_.reason = FileUtils().isFileExists(path) ? inquiry_.reason().reason().sentence
                                                  : "the script file is missing";
    plan_.reason += "; it would be fetched again";
    return false;
  }

  void describeRun(const ScriptRepo& repo) {
    plan_.arguments = VarnScriptRepository::splitWithQuotes(repo.scriptArgs);
    plan_.acceptedCodes = VarnScriptRepository::codesIn(repo.exitCode);
    plan_.interpreter = VarnScriptRepository::getLaunchPath(repo.scriptName);
    if (!plan_.interpreter) {
      stop(RequestStep::interpreterLookUp, repo.scriptName);
    } else if (!FileUtils().isFileExists(*plan_.interpreter)) {
      inquiry_.reason().interpreterMissing(*plan_.interpreter);
      stop();
    }
  }

  const std::string& scriptID_;
  Inquiry& inquiry_;
  const DocumentMark mark_;
  RequestPlan plan_;
};

}  // namespace

RequestPlan makePlan(const std::string& scriptID, Inquiry& inquiry) {
  return PlanMaker(scriptID, inquiry).make();
}

}  // namespace VarnScripts
