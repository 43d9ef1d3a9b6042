#include "RequestPlan.h"

#include <exception>
#include <utility>

#include "AgentUtils.h"
#include "Directories.h"
#include "DocumentMark.h"
#include "ScriptRepositoryMetaProcessor.h"
#include "ScriptRules.h"
#include "StoreCopy.h"
#include "VarnScriptRepository/ScriptRepositoryLocalMeta.h"
#include "support/Files.h"

namespace VarnScripts {
namespace {

using AgentUtils::FileUtils;
using AgentUtils::HttpHandlermac;
using MarkupParser::XML;
using VarnScriptRepository::RequestStep;
using VarnScriptRepository::ScriptItem;
using VarnScriptRepository::ScriptLocalData;
using VarnScriptRepository::ScriptRepo;
using VarnScriptRepository::ScriptRepositoryConstants;
using VarnScriptRepository::ScriptRepositoryMetaProcessor;
using VarnScriptRepository::ScriptRoot;
using VarnScriptRepository::ScriptsRepoMetaRoot;
using VarnScriptRepository::VyFile;

// Each step says true when the next one is to follow.
class PlanMaker {
 public:
  PlanMaker(const std::string& scriptID, const std::string& customer,
            const TemporaryDirectory& temporary, ReasonFinder& reason)
      : customer_(customer), temporary_(temporary), reason_(reason) {
    plan_.scriptID = scriptID;
  }

  RequestPlan make() {
    if (findEntry() && findLocalVersion()) {
      decideStep();
      ScriptItem item;
      if (takeDocument(item)) followDocument(item);
    }
    return std::move(plan_);
  }

 private:
  bool stop() {
    plan_.problem = reason_.reason().sentence;
    return false;
  }

  bool stop(RequestStep step, const std::string& subject, const std::string& cause = "") {
    reason_.stepFailed({step, subject, cause});
    return stop();
  }

  // The document at `path`, or nothing and the problem.
  template <class Root>
  std::optional<Root> decodedFile(const std::string& path, RequestStep read, RequestStep decode) {
    std::error_code error;
    std::string document = VarnScriptRepository::files::readWhole(path, error);
    if (error) {
      stop(read, path, VarnScriptRepository::files::description(error));
      return std::nullopt;
    }
    auto roots = XML::parse(std::move(document), std::nullopt, false).toStruct<Root>();
    if (roots) return std::move(roots->front());
    stop(decode, path);
    return std::nullopt;
  }

  [[nodiscard]] bool upToDate() const { return plan_.step == RequestPlan::Step::upToDate; }

  bool findEntry() {
    const std::string path =
        VarnScriptRepository::serverDirectory(customer_) + "/" + VarnScriptRepository::kListName;
    const std::string copy = temporary_.pathOf("list.xml");
    if (!HttpHandlermac::initWithServerInfo().downloadFileWithRootPermission(path, copy)) {
      return stop(RequestStep::listDownload, path);
    }
    auto root =
        decodedFile<ScriptsRepoMetaRoot>(copy, RequestStep::listRead, RequestStep::listDecode);
    if (!root) return false;
    if (root->scriptsMeta.empty()) return stop(RequestStep::listDecode, copy);
    auto& metadata = ScriptRepositoryMetaProcessor::shared();
    metadata.setScriptRepoMetaData(std::move(root->scriptsMeta.front().scriptRepo));
    plan_.entry = metadata.getScriptRepoForID(plan_.scriptID);
    return plan_.entry ? true : stop(RequestStep::listLookUp, plan_.scriptID);
  }

  bool findLocalVersion() {
    const std::string& store = ScriptRepositoryConstants::FilePath::scriptRepository();
    if (!FileUtils().isFileExists(store)) return true;
    try {
      const std::string copy = temporary_.pathOf("store");
      copyStore(store, copy);
      AgentUtils::RootAccessKeyValueStorage storage(
          copy, ScriptRepositoryConstants::TableNames::scriptToMeta);
      const auto record = storage.fetchValue(plan_.scriptID, std::type_identity<ScriptLocalData>{});
      if (record) plan_.localVersion = record->version();
    } catch (const std::exception&) {
      // A request takes a store or a row that can't be read for none at all.
    }
    return true;
  }

