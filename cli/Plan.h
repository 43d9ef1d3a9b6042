// The command `plan`: what `run` would do now, without running, fetching or recording anything. The
// server's documents are fetched into a temporary directory, the store is read from a copy; base
// path and data path stay as they are.

#pragma once

#include "CommandLine.h"
#include "Settings.h"

namespace VarnScripts {

/// Prints the plan for `line.scriptID`. The exit status: 0 a script would be run; 3 none would, and
/// the plan says why.
[[nodiscard]] int plan(const CommandLine& line, const Settings& settings);

}  // namespace VarnScripts
