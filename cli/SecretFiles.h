// The files with secrets that settings name: headers for the server, and a login in the netrc
// format. They are for this user alone, and nothing that is in them is ever written anywhere.

#pragma once

#include <optional>

#include "AgentSettings.h"
#include "Settings.h"

namespace VarnScripts {

/// Reads the file of headers into `agent`, which reads the login itself. The error names the file
/// that anybody but this user or root can read, write or owns, that can't be read, or whose line is
/// no header that may be sent: with the number of the line, never with what it says.
///
/// The file of headers has one on each line; empty lines and those that begin with `#` are skipped.
[[nodiscard]] std::optional<SettingsError> takeSecretFiles(const Settings& settings,
                                                           AgentUtils::AgentSettings& agent);

}  // namespace VarnScripts
