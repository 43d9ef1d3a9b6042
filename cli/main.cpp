// varn-scripts: takes the settings, makes one request of the library, and hands out its result.

#include <signal.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <exception>
#include <filesystem>
#include <optional>
#include <string>
#include <system_error>
#include <utility>
#include <variant>
#include <vector>

#include "Calls.h"
#include "CommandLine.h"
#include "ExitStatus.h"
#include "LibraryEnvironment.h"
#include "NamedFiles.h"
#include "Settings.h"
#include "SettingsFile.h"
#include "StandardStreams.h"

namespace {

using VarnScripts::CommandLine;
using VarnScripts::Settings;
using VarnScripts::SettingsError;

/// Read when no settings file is named.
constexpr const char* kUsualSettingsFile = "/etc/varn-scripts/varn-scripts.toml";

std::optional<std::string> environmentVariable(const std::string& name) {
  const char* const value = std::getenv(name.c_str());
  if (value == nullptr) return std::nullopt;
  return value;
}

void setSignalDispositions() {
  // A reader that goes away is a failed write, not the end of the process.
  ::signal(SIGPIPE, SIG_IGN);
  // So is a file that would become larger than this process may make it.
  ::signal(SIGXFSZ, SIG_IGN);
  // Whoever started this process may ignore it, and then no exit status of a script would be left.
  ::signal(SIGCHLD, SIG_DFL);
}

std::variant<Settings, SettingsError> settingsFor(const CommandLine& line,
                                                  posix::FileDescriptor standardInput) {
  VarnScripts::SettingSources sources;
  sources.flags = line.flags;
  sources.environment = environmentVariable;
  sources.filePath = line.configFile;
  if (sources.filePath.empty()) {
    sources.filePath = environmentVariable("VARN_CONFIG").value_or("");
  }
  std::error_code ignored;
  if (sources.filePath.empty() && std::filesystem::exists(kUsualSettingsFile, ignored)) {
    sources.filePath = kUsualSettingsFile;
  }
  // Whoever writes to it could give the settings as options as well.
  const bool isInput = sources.filePath == VarnScripts::kStandardInput;
  if (!sources.filePath.empty()) {
    if (!isInput) {
      if (auto error = VarnScripts::complaintAboutSettingsFile(sources.filePath)) return *error;
    }
    auto file = VarnScripts::readSettingsFile(sources.filePath, standardInput);
    if (const auto* error = std::get_if<SettingsError>(&file)) return *error;
    sources.file = std::get<VarnScripts::SettingTexts>(std::move(file));
  }
  // Without a current directory, relative paths start at the root.
  sources.currentDirectory = std::filesystem::current_path(ignored).string();
  sources.exists = [](const std::string& path) {
    std::error_code none;
    return std::filesystem::exists(path, none);
  };
  // The URL of a server is looked at by the library that is to ask it.
  const VarnScripts::LibraryEnvironment environment;
  auto layered = VarnScripts::layerSettings(sources, line.needed());
  auto* const settings = std::get_if<Settings>(&layered);
  if (settings != nullptr && !isInput) settings->settingsFile = sources.filePath;
  return layered;
}

int host(const std::vector<std::string>& arguments, posix::FileDescriptor standardInput) {
  const auto parsed = VarnScripts::parseCommandLine(arguments);
  if (const auto* reply = std::get_if<VarnScripts::Reply>(&parsed)) {
    if (!VarnScripts::writeOutput(reply->output)) return VarnScripts::kExitNotRun;
    std::error_code ignored;
    posix::writeAll(2, reply->error, ignored);
    return reply->exitStatus;
  }
  const auto& line = std::get<CommandLine>(parsed);
  const auto settings = settingsFor(line, std::move(standardInput));
  if (const auto* error = std::get_if<SettingsError>(&settings)) {
    VarnScripts::writeErrorLine("varn-scripts: " + error->line);
    return VarnScripts::kExitUsage;
  }
  return line.command->execute(line, std::get<Settings>(settings));
}

int outcomeOf(int argc, char** argv) {
  try {
    posix::FileDescriptor standardInput = VarnScripts::openStandardStreams();
    setSignalDispositions();
    return host({argv + (argc > 0 ? 1 : 0), argv + argc}, std::move(standardInput));
  } catch (const std::exception&) {
    // Only being out of memory comes this far, so there may be none for a text either.
    VarnScripts::writeOutOfMemory();
    return VarnScripts::kExitNotRun;
  }
}

// Ends the process without taking its libraries apart first, which the system does faster.
[[noreturn]] void end(int status) {
  std::fflush(nullptr);
#ifdef VARN_REPORTS_AT_EXIT
  std::exit(status);
#else
  ::_exit(status);
#endif
}

}  // namespace

int main(int argc, char** argv) { end(outcomeOf(argc, argv)); }
