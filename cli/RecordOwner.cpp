#include "RecordOwner.h"

#include <algorithm>
#include <exception>
#include <vector>

#include "AgentUtils.h"
#include "Directories.h"
#include "List.h"

namespace VarnScripts {
namespace {

// By the directory's last names: the base path may have been written in another way, or been
// another one, when the row was made.
bool isOfAnother(const std::string& scriptPath, const std::string& customer) {
  const auto end = scriptPath.rfind(VarnScriptRepository::scriptsDirectoryIn("") + "/");
  if (end == std::string::npos) return false;
  const std::string directory = scriptPath.substr(0, end);
  return directory.find(VarnScriptRepository::customerDirectory("", "")) != std::string::npos &&
         !directory.ends_with(VarnScriptRepository::customerDirectory("", customer));
}

}  // namespace

std::optional<std::string> complaintAboutRecord(const std::string& path, const Settings& settings) {
  // A record of the customer's own is read once, by the request itself.
  if (settings.agent.dataPath == ownDataPath(settings.agent.basePath, settings.agent.customerID))
    return std::nullopt;
  if (!AgentUtils::FileUtils().isFileExists(path)) return std::nullopt;
  try {
    const std::vector<ListedScript> scripts = listedScriptsIn(path);
    const auto found =
        std::find_if(scripts.begin(), scripts.end(), [&](const ListedScript& script) {
          return script.scriptPath && isOfAnother(*script.scriptPath, settings.agent.customerID);
        });
    if (found == scripts.end()) return std::nullopt;
    return "data_path " + settings.agent.dataPath +
           " holds the record of another customer's script " + *found->scriptPath +
           "; give each customer a data_path of its own";
  } catch (const std::exception&) {
    return std::nullopt;
  }
}

}  // namespace VarnScripts
