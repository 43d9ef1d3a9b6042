#include "AgentModules.h"

#include <exception>
#include <stdexcept>
#include <string>
#include <utility>
#include <variant>
#include <vector>

#include "AgentDirectories.h"
#include "LibraryEnvironment.h"
#include "NamedFiles.h"
#include "Reason.h"
#include "RecordSeverity.h"
#include "SecretFiles.h"
#include "StandardStreams.h"
#include "TrustedKeys.h"

namespace VarnScripts {
namespace {

// Whether a record is a warning that nothing but the log tells: of the steps of a request the
// reason does.
bool isWarning(const AgentLog::Record& record) {
  if (AgentLog::severityOf(record) == AgentLog::Severity::info) return false;
  return !AgentLog::isUnitOfLibrary(record.source) && record.source != "varn-scripts" &&
         record.source != "PathGuard" && !record.message.starts_with("Download of ");
}

void showWarning(const AgentLog::Record& record) noexcept {
  try {
    if (isWarning(record)) writeErrorLine("varn-scripts: " + std::string(record.message));
  } catch (const std::exception&) {
    // Out of memory: the warning is lost, the work goes on.
  }
}

// The keys as the modules take them: a line each.
std::optional<SettingsError> takeTrustedKeys(const Settings& settings,
                                             AgentUtils::AgentSettings& agent) {
  const auto keys = trustedKeysOf(settings);
  if (const auto* const error = std::get_if<SettingsError>(&keys)) return *error;
  agent.trustedKeys.clear();
  for (const auto& key : std::get<0>(keys)) agent.trustedKeys.push_back(publicKeyLine(key));
  return std::nullopt;
}

}  // namespace

void prepareDownloads() {
  const LibraryEnvironment environment;
  AgentUtils::prepareDownloads();
}

std::optional<SettingsError> configureAgentModules(const Settings& settings,
                                                   ModuleObservers observers) {
  AgentLog::LogSettings log = settings.log;
  log.maxMessage = settings.maxOutput;
  log.observer = [isShown = showsWarnings(log),
                  next = std::move(observers.onRecord)](const AgentLog::Record& record) {
    if (isShown) showWarning(record);
    if (next) next(record);
  };
  std::vector<std::string> writableByGroup;
  if (auto complaint = complaintAboutNamedFiles(settings, writableByGroup)) return complaint;
  AgentUtils::AgentSettings agent = settings.agent;
  if (auto error = takeSecretFiles(settings, agent)) return error;
  if (auto error = takeTrustedKeys(settings, agent)) return error;
  try {
    AgentLog::configure(std::move(log));
  } catch (const std::invalid_argument& error) {
    return SettingsError{"log_target (--log-target, VARN_LOG_TARGET) can't be had: " +
                         std::string(error.what())};
  } catch (const std::exception& error) {
    return SettingsError{"log_file (--log-file, VARN_LOG_FILE) can't be opened: " +
                         std::string(error.what())};
  }
  for (const std::string& path : writableByGroup) AgentUtils::reportOpenDirectory(path);

  agent.userAgent = "varn-scripts/" VARN_VERSION;
  agent.onDownloadProgress = std::move(observers.onDownloadProgress);
  agent.beforeFileUse = std::move(observers.beforeFileUse);
  agent.afterChecksumTest = std::move(observers.afterChecksumTest);
  agent.afterRowWrite = std::move(observers.afterRowWrite);
  agent.onFailure = std::move(observers.onFailure);
  agent.beforeServerFileUse = std::move(observers.beforeServerFileUse);
  agent.onListJudged = std::move(observers.onListJudged);
  agent.remembersLists = !observers.onlyLooks;
  // Whoever only looks downloads to a directory that is gone afterwards.
  agent.syncsDownloads = !observers.onlyLooks;
  // `list` needs the data path alone, and uses nothing below the other.
  if (agent.basePath.empty()) agent.basePath = agent.dataPath;
  try {
    AgentUtils::configure(std::move(agent));
  } catch (const std::invalid_argument& error) {
    return SettingsError{error.what()};
  }
  return std::nullopt;
}

}  // namespace VarnScripts
