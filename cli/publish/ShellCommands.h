// Which commands a shell script uses, as far as its text tells without running it. Pure functions;
// any thread.

#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace VarnScripts::publishing {

/// A command and the line in which a script uses it first.
struct ShellCommand {
  std::string name;
  std::size_t line;

  bool operator==(const ShellCommand&) const = default;
};

/// The commands in the shell script `text` that no macOS has had, such as apt-get and systemctl, in
/// the script's order. Empty for a script that knows of several systems, since it asks which one it
/// is on; a command that it defines, or looks for before it uses it, is left out. What stands in
/// quotation marks or here-documents is no use of a command.
[[nodiscard]] std::vector<ShellCommand> commandsThatMacOSLacks(std::string_view text);

}  // namespace VarnScripts::publishing
