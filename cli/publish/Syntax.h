// What the interpreters of this computer say of scripts that they only read.
//
// Nothing of a script is run: the shell reads it with -n, Python compiles it in memory, and Perl is
// asked with -c where it runs nothing of the script meanwhile. AppleScript is left alone. A script
// that is checked must not be able to do anything.

#pragma once

#include <chrono>
#include <string>
#include <string_view>
#include <vector>

#include "publish/Findings.h"

namespace VarnScripts::publishing {

/// How long an interpreter may take for one script.
inline constexpr std::chrono::seconds kSyntaxLimit{10};

/// Warns of the script files in `paths` that their interpreters can't read, one finding for each
/// file. An interpreter that this computer does not have says nothing. The extension of a path
/// names its interpreter. On one thread.
void checkSyntax(const std::vector<std::string>& paths, Findings& findings,
                 std::chrono::milliseconds limit = kSyntaxLimit);

}  // namespace VarnScripts::publishing
