// The host's removal: what the loaded list lacks goes, with the turns of all that goes, and nothing
// outside of the library's own directories.

#include <algorithm>
#include <cstdint>
#include <exception>
#include <map>
#include <memory>
#include <new>
#include <optional>
#include <set>
#include <string>
#include <system_error>
#include <type_traits>
#include <utility>
#include <vector>

#include "AgentUtils.h"
#include "Directories.h"
#include "LoadedList.h"
#include "ScriptTurn.h"
#include "VarnScriptRepository/ScriptRepositoryHost.h"
#include "VarnScriptRepository/ScriptRepositoryLocalMeta.h"
#include "VarnScriptRepository/ScriptRepositoryProcessor.h"
#include "support/Files.h"
#include "support/Guard.h"
#include "support/Text.h"
#include "support/UnitLog.h"

namespace VarnScriptRepository {
namespace {

constexpr const char* kUnit = "DroppedScripts";

using Store = AgentUtils::RootAccessKeyValueStorage;

/// A record of a script that the list lacks.
struct Dropped {
  std::string scriptID;
  std::optional<std::string> version;
  std::optional<std::string> scriptPath;
};

/// The record of `scriptID` as far as it can be read.
Dropped recordOf(Store& store, const std::string& scriptID) {
  // A row that does not decode is one of its ID alone, as for the removal itself.
  return guarded(Dropped{scriptID, {}, {}}, [&] {
    const auto record = store.fetchValue(scriptID, std::type_identity<ScriptLocalData>{});
    return record ? Dropped{scriptID, record->version(), record->scriptPath()}
                  : Dropped{scriptID, {}, {}};
  });
}

/// The records that the removal will take for those of dropped scripts, in the order of their IDs.
/// One whose ID is written in two ways is among them twice, of which the removal takes one.
std::vector<Dropped> droppedScripts(Store& store, const std::vector<std::string>& serverIDs) {
  std::set<std::string> listed;
  for (const std::string& id : serverIDs) listed.insert(text::equalityKey(id));
  std::vector<Dropped> dropped;
  for (const auto& [id, value] : store.fetchTableAsDictionary()) {
    if (!listed.contains(text::equalityKey(id))) dropped.push_back(recordOf(store, id));
  }
  return dropped;
}

/// Waits until no request runs for any of the scripts or uses one of their files.
void takeTurns(const std::vector<Dropped>& scripts, ScriptTurn& turn, std::error_code& error) {
  std::vector<std::string> scriptIDs;
  std::map<std::int64_t, std::string> files;
  for (const Dropped& script : scripts) {
    scriptIDs.push_back(script.scriptID);
    const std::string name =
        files::nameBelow(scriptRepoScriptsDirectory(), script.scriptPath.value_or(""));
    // In an order that is the same for everybody.
    if (!name.empty()) files.emplace(fileLockOffset(name), name);
  }
  turn.take(scriptIDs, error);
  for (auto file = files.begin(); file != files.end() && !error; ++file) {
    turn.takeFile(file->second, error);
  }
}

/// Whether there is something at `path`, which a record leads to, and it is not below `directory`.
/// It is reported, and stays.
bool staysElsewhere(const std::string& directory, const std::string& path,
                    const std::string& scriptID) {
  if (!files::exists(path) || !files::nameBelow(directory, path).empty()) return false;
  UnitLog{kUnit, "removeDroppedScripts(turn:)"}.info("Leaving File " + path + " of Script ID " +
                                                     scriptID + ", it is not below " + directory);
  return true;
}

/// Takes what lies elsewhere out of the records: the removal removes whatever they lead to.
void keepWhatLiesElsewhere(Store& store, const std::vector<Dropped>& scripts) {
  const std::string& documents = scriptRepoDataDirectory();
  for (const Dropped& script : scripts) {
    const std::string& id = script.scriptID;
    if (staysElsewhere(documents, dataDocumentPath(id), id)) {
      store.deleteValue(id);
    } else if (script.scriptPath &&
               staysElsewhere(scriptRepoScriptsDirectory(), *script.scriptPath, id)) {
      const ScriptLocalData withoutPath(script.version, std::nullopt);
      store.updateValue(&withoutPath, id);
    }
  }
}

/// The store's own connection; null when it can't be opened, of which the removal's lines tell, and
/// `reason`.
std::unique_ptr<Store> openStore(std::string& reason) {
  const std::string& path = ScriptRepositoryConstants::FilePath::scriptRepository();
  try {
    return std::make_unique<Store>(path, ScriptRepositoryConstants::TableNames::scriptToMeta);
  } catch (const std::bad_alloc&) {
    throw;
  } catch (const std::exception& error) {
    reason = "Store " + path + " can't be opened: " + error.what();
  } catch (...) {
    reason = "Store " + path + " can't be opened";
  }
  return nullptr;
}

/// What a turn is for: an ID, and the file that its record leads to.
using Taken = std::set<std::pair<std::string, std::optional<std::string>>>;

bool isIn(const Taken& taken, const Dropped& script) {
  return taken.contains({script.scriptID, script.scriptPath});
}

std::vector<std::string> idsOf(const std::vector<Dropped>& scripts) {
  std::vector<std::string> ids;
  ids.reserve(scripts.size());
  for (const Dropped& script : scripts) ids.push_back(script.scriptID);
  return ids;
}

/// The removal itself. What is still recorded afterwards is not among the result's scripts.
ScriptRemoval removeNow(Store& store, const std::vector<Dropped>& dropped) {
  // Made before: without memory for it nothing is removed.
  ScriptRemoval removal{idsOf(dropped), ""};
  keepWhatLiesElsewhere(store, dropped);
  ScriptRepositoryProcessor::removeServerRemovedScripts();
  guarded([&] {
    const auto left = store.fetchTableAsDictionary();
    std::erase_if(removal.scriptIDs, [&left](const auto& id) { return left.contains(id); });
  });
  return removal;
}

ScriptRemoval remove(ScriptTurn& turn) {
  std::string noStore;
  const std::unique_ptr<Store> store = openStore(noStore);
  Taken taken;
  while (true) {
    std::vector<Dropped> dropped;
    {
      // From here on the list is the one that the turns are taken for.
      const auto held = holdList();
      const auto serverIDs = listedIDs();
      if (!serverIDs || !store) {
        ScriptRepositoryProcessor::removeServerRemovedScripts();
        return {{}, serverIDs ? noStore : "No list of the server is loaded"};
      }
      dropped = droppedScripts(*store, *serverIDs);
      if (std::ranges::all_of(dropped, [&taken](const auto& one) { return isIn(taken, one); })) {
        return removeNow(*store, dropped);
      }
    }
    // During the wait another list may be loaded, and records be written; then there is another.
    taken.clear();
    for (const Dropped& script : dropped) taken.emplace(script.scriptID, script.scriptPath);
    std::error_code error;
    takeTurns(dropped, turn, error);
    if (error) {
      return {{},
              "Request lock " + requestLockPath() + " can't be taken: " + files::description(error),
              true};
    }
  }
}

}  // namespace

ScriptRemoval removeDroppedScripts(ScriptTurn& turn) noexcept {
  try {
    return remove(turn);
  } catch (const std::exception& error) {
    // The other text is so short that there is memory for it.
    return guarded(ScriptRemoval{{}, "Out of memory"}, [&error] {
      return ScriptRemoval{{}, error.what()};
    });
  } catch (...) {
    return {{}, "Store failed"};
  }
}

}  // namespace VarnScriptRepository
