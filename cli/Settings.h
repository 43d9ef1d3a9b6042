// The host's settings: which there are, where each can be given, and how the places are layered. A
// flag wins over the environment, the environment over the settings file, the file over the
// default.
//
// Pure: flags, environment, file and current directory are handed in. Any thread.

#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "AgentSettings.h"
#include "LogSettings.h"

namespace VarnScripts {

/// The path of a settings file that means standard input.
inline constexpr std::string_view kStandardInput = "-";

/// All settings of one invocation. An empty text means "not given".
struct Settings {
  /// What the bundled modules take. The two directories are absolute, without a trailing slash but
  /// for "/" itself.
  AgentUtils::AgentSettings agent;
  /// `quiet` leaves out progress and warnings, too.
  AgentLog::LogSettings log;
  bool verbose = false;  ///< the log on standard error
  /// The most bytes of a script's output that are written and logged.
  std::optional<std::uint64_t> maxOutput;
  std::string settingsFile;  ///< where some of them may come from; never standard input
  std::string headerFile;    ///< more headers for the server
};

/// A setting's value, by its kind: a text, several texts, a number of bytes, one that need not be
/// given, how often or how many, a toggle, a choice of the log's.
using SettingMember = std::variant<std::string*, std::vector<std::string>*, std::uint64_t*,
                                   std::optional<std::uint64_t>*, std::uint32_t*, bool*,
                                   AgentLog::LogSettings::Format*, AgentLog::Severity*,
                                   std::optional<AgentLog::LogSettings::Target>*>;

/// One setting. The key in the settings file ("base_path") gives the flag ("--base-path") and the
/// environment variable ("VARN_BASE_PATH").
struct SettingDefinition {
  enum class Kind {
    text,
    texts,   ///< one or more; as a flag each takes one of its own
    number,  ///< a whole number
    toggle,  ///< true or false; as a flag it takes no value
  };

  std::string_view key;
  /// What help calls the value: "DIR". The names of a choice in the order of its values:
  /// "text|json".
  std::string_view valueName;
  std::string_view meaning;  ///< what help says
  /// Where its value is in the settings.
  SettingMember (*member)(Settings& settings);
  /// What is wrong with a text that was given for it, or nothing; null when every text will do.
  std::optional<std::string> (*complaint)(const std::string& text) = nullptr;
  bool isDirectory = false;  ///< made absolute
  char letter = 0;           ///< of its short flag, "-v"; 0 when it has none
  bool protects = false;     ///< an empty variable for it is a mistake: nobody means to go without
  std::string_view flag{};   ///< when the key does not give it: that of several texts names one

  [[nodiscard]] Kind kind() const;
};

/// All there are, in the order in which they are shown.
[[nodiscard]] std::span<const SettingDefinition> settingDefinitions();

/// The setting's flag: "--base-path", "--trusted-key"; of what is no setting, as if it were one.
[[nodiscard]] std::string flagOf(std::string_view key);

/// The setting's environment variable: "VARN_BASE_PATH".
[[nodiscard]] std::string variableOf(std::string_view key);

/// How messages call the settings file at `path`: "settings file /etc/varn.toml".
[[nodiscard]] std::string nameOfSettingsFile(std::string_view path);

/// Why there are no settings: one line that names the setting and where it was or can be given.
struct SettingsError {
  std::string line;

  bool operator==(const SettingsError&) const = default;
};

/// Settings as texts, by key. A toggle is "true" or "false"; several texts have line breaks between
/// them, and in the environment blanks will do.
using SettingTexts = std::map<std::string, std::string>;

/// The value of an environment variable, or nothing.
using Environment = std::function<std::optional<std::string>(const std::string& name)>;

/// The places that settings come from. An empty text counts as not given there, but for a
/// variable that protects; a command line with an empty flag does not come this far.
struct SettingSources {
  SettingTexts flags;
  Environment environment;
  SettingTexts file;
  std::string filePath;          ///< for messages; empty when there is no settings file
  std::string currentDirectory;  ///< absolute; relative base and data paths start here
  /// Whether there is something at a path; there is nothing anywhere when this is empty.
  std::function<bool(const std::string& path)> exists;
};

/// Which settings a command can't do without.
enum class NeededSettings {
  request,     ///< base path, customer and server
  localState,  ///< the data path, or the base path and the customer that give its default
  customer,    ///< the customer alone
  trustedKeys,
  nothing,
};

/// The data path that `customer` has by default, which no other customer has.
[[nodiscard]] std::string ownDataPath(const std::string& basePath, const std::string& customer);

/// The settings of all places together, or the first thing that is wrong with them.
[[nodiscard]] std::variant<Settings, SettingsError> layerSettings(const SettingSources& sources,
                                                                  NeededSettings needed);

}  // namespace VarnScripts
