#include "Settings.h"

#include <algorithm>
#include <charconv>
#include <filesystem>
#include <utility>

namespace VarnScripts {
namespace {

// A setting's text and the place that gave it.
struct GivenText {
  std::string text;
  std::string place;
};

std::string inAscii(std::string_view text, char from, char to) {
  std::string result(text);
  std::replace(result.begin(), result.end(), from, to);
  return result;
}

std::string upperCase(std::string text) {
  for (char& c : text) {
    if (c >= 'a' && c <= 'z') c = static_cast<char>(c - 'a' + 'A');
  }
  return text;
}

std::string lowerCase(std::string text) {
  for (char& c : text) {
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
  }
  return text;
}

std::optional<std::string> textIn(const SettingTexts& texts, const std::string& key) {
  const auto found = texts.find(key);
  if (found == texts.end() || found->second.empty()) return std::nullopt;
  return found->second;
}

std::optional<GivenText> given(const SettingSources& sources, const std::string& key) {
  if (auto text = textIn(sources.flags, key)) return GivenText{std::move(*text), flagOf(key)};
  if (sources.environment) {
    auto text = sources.environment(variableOf(key));
    if (text && !text->empty()) return GivenText{std::move(*text), variableOf(key)};
  }
  if (auto text = textIn(sources.file, key)) {
    return GivenText{std::move(*text), "settings file " + sources.filePath};
  }
  return std::nullopt;
}

SettingsError missing(const std::string& key) {
  return {key + " is not set: give it with " + flagOf(key) + ", with " + variableOf(key) +
          " in the environment, or as " + key + " in the settings file (--config, VARN_CONFIG)"};
}

SettingsError wrong(const std::string& key, const GivenText& value, const std::string& why) {
  return {key + " (given by " + value.place + ") " + why};
}

// Lexically, so that a path is the same text whether or not it exists yet.
std::string absolutePath(const std::string& path, const std::string& currentDirectory) {
  const std::string whole = path.front() == '/' ? path : currentDirectory + "/" + path;
  std::string normal = std::filesystem::path(whole).lexically_normal().string();
  // A path of two leading slashes may be left as it is; here it means the root.
  while (normal.size() > 1 && normal[0] == '/' && normal[1] == '/') normal.erase(0, 1);
  while (normal.size() > 1 && normal.back() == '/') normal.pop_back();
  return normal;
}

std::string below(const std::string& directory, const std::string& name) {
  return directory == "/" ? directory + name : directory + "/" + name;
}

// The data path when none is given; empty when it depends on a customer and there is none.
std::string defaultDataPath(const SettingSources& sources, const Settings& settings) {
  // Older installations have one record for the base path, and go on with it.
  const std::string shared = below(settings.basePath, "data");
  const bool isOlder =
      sources.exists && sources.exists(shared + "/Configuration-Framework/ScriptRepository");
  if (isOlder) return shared;
  return settings.customer.empty() ? "" : ownDataPath(settings.basePath, settings.customer);
}

// What is wrong with a server location, or nothing. Never repeats it: it may hold a password.
std::optional<std::string> complaintAboutServer(const std::string& url) {
  const auto schemeEnd = url.find("://");
  const std::string scheme =
      schemeEnd == std::string::npos ? std::string() : lowerCase(url.substr(0, schemeEnd));
  if (scheme != "https" && scheme != "http" && scheme != "file") {
    return "must begin with https://, http:// or file://";
  }
  const std::string rest = url.substr(schemeEnd + 3);
  const std::string host = rest.substr(0, rest.find_first_of("/?#"));
  if (host.find('@') != std::string::npos) return "must not contain a user name or password";
  if (scheme == "file") {
    if (!host.empty() && lowerCase(host) != "localhost") {
      return "must be file:// followed by an absolute path, as in file:///srv/repository";
    }
    if (rest.size() == host.size()) return "names no directory";
    return std::nullopt;
  }
  if (host.empty() || host.front() == ':') return "names no host";
  // What is asked for is put at the end, and would become a part of either.
  if (rest.find_first_of("?#") != std::string::npos) return "must not contain ? or #";
  return std::nullopt;
}

std::optional<bool> toggleFrom(const std::string& text) {
  const std::string word = lowerCase(text);
  if (word == "true" || word == "yes" || word == "on" || word == "1") return true;
  if (word == "false" || word == "no" || word == "off" || word == "0") return false;
  return std::nullopt;
}

std::optional<std::uint64_t> bytesFrom(const std::string& text) {
  std::uint64_t value = 0;
  const char* const end = text.data() + text.size();
  const auto [stop, error] = std::from_chars(text.data(), end, value);
  if (error != std::errc{} || stop != end || value == 0) return std::nullopt;
  return value;
}

// Takes the settings from their places one by one and keeps the first complaint.
class Layering {
 public:
  explicit Layering(const SettingSources& sources) : sources_(sources) {}

