// Reads the settings file, a TOML table of the settings' keys. Any thread.

#pragma once

#include <string>
#include <variant>

#include "FileDescriptor.h"
#include "Settings.h"

namespace VarnScripts {

/// The settings in the TOML text `text`. `path` names the file in messages; a message about a key
/// or a mistake in the text names its line.
[[nodiscard]] std::variant<SettingTexts, SettingsError> parseSettingsFile(const std::string& text,
                                                                          const std::string& path);

/// The settings in the file at `path`, or all that comes from `standardInput` until its end when
/// that is `kStandardInput`; above 1 MiB they are refused.
[[nodiscard]] std::variant<SettingTexts, SettingsError> readSettingsFile(
    const std::string& path, const posix::FileDescriptor& standardInput = {});

}  // namespace VarnScripts