  void decideStep() {
    plan_.step = RequestPlan::Step::download;
    if (!plan_.localVersion) {
      plan_.reason = "no version is recorded";
    } else if (!VarnScriptRepository::isSameVersion(plan_.localVersion,
                                                    plan_.entry->modifiedTime)) {
      plan_.reason = "the versions differ";
    } else if (!FileUtils().isFileExists(VarnScriptRepository::dataDocumentPath(plan_.scriptID))) {
      plan_.reason = "the data document is missing";
    } else if (DocumentMark(plan_.scriptID).isThere()) {
      plan_.reason = "the data document's version is not recorded";
    } else {
      plan_.step = RequestPlan::Step::upToDate;
    }
  }

  bool takeDocument(ScriptItem& item) {
    std::string path = VarnScriptRepository::dataDocumentPath(plan_.scriptID);
    if (!upToDate()) {
      const auto& mapping = plan_.entry->scriptPathMapping;
      if (!mapping || mapping->empty()) return stop(RequestStep::documentLookUp, plan_.scriptID);
      const std::string& filepath = mapping->front().filepath;
      plan_.downloads.push_back(filepath);
      path = temporary_.pathOf("document.xml");
      if (!HttpHandlermac::initWithServerInfo().downloadFileWithRootPermission(filepath, path)) {
        return stop(RequestStep::documentDownload, filepath);
      }
    }
    auto root =
        decodedFile<ScriptRoot>(path, RequestStep::documentRead, RequestStep::documentDecode);
    if (!root) return false;
    if (root->script.empty()) return stop(RequestStep::documentDecode, path);
    item = std::move(root->script.front());
    return true;
  }

  void followDocument(const ScriptItem& item) {
    const auto file = item.getFileData(plan_.entry->fileID);
    if (!file) {
      stop(RequestStep::fileLookUp, plan_.entry->fileID);
      return;
    }
    plan_.scriptFile = VarnScriptRepository::scriptFilePath(file->fileName);
    if (!checkScriptFile(item, *file)) return;
    if (const auto repo = item.getScriptRepo(plan_.scriptID)) {
      describeRun(*repo);
    } else {
      stop(RequestStep::definitionLookUp, plan_.scriptID);
    }
  }

  // Whether the script's file is there as it must be, or would be fetched.
  bool checkScriptFile(const ScriptItem& item, const VyFile& file) {
    const auto* const checksum = VarnScriptRepository::checksumOf(file, item.checksumValues);
    const bool verified = upToDate() && checksum != nullptr &&
                          AgentUtils::VyCryptography::validateCheckSumForFile(
                              *plan_.scriptFile, checksum->checksumType, checksum->checksumVal);
    if (verified) return true;
    if (upToDate()) {
      plan_.reason = FileUtils().isFileExists(*plan_.scriptFile) ? "the script file is not verified"
                                                                 : "the script file is missing";
    }
    plan_.downloads.push_back(VarnScriptRepository::serverPath(file.fileSystemLocation));
    return checksum != nullptr ? true : stop(RequestStep::checksumLookUp, *plan_.scriptFile);
  }

  void describeRun(const ScriptRepo& repo) {
    plan_.arguments = VarnScriptRepository::splitWithQuotes(repo.scriptArgs);
    plan_.acceptedCodes = VarnScriptRepository::codesIn(repo.exitCode);
    plan_.interpreter = VarnScriptRepository::getLaunchPath(repo.scriptName);
    if (!plan_.interpreter) {
      stop(RequestStep::interpreterLookUp, repo.scriptName);
    } else if (!FileUtils().isFileExists(*plan_.interpreter)) {
      reason_.interpreterMissing(*plan_.interpreter);
      stop();
    }
  }

  const std::string& customer_;
  const TemporaryDirectory& temporary_;
  ReasonFinder& reason_;
  RequestPlan plan_;
};

}  // namespace

RequestPlan makePlan(const std::string& scriptID, const std::string& customer,
                     const TemporaryDirectory& temporary, ReasonFinder& reason) {
  return PlanMaker(scriptID, customer, temporary, reason).make();
}

}  // namespace VarnScripts
