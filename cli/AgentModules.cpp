#include "AgentModules.h"

#include <exception>
#include <string>
#include <utility>

#include "AgentSettings.h"

namespace VarnScripts {

std::optional<SettingsError> configureAgentModules(const Settings& settings,
                                                   ModuleObservers observers) {
  AgentLog::LogSettings log;
  log.format = settings.logFormat == Settings::LogFormat::json
                   ? AgentLog::LogSettings::Format::json
                   : AgentLog::LogSettings::Format::text;
  log.file = settings.logFile;
  log.quiet = settings.quiet;
  log.observer = std::move(observers.onRecord);
  try {
    AgentLog::configure(std::move(log));
  } catch (const std::exception& error) {
    return SettingsError{"log_file (--log-file, VARN_LOG_FILE) can't be opened: " +
                         std::string(error.what())};
  }

  AgentUtils::AgentSettings agent;
  agent.basePath = settings.basePath;
  agent.dataPath = settings.dataPath;
  agent.customerID = settings.customer;
  agent.serverURL = settings.server;
  agent.caFile = settings.caFile;
  agent.clientCert = settings.clientCert;
  agent.clientKey = settings.clientKey;
  agent.proxy = settings.proxy;
  agent.maxDownload = settings.maxDownload;
  agent.onDownloadProgress = std::move(observers.onDownloadProgress);
  agent.beforeFileUse = std::move(observers.beforeFileUse);
  AgentUtils::configure(std::move(agent));
  return std::nullopt;
}

}  // namespace VarnScripts
