#include "Directories.h"

#include "AgentUtils.h"
#include "support/Guard.h"
#include "support/Settings.h"

namespace VarnScriptRepository {

std::string customerDirectory(const std::string& basePath, const std::string& customerID) {
  return basePath + "/client-data/" + customerID;
}

std::string dataDirectoryIn(const std::string& customerDirectory) {
  return customerDirectory + "/scripts-repository-data";
}

std::string scriptsDirectoryIn(const std::string& customerDirectory) {
  return customerDirectory + "/scripts-repository";
}

std::string serverDirectory(const std::string& customerID) {
  return "/client-data/" + customerID + "/scriptrepo";
}

// The texts are never destroyed: other threads may use them while the process ends.

const std::string& basePath() {
  static const std::string& path = *new std::string(globalSettings().vyagentBasePath);
  return path;
}

const std::string& customerID() {
  static const std::string& id = *new std::string(globalSettings().vyCustomerID);
  return id;
}

const std::string& scriptRepoDataDirectory() {
  static const std::string& path =
      *new std::string(dataDirectoryIn(customerDirectory(basePath(), customerID())));
  return path;
}

const std::string& scriptRepoScriptsDirectory() {
  static const std::string& path =
      *new std::string(scriptsDirectoryIn(customerDirectory(basePath(), customerID())));
  return path;
}

namespace {

void createWhenMissing(const std::string& directory) {
  guarded([&] {
    const AgentUtils::FileUtils fileUtils;
    if (!fileUtils.isFileExists(directory)) fileUtils.createDirectory(directory, true);
  });
}

}  // namespace

void createMissingDirectories() {
  createWhenMissing(scriptRepoDataDirectory());
  createWhenMissing(scriptRepoScriptsDirectory());
}

std::string dataDocumentPath(const std::string& scriptID) {
  return scriptRepoDataDirectory() + "/" + scriptID + ".xml";
}

std::string scriptFilePath(const std::string& fileName) {
  return scriptRepoScriptsDirectory() + "/" + fileName;
}

}  // namespace VarnScriptRepository
