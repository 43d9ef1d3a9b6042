// The files that settings name, held against `examinePath`: whoever can change one of them decides
// what the command trusts.

#pragma once

#include <optional>
#include <string>
#include <vector>

#include "Settings.h"

namespace VarnScripts {

/// What is wrong with the way to the settings file, or nothing.
[[nodiscard]] std::optional<SettingsError> complaintAboutSettingsFile(const std::string& path);

/// What is wrong with the base or the data path, or the way to the log, the authorities, the client
/// certificate or its key, the headers, the login or a trusted key, or nothing. Adds to
/// `writableByGroup` what their group may write to, the settings file included.
[[nodiscard]] std::optional<SettingsError> complaintAboutNamedFiles(
    const Settings& settings, std::vector<std::string>& writableByGroup);

}  // namespace VarnScripts
