#include "LoadedList.h"

#include <utility>

#include "Directories.h"
#include "ScriptRepositoryMetaProcessor.h"
#include "VarnScriptRepository/ScriptRepositoryHost.h"
#include "support/Guard.h"
#include "support/RunEvents.h"

namespace VarnScriptRepository {
namespace {

// Never destroyed: requests on other threads may outlive static destruction.

/// Held by the one that fetches a list.
std::mutex& loading() {
  static std::mutex& mutex = *new std::mutex;
  return mutex;
}

/// Held while the entries in memory are read, or changed. After `loading` when both are. Not shared
/// by those who read: enough of them would keep out for ever who brings another list.
std::mutex& entries() {
  static std::mutex& mutex = *new std::mutex;
  return mutex;
}

struct LookUp {
  bool isLoaded = false;
  std::optional<ScriptRepositoryMeta> entry;
};

LookUp lookUp(const std::string& scriptID) {
  const std::lock_guard lock(entries());
  const auto& list = ScriptRepositoryMetaProcessor::shared();
  if (!list.scriptRepoMetaData()) return {};
  return {true, list.getScriptRepoForID(scriptID)};
}

bool isLoaded() {
  const std::lock_guard lock(entries());
  return ScriptRepositoryMetaProcessor::shared().scriptRepoMetaData().has_value();
}

/// Fetches and loads the list, unless another request has just done so. False when it can't be
/// fetched.
bool loadList() {
  const std::lock_guard only(loading());
  if (isLoaded()) return true;
  auto& list = ScriptRepositoryMetaProcessor::shared();
  if (!list.downloadScriptRepoMeta()) return false;
  const std::lock_guard lock(entries());
  list.loadScriptRepoMetaData();
  return true;
}

}  // namespace

std::optional<ScriptRepositoryMeta> entryInList(const std::string& scriptID) {
  LookUp found = lookUp(scriptID);
  if (!found.isLoaded) {
    if (!loadList()) return std::nullopt;
    found = lookUp(scriptID);
  }
  if (found.isLoaded && !found.entry) tellFailure(RequestStep::listLookUp, scriptID);
  return std::move(found.entry);
}

std::optional<std::vector<std::string>> listedIDs() {
  const std::lock_guard lock(entries());
  const auto& container = ScriptRepositoryMetaProcessor::shared().scriptRepoAllMetaData();
  if (!container) return std::nullopt;
  return container->getAllAvailableScriptIDs();
}

std::unique_lock<std::mutex> holdList() { return std::unique_lock(loading()); }

bool reloadServerList() noexcept {
  return guarded(false, [] {
    createMissingDirectories();
    const std::lock_guard only(loading());
    // In an instance of its own, so that requests look into the list before until this one is
    // whole.
    ScriptRepositoryMetaProcessor fresh;
    if (!fresh.downloadScriptRepoMeta()) return false;
    fresh.loadScriptRepoMetaData();
    if (!fresh.scriptRepoMetaData()) return false;
    fresh.setScriptRepoAllMetaData(ScriptRepoAllMetaData{*fresh.scriptRepoMetaData()});

    auto& list = ScriptRepositoryMetaProcessor::shared();
    const std::lock_guard lock(entries());
    list.modifyScriptRepoMetaData().swap(fresh.modifyScriptRepoMetaData());
    list.modifyScriptRepoAllMetaData().swap(fresh.modifyScriptRepoAllMetaData());
    return true;
  });
}

}  // namespace VarnScriptRepository
