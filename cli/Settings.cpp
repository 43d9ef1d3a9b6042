#include "Settings.h"

#include <algorithm>
#include <charconv>
#include <filesystem>
#include <utility>
#include <vector>

#include "ServerURL.h"
#include "signing/TrustStateFile.h"

namespace VarnScripts {
namespace {

// The places, the nearer the larger.
enum class Place { file, environment, flag };

// A setting's text and the place that gave it.
struct GivenText {
  std::string text;
  std::string placeName;
  Place place;
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

const SettingDefinition* definitionOf(std::string_view key) {
  const auto all = settingDefinitions();
  const auto found = std::ranges::find(all, key, &SettingDefinition::key);
  return found == all.end() ? nullptr : &*found;
}

std::optional<GivenText> given(const SettingSources& sources, const std::string& key) {
  if (auto text = textIn(sources.flags, key)) {
    return GivenText{std::move(*text), flagOf(key), Place::flag};
  }
  if (sources.environment) {
    auto text = sources.environment(variableOf(key));
    const SettingDefinition& definition = *definitionOf(key);
    if (text && definition.kind() == SettingDefinition::Kind::texts) {
      std::ranges::replace_if(
          *text, [](char c) { return c == ' ' || c == '\t'; }, '\n');
    }
    if (text && (definition.protects || !text->empty())) {
      return GivenText{std::move(*text), variableOf(key), Place::environment};
    }
  }
  if (auto text = textIn(sources.file, key)) {
    return GivenText{std::move(*text), nameOfSettingsFile(sources.filePath), Place::file};
  }
  return std::nullopt;
}

SettingsError missing(const std::string& key) {
  return {key + " is not set: give it with " + flagOf(key) + ", with " + variableOf(key) +
          " in the environment, or as " + key + " in the settings file (--config, VARN_CONFIG)"};
}

SettingsError wrong(const std::string& key, const GivenText& value, const std::string& why) {
  return {key + " (given by " + value.placeName + ") " + why};
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
  // Older installations have one record for the base path, and go on with it; so do they with what
  // they have accepted when the store alone was removed.
  std::string shared = below(settings.agent.basePath, "data");
  const bool isOlder =
      sources.exists && (sources.exists(shared + "/Configuration-Framework/ScriptRepository") ||
                         sources.exists(AgentUtils::signing::trustStatePath(shared)));
  if (isOlder) return shared;
  return settings.agent.customerID.empty()
             ? ""
             : ownDataPath(settings.agent.basePath, settings.agent.customerID);
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

// What is wrong with a path, or nothing: what a shell would have replaced would become a directory
// of that name.
std::optional<std::string> complaintAboutPath(const std::string& path) {
  if (path.front() == '~') return "begins with ~, which only a shell replaces: give the whole path";
  for (std::size_t at = path.find('$'); at != path.npos; at = path.find('$', at + 1)) {
    const char next = at + 1 < path.size() ? path[at + 1] : ' ';
    if (next == '{' || next == '(' || next == '_' || (next >= 'A' && next <= 'Z') ||
        (next >= 'a' && next <= 'z')) {
      return "has a variable in it, which only a shell replaces: give the whole path";
    }
  }
  return std::nullopt;
}

// The customer is the name of a directory, here and on the server.
std::optional<std::string> complaintAboutCustomer(const std::string& customer) {
  if (customer == "." || customer == ".." || customer.find('/') != customer.npos) {
    return "must be the name of a directory, without a slash";
  }
  return std::nullopt;
}

std::optional<std::uint64_t> numberFrom(const std::string& text) {
  std::uint64_t value = 0;
  const char* const end = text.data() + text.size();
  const auto [stop, error] = std::from_chars(text.data(), end, value);
  if (error != std::errc{} || stop != end) return std::nullopt;
  return value;
}

// How many there must be at least.
std::optional<std::string> complaintAboutCount(const std::string& text) {
  constexpr std::uint64_t kMost = 10;
  const auto count = numberFrom(text);
  if (count && *count >= 1 && *count <= kMost) return std::nullopt;
  return "must be a number from 1 to " + std::to_string(kMost) + ", not \"" + text + "\"";
}

std::optional<bool> toggleFrom(const std::string& text) {
  const std::string word = lowerCase(text);
  if (word == "true" || word == "yes" || word == "on" || word == "1") return true;
  if (word == "false" || word == "no" || word == "off" || word == "0") return false;
  return std::nullopt;
}

// "text" and "json" of "text|json".
std::vector<std::string_view> namesOfChoice(std::string_view valueName) {
  std::vector<std::string_view> names;
  while (true) {
    const std::size_t bar = valueName.find('|');
    names.push_back(valueName.substr(0, bar));
    if (bar == valueName.npos) return names;
    valueName.remove_prefix(bar + 1);
  }
}

// The texts that stand on lines of their own.
std::vector<std::string> linesOf(std::string_view text) {
  std::vector<std::string> lines;
  while (!text.empty()) {
    const std::string_view line = text.substr(0, text.find('\n'));
    if (!line.empty()) lines.emplace_back(line);
    text.remove_prefix(std::min(line.size() + 1, text.size()));
  }
  return lines;
}

// Takes a text into the setting's value; gives what is wrong with it.
class Taking {
 public:
  Taking(const std::string& text, const SettingDefinition& definition,
         const std::string& currentDirectory)
      : text_(text), definition_(definition), currentDirectory_(currentDirectory) {}

  using Complaint = std::optional<std::string>;

  Complaint operator()(std::string* to) const {
    *to = definition_.isDirectory ? absolutePath(text_, currentDirectory_) : text_;
    return std::nullopt;
  }

  Complaint operator()(std::vector<std::string>* to) const {
    *to = linesOf(text_);
    if (to->empty()) return "is empty: give at least one, or leave it out";
    return std::nullopt;
  }

  Complaint operator()(std::uint64_t* to) const {
    const auto bytes = numberFrom(text_);
    if (!bytes || *bytes == 0) return "must be a number of bytes above zero, not \"" + text_ + "\"";
    *to = *bytes;
    return std::nullopt;
  }

  Complaint operator()(std::optional<std::uint64_t>* to) const { return (*this)(&to->emplace()); }

  Complaint operator()(std::uint32_t* to) const {
    const auto times = numberFrom(text_);
    if (!times || *times > kMostTimes) {
      return "must be a number from 0 to " + std::to_string(kMostTimes) + ", not \"" + text_ + "\"";
    }
    *to = static_cast<std::uint32_t>(*times);
    return std::nullopt;
  }

  Complaint operator()(bool* to) const {
    const auto toggle = toggleFrom(text_);
    if (!toggle) return "must be true or false, not \"" + text_ + "\"";
    *to = *toggle;
    return std::nullopt;
  }

  template <class Choice>
  Complaint operator()(Choice* to) const {
    const std::vector<std::string_view> names = namesOfChoice(definition_.valueName);
    const auto found = std::ranges::find(names, text_);
    if (found == names.end()) return complaintAboutChoice(names);
    *to = static_cast<Choice>(found - names.begin());
    return std::nullopt;
  }

  template <class Choice>
  Complaint operator()(std::optional<Choice>* to) const {
    return (*this)(&to->emplace());
  }

 private:
  static constexpr std::uint32_t kMostTimes = 10;

  [[nodiscard]] std::string complaintAboutChoice(const std::vector<std::string_view>& names) const {
    std::string complaint = "must be ";
    for (const std::string_view& name : names) {
      if (&name != &names.front()) complaint += &name == &names.back() ? " or " : ", ";
      complaint += name;
    }
    return complaint + ", not \"" + text_ + "\"";
  }

  const std::string& text_;
  const SettingDefinition& definition_;
  const std::string& currentDirectory_;
};

// Takes one setting from its place; gives what is wrong with it.
std::optional<SettingsError> take(const SettingDefinition& definition,
                                  const SettingSources& sources, Settings& settings) {
  const std::string key(definition.key);
  const auto value = given(sources, key);
  if (!value) return std::nullopt;
  if (value->text.find('\0') != std::string::npos) {
    return wrong(key, *value, "must not contain a NUL character");
  }
  auto complaint = definition.complaint != nullptr ? definition.complaint(value->text)
                                                   : std::optional<std::string>();
  if (!complaint) {
    complaint = std::visit(Taking(value->text, definition, sources.currentDirectory),
                           definition.member(settings));
  }
  if (!complaint) return std::nullopt;
  return wrong(key, *value, *complaint);
}

// The key of the first setting that is needed and not there.
std::optional<std::string> missingKey(const Settings& settings, NeededSettings needed) {
  if (needed == NeededSettings::nothing) return std::nullopt;
  if (needed == NeededSettings::trustedKeys) {
    return settings.agent.trustedKeys.empty() ? std::optional<std::string>("trusted_keys")
                                              : std::nullopt;
  }
  const auto& agent = settings.agent;
  const bool request = needed == NeededSettings::request;
  if (request && agent.basePath.empty()) return "base_path";
  if ((request || needed == NeededSettings::customer) && agent.customerID.empty()) {
    return "customer";
  }
  if (request && agent.serverURL.empty()) return "server";
  if (needed != NeededSettings::customer && agent.dataPath.empty()) {
    return agent.basePath.empty() ? "data_path" : "customer";
  }
  return std::nullopt;
}

// What is wrong with the server's URL as such, or nothing. Only curl knows, and it is loaded for
// who asks that server.
std::optional<SettingsError> complaintAboutURL(const SettingSources& sources,
                                               const Settings& settings, NeededSettings needed) {
  const std::string& url = settings.agent.serverURL;
  if (needed != NeededSettings::request || AgentUtils::hasScheme(url, "file")) return std::nullopt;
  const auto complaint = AgentUtils::complaintAboutURL(url);
  if (!complaint) return std::nullopt;
  return wrong("server", *given(sources, "server"), "is no URL: " + *complaint);
}

// A flag that names one of several is easily taken for the name of the variable.
std::optional<SettingsError> complaintAboutVariables(const SettingSources& sources) {
  if (!sources.environment) return std::nullopt;
  for (const SettingDefinition& definition : settingDefinitions()) {
    if (definition.flag.empty()) continue;
    const std::string name = variableOf(inAscii(definition.flag.substr(2), '-', '_'));
    if (sources.environment(name)) {
      return SettingsError{name + " is no setting: the variable of " + std::string(definition.key) +
                           " is " + variableOf(definition.key)};
    }
  }
  return std::nullopt;
}

// Several keys may be one in the end; whoever reads them counts again.
std::optional<SettingsError> complaintAboutSignatures(const SettingSources& sources,
                                                      const Settings& settings) {
  const std::string key = "signatures_needed";
  const std::size_t keys = settings.agent.trustedKeys.size();
  const auto value = given(sources, key);
  if (!value || settings.agent.signaturesNeeded <= keys) return std::nullopt;
  if (keys == 0) return wrong(key, *value, "has no use without trusted_keys");
  return wrong(key, *value, "is more than there are trusted_keys: " + std::to_string(keys));
}

// Of a wish for the log on standard error and one for nothing there, the nearer one counts; when
// both come from one place, it stays quiet.
void decideAboutStandardError(const SettingSources& sources, Settings& settings) {
  AgentLog::LogSettings& log = settings.log;
  if (settings.verbose && log.quiet) {
    log.quiet = given(sources, "quiet")->place >= given(sources, "verbose")->place;
    settings.verbose = !log.quiet;
  }
  using StandardError = AgentLog::LogSettings::StandardError;
  const bool hasFormat = given(sources, "log_format").has_value();
  log.standardError = settings.verbose ? StandardError::always
                      : hasFormat      ? StandardError::otherwise
                                       : StandardError::never;
}

constexpr SettingDefinition kSettings[] = {
    {"base_path", "DIR", "Agent base directory",
     [](Settings& s) -> SettingMember { return &s.agent.basePath; }, complaintAboutPath, true},
    {"data_path", "DIR", "Agent data directory (default: base directory/data/customer)",
     [](Settings& s) -> SettingMember { return &s.agent.dataPath; }, complaintAboutPath, true},
    {"customer", "ID", "Customer ID",
     [](Settings& s) -> SettingMember { return &s.agent.customerID; }, complaintAboutCustomer},
    {"server", "URL", "Repository server: https://, http:// or file://",
     [](Settings& s) -> SettingMember { return &s.agent.serverURL; }, complaintAboutServer},
    {"ca_file", "FILE", "Authorities to trust, PEM (default: the system's)",
     [](Settings& s) -> SettingMember { return &s.agent.caFile; }, complaintAboutPath},
    {"client_cert", "FILE", "Client certificate, PEM",
     [](Settings& s) -> SettingMember { return &s.agent.clientCert; }, complaintAboutPath},
    {"client_key", "FILE", "Key of the client certificate, PEM",
     [](Settings& s) -> SettingMember { return &s.agent.clientKey; }, complaintAboutPath},
    {"proxy", "URL", "Proxy (default: the environment's)",
     [](Settings& s) -> SettingMember { return &s.agent.proxy; }},
    {"trusted_keys", "KEY",
     "A public key, its line or its file, by which the server's list must be signed; may be given "
     "several times (key trusted_keys, VARN_TRUSTED_KEYS; default: none, and no list is verified)",
     [](Settings& s) -> SettingMember { return &s.agent.trustedKeys; }, nullptr, false, 0, true,
     "--trusted-key"},
    {"signatures_needed", "N", "How many of the trusted keys have to have signed (default: 1)",
     [](Settings& s) -> SettingMember { return &s.agent.signaturesNeeded; }, complaintAboutCount,
     false, 0, true},
    {"header_file", "FILE", "More headers for the server, a line \"Name: value\" for each",
     [](Settings& s) -> SettingMember { return &s.headerFile; }, complaintAboutPath},
    {"netrc_file", "FILE", "Login for the server, in the netrc format (default: none)",
     [](Settings& s) -> SettingMember { return &s.agent.netrcFile; }, complaintAboutPath},
    {"retry", "N", "How often a download that failed is tried again (default: 2)",
     [](Settings& s) -> SettingMember { return &s.agent.retries; }},
    {"max_download", "BYTES",
     "Most bytes that one download may receive or write (default: 1073741824)",
     [](Settings& s) -> SettingMember { return &s.agent.maxDownload; }},
    {"max_output", "BYTES",
     "Most bytes of a script's output that are written and logged (default: all)",
     [](Settings& s) -> SettingMember { return &s.maxOutput; }},
    {"verbose", "", "Log on standard error",
     [](Settings& s) -> SettingMember { return &s.verbose; }, nullptr, false, 'v'},
    {"log_level", "info|warning|error", "Least that is logged (default: info)",
     [](Settings& s) -> SettingMember { return &s.log.least; }},
    {"log_format", "text|json", "Log in this form, on standard error unless elsewhere",
     [](Settings& s) -> SettingMember { return &s.log.format; }},
    {"log_file", "FILE", "Log to a rotating file",
     [](Settings& s) -> SettingMember { return &s.log.file; }, complaintAboutPath},
    {"log_target", "syslog|journald", "Log to the system's log",
     [](Settings& s) -> SettingMember { return &s.log.target; }},
    {"quiet", "", "No progress, warnings or log on standard error",
     [](Settings& s) -> SettingMember { return &s.log.quiet; }},
};

}  // namespace

std::span<const SettingDefinition> settingDefinitions() { return kSettings; }

SettingDefinition::Kind SettingDefinition::kind() const {
  Settings any;
  const SettingMember value = member(any);
  if (std::holds_alternative<bool*>(value)) return Kind::toggle;
  if (std::holds_alternative<std::vector<std::string>*>(value)) return Kind::texts;
  const bool isNumber = std::holds_alternative<std::uint64_t*>(value) ||
                        std::holds_alternative<std::optional<std::uint64_t>*>(value) ||
                        std::holds_alternative<std::uint32_t*>(value);
  return isNumber ? Kind::number : Kind::text;
}

std::string flagOf(std::string_view key) {
  const SettingDefinition* const definition = definitionOf(key);
  if (definition != nullptr && !definition->flag.empty()) return std::string(definition->flag);
  return "--" + inAscii(key, '_', '-');
}

std::string variableOf(std::string_view key) { return "VARN_" + upperCase(std::string(key)); }

std::string nameOfSettingsFile(std::string_view path) {
  return path == kStandardInput ? "standard input" : "settings file " + std::string(path);
}

std::string ownDataPath(const std::string& basePath, const std::string& customer) {
  return below(below(basePath, "data"), customer);
}

// Layered here and not by CLI11, which lets the settings file win over the environment, and knows
// nothing of the place that a value was given in.
std::variant<Settings, SettingsError> layerSettings(const SettingSources& sources,
                                                    NeededSettings needed) {
  Settings settings;
  if (auto error = complaintAboutVariables(sources)) return *error;
  for (const SettingDefinition& definition : kSettings) {
    if (auto error = take(definition, sources, settings)) return *error;
  }
  if (settings.agent.dataPath.empty() && !settings.agent.basePath.empty()) {
    settings.agent.dataPath = defaultDataPath(sources, settings);
  }
  if (const auto key = missingKey(settings, needed)) return missing(*key);
  if (auto error = complaintAboutURL(sources, settings, needed)) return *error;
  if (auto error = complaintAboutSignatures(sources, settings)) return *error;
  decideAboutStandardError(sources, settings);
  return settings;
}

}  // namespace VarnScripts
