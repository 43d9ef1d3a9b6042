// Hands the host's settings to the bundled agent modules. Called once, before the library's first
// use and before any thread but the one of `SignalForwarding` is started.

#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>

#include "AgentSettings.h"
#include "LogSettings.h"
#include "Settings.h"

namespace VarnScripts {

/// What the host wants to hear from the modules; members may be empty.
struct ModuleObservers {
  std::function<void(const AgentLog::Record&)> onRecord;
  std::function<void(std::uint64_t received, std::uint64_t total)> onDownloadProgress;
  std::function<void(const std::string& path)> beforeFileUse;
  std::function<void(const std::string& path, bool isValid)> afterChecksumTest;
  std::function<void(const std::string& key)> afterRowWrite;
  std::function<void(const std::string& subject, const std::string& cause)> onFailure;
  std::function<void(const std::string& path)> beforeServerFileUse;
  std::function<void(const AgentUtils::ListJudgement&)> onListJudged;
  /// Whether it is not remembered which lists were accepted, and no download has to last.
  bool onlyLooks = false;
};

/// Configures log and utilities. The error names the setting that a module can't use.
[[nodiscard]] std::optional<SettingsError> configureAgentModules(const Settings& settings,
                                                                 ModuleObservers observers);

/// Makes ready for downloads from the configured server, in a `LibraryEnvironment`.
void prepareDownloads();

}  // namespace VarnScripts
