// The host's settings: which there are, where each can be given, and how the places are layered. A
// flag wins over the environment, the environment over the settings file, the file over the
// default.
//
// Pure: flags, environment, file and current directory are handed in. Any thread.

#pragma once

#include <array>
#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <variant>

namespace VarnScripts {

/// One setting. The key in the settings file ("base_path") gives the flag ("--base-path") and the
/// environment variable ("VARN_BASE_PATH").
struct SettingDefinition {
  enum class Kind {
    text,
    number,  ///< a whole number of bytes
    toggle,  ///< true or false; as a flag it takes no value
  };

  std::string_view key;
  Kind kind;
  std::string_view valueName;  ///< what help calls the value: "DIR"
  std::string_view meaning;    ///< what help says
};

inline constexpr std::array kSettings = {
    SettingDefinition{"base_path", SettingDefinition::Kind::text, "DIR", "Agent base directory"},
    SettingDefinition{"data_path", SettingDefinition::Kind::text, "DIR",
                      "Agent data directory (default: base directory/data/customer)"},
    SettingDefinition{"customer", SettingDefinition::Kind::text, "ID", "Customer ID"},
    SettingDefinition{"server", SettingDefinition::Kind::text, "URL",
                      "Repository server: https://, http:// or file://"},
    SettingDefinition{"ca_file", SettingDefinition::Kind::text, "FILE",
                      "Authorities to trust, PEM (default: the system's)"},
    SettingDefinition{"client_cert", SettingDefinition::Kind::text, "FILE",
                      "Client certificate, PEM"},
    SettingDefinition{"client_key", SettingDefinition::Kind::text, "FILE",
                      "Key of the client certificate, PEM"},
    SettingDefinition{"proxy", SettingDefinition::Kind::text, "URL",
                      "Proxy (default: the environment's)"},
    SettingDefinition{"max_download", SettingDefinition::Kind::number, "BYTES",
                      "Most bytes that one download may receive or write (default: 1073741824)"},
    SettingDefinition{"max_output", SettingDefinition::Kind::number, "BYTES",
                      "Most bytes of a script's output that are written and logged (default: all)"},
    SettingDefinition{"log_format", SettingDefinition::Kind::text, "text|json",
                      "Form of the log (default: text)"},
    SettingDefinition{"log_file", SettingDefinition::Kind::text, "FILE",
                      "Log to a rotating file (default: standard error)"},
    SettingDefinition{"quiet", SettingDefinition::Kind::toggle, "", "No log on standard error"},
};

/// The setting's flag: "--base-path".
[[nodiscard]] std::string flagOf(std::string_view key);

/// The setting's environment variable: "VARN_BASE_PATH".
[[nodiscard]] std::string variableOf(std::string_view key);

/// All settings of one invocation. An empty text means "not given".
struct Settings {
  enum class LogFormat { text, json };

  std::string basePath;  ///< absolute, no trailing slash but for "/" itself
  std::string dataPath;  ///< absolute, no trailing slash but for "/" itself
  std::string customer;
  std::string server;
  std::string caFile;
  std::string clientCert;
  std::string clientKey;
  std::string proxy;
  std::uint64_t maxDownload = std::uint64_t{1} << 30;
  std::optional<std::uint64_t> maxOutput;
  LogFormat logFormat = LogFormat::text;
  std::string logFile;
  bool quiet = false;
  std::string settingsFile;  ///< where some of them may come from

  bool operator==(const Settings&) const = default;
};

/// Why there are no settings: one line that names the setting and where it was or can be given.
struct SettingsError {
  std::string line;

  bool operator==(const SettingsError&) const = default;
};

/// Settings as texts, by key. A toggle is "true" or "false".
using SettingTexts = std::map<std::string, std::string>;

/// The value of an environment variable, or nothing.
using Environment = std::function<std::optional<std::string>(const std::string& name)>;

/// The places that settings come from. An empty text counts as not given there; a command line with
/// an empty flag does not come this far.
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
};

/// The data path that `customer` has by default, which no other customer has.
[[nodiscard]] std::string ownDataPath(const std::string& basePath, const std::string& customer);

/// The settings of all places together, or the first thing that is wrong with them.
[[nodiscard]] std::variant<Settings, SettingsError> layerSettings(const SettingSources& sources,
                                                                  NeededSettings needed);

}  // namespace VarnScripts
