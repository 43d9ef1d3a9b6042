// The command `prune`: the host's part of removing scripts that the server dropped.

#pragma once

#include "CommandLine.h"
#include "Settings.h"

namespace VarnScripts {

/// Fetches the server's list, hands it to the library and has it remove what the list lacks; with
/// `--dry-run` it only tells what that would be. Gives the exit status: 3 when the list could not
/// be had, and then nothing was removed.
[[nodiscard]] int prune(const CommandLine& line, const Settings& settings);

}  // namespace VarnScripts
