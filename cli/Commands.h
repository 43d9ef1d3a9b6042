// The commands of the program, a row each: what help says, what is taken, what is needed and what
// is done.

#pragma once

#include <span>
#include <string_view>

#include "Settings.h"

namespace CLI {
class App;
}

namespace VarnScripts {

struct CommandLine;

struct Command {
  /// "run"; of one that is below another, "key show". The other stands before it.
  std::string_view name;
  std::string_view meaning;   ///< what help says of it
  std::string_view statuses;  ///< its exit statuses, for its own help
  NeededSettings needed;
  /// Adds what it takes beside the settings, to be parsed into `line`. Null when that is nothing.
  void (*addOptions)(CLI::App& to, CommandLine& line);
  /// Does it, and gives the exit status. Null for one that others are below.
  int (*execute)(const CommandLine& line, const Settings& settings);
};

/// All there are, in the order in which they are shown.
[[nodiscard]] std::span<const Command> commands();

/// The option whose empty text means something.
inline constexpr std::string_view kAcceptCodes = "--accept-codes";

/// The command whose `--server` is a flag of its own when no URL follows, and that option.
inline constexpr std::string_view kList = "list";
inline constexpr std::string_view kServer = "--server";

}  // namespace VarnScripts
