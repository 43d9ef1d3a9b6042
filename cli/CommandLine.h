// The command line as a plain value: which command, its arguments, and the settings that were given
// as flags. Nothing is read or written here. Any thread.

#pragma once

#include <optional>
#include <string>
#include <variant>
#include <vector>

#include "Commands.h"
#include "Settings.h"
#include "key/Key.h"
#include "publish/Publish.h"

namespace VarnScripts {

/// What the command line asks for.
struct CommandLine {
  const Command* command = nullptr;  ///< never null after parsing
  std::string configFile;            ///< `--config`; empty when not given
  SettingTexts flags;                ///< the settings that were given as flags; none is empty
  std::string scriptID;              ///< of `run` and `plan`; never empty there
  /// `--accept-codes`, split at its commas and nothing trimmed; an empty text is an empty list.
  std::optional<std::vector<std::string>> acceptCodes;
  bool json = false;
  bool follow = false;      ///< of `run`: writes the output as it comes, wherever it goes
  bool noWait = false;      ///< of `run`: fails when it is not its turn
  bool listServer = false;  ///< of `list`: what the server lists
  bool dryRun = false;      ///< of `prune`: removes nothing
  PublishOptions publish;   ///< of `publish`
  KeyOptions key;           ///< of the commands of `key`

  /// The settings that it can't do without.
  [[nodiscard]] NeededSettings needed() const {
    return listServer ? NeededSettings::request : command->needed;
  }
};

/// A command line that is answered at once: help, the version, or a mistake in it.
struct Reply {
  int exitStatus;      ///< 0 for help and version, 2 for a usage error
  std::string output;  ///< for standard output
  std::string error;   ///< for standard error
};

/// Parses `arguments` (without the program's name).
[[nodiscard]] std::variant<CommandLine, Reply> parseCommandLine(
    const std::vector<std::string>& arguments);

}  // namespace VarnScripts
