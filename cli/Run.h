// The command `run`: one request for one script ID, and its result for people or programs.

#pragma once

#include "CommandLine.h"
#include "Settings.h"

namespace VarnScripts {

/// Runs the script that `line` names. Standard output carries the script's output and nothing
/// else, or one JSON object. Gives the exit status.
[[nodiscard]] int run(const CommandLine& line, const Settings& settings);

}  // namespace VarnScripts