  void takeText(const std::string& key, std::string& to) {
    if (const auto value = take(key)) to = value->text;
  }

  void takePath(const std::string& key, std::string& to) {
    if (const auto value = take(key)) to = absolutePath(value->text, sources_.currentDirectory);
  }

  void takeServer(std::string& to) {
    const auto value = take("server");
    if (!value) return;
    to = value->text;
    if (const auto complaint = complaintAboutServer(to)) {
      complain(wrong("server", *value, *complaint));
    }
  }

  void takeLogFormat(Settings::LogFormat& to) {
    const auto value = take("log_format");
    if (!value || value->text == "text") return;
    if (value->text != "json") {
      return complain(
          wrong("log_format", *value, "must be text or json, not \"" + value->text + "\""));
    }
    to = Settings::LogFormat::json;
  }

  /// `to` is a number of bytes, or one that need not be given.
  template <class Number>
  void takeBytes(const std::string& key, Number& to) {
    const auto value = take(key);
    if (!value) return;
    const auto bytes = bytesFrom(value->text);
    if (!bytes) {
      return complain(
          wrong(key, *value, "must be a number of bytes above zero, not \"" + value->text + "\""));
    }
    to = *bytes;
  }

  void takeQuiet(bool& to) {
    const auto value = take("quiet");
    if (!value) return;
    const auto toggle = toggleFrom(value->text);
    if (!toggle) {
      return complain(wrong("quiet", *value, "must be true or false, not \"" + value->text + "\""));
    }
    to = *toggle;
  }

  void complain(SettingsError error) {
    if (!error_) error_ = std::move(error);
  }

  [[nodiscard]] const std::optional<SettingsError>& error() const { return error_; }

 private:
  std::optional<GivenText> take(const std::string& key) {
    auto value = given(sources_, key);
    if (value && value->text.find('\0') != std::string::npos) {
      complain(wrong(key, *value, "must not contain a NUL character"));
      return std::nullopt;
    }
    return value;
  }

  const SettingSources& sources_;
  std::optional<SettingsError> error_;
};

}  // namespace

std::string flagOf(std::string_view key) { return "--" + inAscii(key, '_', '-'); }

std::string variableOf(std::string_view key) { return "VARN_" + upperCase(std::string(key)); }

std::string ownDataPath(const std::string& basePath, const std::string& customer) {
  return below(below(basePath, "data"), customer);
}

std::variant<Settings, SettingsError> layerSettings(const SettingSources& sources,
                                                    NeededSettings needed) {
  Settings settings;
  Layering layering(sources);
  layering.takePath("base_path", settings.basePath);
  layering.takePath("data_path", settings.dataPath);
  layering.takeText("customer", settings.customer);
  layering.takeServer(settings.server);
  layering.takeText("ca_file", settings.caFile);
  layering.takeText("client_cert", settings.clientCert);
  layering.takeText("client_key", settings.clientKey);
  layering.takeText("proxy", settings.proxy);
  layering.takeBytes("max_download", settings.maxDownload);
  layering.takeBytes("max_output", settings.maxOutput);
  layering.takeLogFormat(settings.logFormat);
  layering.takeText("log_file", settings.logFile);
  layering.takeQuiet(settings.quiet);

  const bool request = needed == NeededSettings::request;
  if (request && settings.basePath.empty()) layering.complain(missing("base_path"));
  if ((request || needed == NeededSettings::customer) && settings.customer.empty()) {
    layering.complain(missing("customer"));
  }
  if (request && settings.server.empty()) layering.complain(missing("server"));
  if (settings.dataPath.empty() && !settings.basePath.empty()) {
    settings.dataPath = defaultDataPath(sources, settings);
  }
  if (needed != NeededSettings::customer && settings.dataPath.empty()) {
    layering.complain(missing(settings.basePath.empty() ? "data_path" : "customer"));
  }

  if (layering.error()) return *layering.error();
  return settings;
}

}  // namespace VarnScripts
