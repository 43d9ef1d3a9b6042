// The local script state: the public record and constants, and the singleton over the table.

#include "VarnScriptRepository/ScriptRepositoryLocalMeta.h"

#include <tuple>
#include <type_traits>
#include <utility>

#include "ScriptRepositoryLocalMetaProcessor.h"
#include "support/Guard.h"
#include "support/KeyedCoding.h"
#include "support/Settings.h"
#include "support/UnitLog.h"

namespace VarnScriptRepository {
namespace {

constexpr const char* kUnit = "ScriptRepositoryLocalMeta";

}  // namespace

// ---- Constants -------------------------------------------------------------------------------

const std::string& ScriptRepositoryConstants::FilePath::scriptRepository() {
  // Never destroyed: another thread may still use it while the process ends.
  static const std::string& path =
      *new std::string(globalSettings().vyagentDataDictPath.value_or("") +
                       "/Configuration-Framework/ScriptRepository");
  return path;
}

// ---- Record ----------------------------------------------------------------------------------

struct ScriptLocalData::Fields {
  static constexpr auto table() {
    return std::tuple{field("version", &ScriptLocalData::version_),
                      field("scriptPath", &ScriptLocalData::scriptPath_)};
  }
};

static_assert(AgentStore::SQLiteValue<ScriptLocalData>);

const std::optional<std::string>& ScriptLocalData::version() const { return version_; }
void ScriptLocalData::setVersion(std::optional<std::string> version) {
  version_ = std::move(version);
}
std::optional<std::string>& ScriptLocalData::modifyVersion() { return version_; }

const std::optional<std::string>& ScriptLocalData::scriptPath() const { return scriptPath_; }
void ScriptLocalData::setScriptPath(std::optional<std::string> scriptPath) {
  scriptPath_ = std::move(scriptPath);
}
std::optional<std::string>& ScriptLocalData::modifyScriptPath() { return scriptPath_; }

ScriptLocalData::ScriptLocalData(std::optional<std::string> version,
                                 std::optional<std::string> scriptPath)
    : version_(std::move(version)), scriptPath_(std::move(scriptPath)) {}

void ScriptLocalData::encode(AgentStore::KeyedEncoder& to) const {
  encodeFields(*this, Fields::table(), to);
}

ScriptLocalData::ScriptLocalData(const AgentStore::KeyedDecoder& from) {
  decodeFields(*this, Fields::table(), from);
}

ScriptLocalData::~ScriptLocalData() = default;

// ---- Singleton -------------------------------------------------------------------------------

ScriptRepositoryLocalMetaProcessor& ScriptRepositoryLocalMetaProcessor::shared() {
  // Never destroyed: requests on other threads may outlive static destruction.
  static auto& instance = *new ScriptRepositoryLocalMetaProcessor;
  return instance;
}

ScriptRepositoryLocalMetaProcessor::ScriptRepositoryLocalMetaProcessor() {
  // A store that can't be opened is not reported and not tried again in this process.
  guarded([this] {
    storage_ = std::make_unique<AgentUtils::RootAccessKeyValueStorage>(
        ScriptRepositoryConstants::FilePath::scriptRepository(),
        ScriptRepositoryConstants::TableNames::scriptToMeta);
  });
}

ScriptRepositoryLocalMetaProcessor::~ScriptRepositoryLocalMetaProcessor() = default;

namespace {

/// The record of a script; null without store or row, and also when the row can't be read.
std::shared_ptr<ScriptLocalData> fetch(AgentUtils::RootAccessKeyValueStorage* storage,
                                       const std::string& scriptID) {
  if (storage == nullptr) return nullptr;
  return guarded(std::shared_ptr<ScriptLocalData>{}, [&] {
    return storage->fetchValue(scriptID, std::type_identity<ScriptLocalData>{});
  });
}

/// As `fetch`, but with an empty record in place of none: a row that can't be read is replaced by
/// a record that carries only the field being set.
std::shared_ptr<ScriptLocalData> fetchOrMake(AgentUtils::RootAccessKeyValueStorage* storage,
                                             const std::string& scriptID) {
  if (auto record = fetch(storage, scriptID)) return record;
  return std::make_shared<ScriptLocalData>(std::nullopt, std::nullopt);
}

}  // namespace

std::optional<std::string> ScriptRepositoryLocalMetaProcessor::getScriptVersion(
    const std::string& forScriptID) {
  // Moved, not copied: what was read once fits.
  const auto record = fetch(storage_.get(), forScriptID);
  return record ? std::move(record->modifyVersion()) : std::nullopt;
}

void ScriptRepositoryLocalMetaProcessor::setScriptVersion(const std::string& forScriptID,
                                                          const std::string& version) {
  if (!storage_) return;
  guarded([&] {
    const auto record = fetchOrMake(storage_.get(), forScriptID);
    record->setVersion(version);
    storage_->updateValue(record.get(), forScriptID);
  });
}

std::optional<std::string> ScriptRepositoryLocalMetaProcessor::getScriptPath(
    const std::string& forScriptID) {
  // Moved, not copied: what was read once fits.
  const auto record = fetch(storage_.get(), forScriptID);
  return record ? std::move(record->modifyScriptPath()) : std::nullopt;
}

void ScriptRepositoryLocalMetaProcessor::setScriptPath(const std::string& forScriptID,
                                                       const std::string& path) {
  if (!storage_) return;
  guarded([&] {
    const auto record = fetchOrMake(storage_.get(), forScriptID);
    record->setScriptPath(path);
    storage_->updateValue(record.get(), forScriptID);
  });
}

void ScriptRepositoryLocalMetaProcessor::removeScriptData(const std::string& forScriptID) {
  if (!storage_) return;
  guarded([&] { storage_->deleteValue(forScriptID); });
}

std::vector<std::string> ScriptRepositoryLocalMetaProcessor::getAllScriptIDs() {
  const UnitLog log{kUnit, "getAllScriptIDs()"};
  if (!storage_) {
    // The one line at error level. It speaks of the missing store; an empty table writes nothing.
    log.error("No ScriptIDs found in the storage.");
    return {};
  }
  return guarded(std::vector<std::string>{}, [this] {
    std::vector<std::string> ids;
    for (const auto& [id, value] : storage_->fetchTableAsDictionary()) ids.push_back(id);
    return ids;
  });
}

}  // namespace VarnScriptRepository
