#include "LocalCopy.h"

#include "AgentUtils.h"
#include "Directories.h"
#include "DocumentMark.h"
#include "DocumentTest.h"
#include "ScriptRules.h"

namespace VarnScripts {

LocalCopy localCopyOf(const std::string& scriptID, const std::optional<std::string>& recorded,
                      const VarnScriptRepository::ScriptRepositoryMeta& onServer) {
  if (!recorded) return LocalCopy::absent;
  if (!VarnScriptRepository::isSameVersion(recorded, onServer.modifiedTime))
    return LocalCopy::outdated;
  const std::string document = VarnScriptRepository::dataDocumentPath(scriptID);
  if (!AgentUtils::FileUtils().isFileExists(document)) return LocalCopy::documentMissing;
  if (!VarnScriptRepository::isDocumentOf(onServer, document)) return LocalCopy::unlisted;
  return DocumentMark(scriptID).isThere() ? LocalCopy::unrecorded : LocalCopy::upToDate;
}

std::string_view whyFetched(LocalCopy copy) {
  switch (copy) {
    case LocalCopy::absent:
      return "no version is recorded";
    case LocalCopy::outdated:
      return "the versions differ";
    case LocalCopy::documentMissing:
      return "the data document is missing";
    case LocalCopy::unlisted:
      return "the data document is not the one that the list names";
    case LocalCopy::unrecorded:
      return "the data document's version is not recorded";
    case LocalCopy::upToDate:
      break;
  }
  return "";
}

}  // namespace VarnScripts
