#include "publish/Manifest.h"

#include <iterator>
#include <optional>
#include <string_view>
#include <utility>

#include "ParsedToml.h"

namespace VarnScripts::publishing {
namespace {

// One value of a script: its key and the member that takes it. In the order in which they are
// reported.
struct ScriptKey {
  std::string_view name;
  ManifestText ManifestScript::*member;
};

constexpr ScriptKey kScriptKeys[] = {
    {"id", &ManifestScript::id},
    {"file", &ManifestScript::file},
    {"arguments", &ManifestScript::arguments},
    {"accepted_codes", &ManifestScript::acceptedCodes},
    {"name", &ManifestScript::name},
    {"description", &ManifestScript::description},
    {"platform", &ManifestScript::platform},
};

// "a, b and c".
std::string listedKeys() {
  std::string text;
  for (const ScriptKey& key : kScriptKeys) {
    if (!text.empty()) text += &key == std::end(kScriptKeys) - 1 ? " and " : ", ";
    text += key.name;
  }
  return text;
}

std::size_t lineOf(const toml::node& node) { return node.source().begin.line; }

// The numbers of a list, separated by commas, or nothing when one of them is no whole number.
std::optional<std::string> joinedNumbers(const toml::array& list) {
  std::string joined;
  for (const toml::node& element : list) {
    const auto* const number = element.as_integer();
    if (number == nullptr) return std::nullopt;
    if (&element != list.get(0)) joined += ',';
    joined += std::to_string(number->get());
  }
  return joined;
}

class Reader {
 public:
  Reader(const std::string& file, Findings& findings) : file_(file), findings_(findings) {}

  Manifest read(const toml::table& root) {
    Manifest manifest;
    for (const auto& [key, node] : root) {
      if (key == "digest") {
        take(node, key.str(), manifest.digest);
      } else if (key == "script") {
        takeScripts(node, manifest.scripts);
      } else {
        refuse(key.source().begin.line, "unknown key " + quoted(key.str()),
               "the manifest's keys are digest and script");
      }
    }
    return manifest;
  }

 private:
  void refuse(std::size_t line, std::string what, std::string remedy) {
    findings_.refuse({file_, line}, std::move(what), std::move(remedy));
  }

  void take(const toml::node& node, std::string_view key, ManifestText& to) {
    if (const auto* const text = node.as_string()) {
      to = {text->get(), lineOf(node)};
      return;
    }
    refuse(lineOf(node), std::string(key) + " must be a text", "write it between quotation marks");
  }

  void takeCodes(const toml::node& node, ManifestText& to) {
    std::optional<std::string> codes;
    if (const auto* const text = node.as_string()) codes = text->get();
    if (const auto* const list = node.as_array()) codes = joinedNumbers(*list);
    if (codes) {
      to = {std::move(*codes), lineOf(node)};
      return;
    }
    refuse(lineOf(node), "accepted_codes must be a text or a list of whole numbers",
           "write it as \"0,3\" or as [0, 3]");
  }

  void takeScripts(const toml::node& node, std::vector<ManifestScript>& to) {
    const toml::array* const list = node.as_array();
    if (list == nullptr) {
      refuse(lineOf(node), "script must be a list of tables",
             "write [[script]] above each script's keys");
      return;
    }
    for (const toml::node& element : *list) {
      const toml::table* const table = element.as_table();
      if (table == nullptr) {
        refuse(lineOf(element), "script must be a list of tables",
               "write [[script]] above each script's keys");
      } else {
        takeScript(*table, to);
      }
    }
  }

  void takeScript(const toml::table& table, std::vector<ManifestScript>& to) {
    ManifestScript script;
    script.line = lineOf(table);
    for (const ScriptKey& key : kScriptKeys) (script.*key.member).line = script.line;
    script.acceptedCodes.value = "0";
    script.platform.value = "Mac";
    for (const auto& [key, node] : table) takeValue(key, node, script);

    if (!table.contains("id")) refuse(script.line, "the script has no id", "give it one");
    if (!table.contains("file")) {
      refuse(script.line, "the script has no file", "name one that lies beside the manifest");
    }
    // Of the wrong type: already refused.
    const bool complete = table["id"].is_string() && table["file"].is_string();
    if (!complete) return;
    if (!table.contains("name")) script.name.value = script.file.value;
    to.push_back(std::move(script));
  }

  void takeValue(const toml::key& key, const toml::node& node, ManifestScript& script) {
    for (const ScriptKey& known : kScriptKeys) {
      if (key != known.name) continue;
      ManifestText& to = script.*known.member;
      return &to == &script.acceptedCodes ? takeCodes(node, to) : take(node, known.name, to);
    }
    refuse(key.source().begin.line, "unknown key " + quoted(key.str()),
           "a script's keys are " + listedKeys());
  }

  const std::string& file_;
  Findings& findings_;
};

}  // namespace

Manifest parseManifest(const std::string& text, const std::string& file, Findings& findings) {
  try {
    return Reader(file, findings).read(parsedToml(text, file));
  } catch (const toml::parse_error& error) {
    findings.refuse({file, error.source().begin.line}, std::string(error.description()),
                    "correct the manifest's TOML");
    return {};
  }
}

}  // namespace VarnScripts::publishing
