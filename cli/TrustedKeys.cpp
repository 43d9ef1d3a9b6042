#include "TrustedKeys.h"

#include <algorithm>

#include "key/KeyFiles.h"

namespace VarnScripts {
namespace {

using AgentUtils::signing::PublicKey;
using AgentUtils::signing::Refusal;

SettingsError wrong(const std::string& key, const std::string& what) {
  return {key + " (" + flagOf(key) + ", " + variableOf(key) + ")" + what};
}

}  // namespace

std::variant<std::vector<PublicKey>, SettingsError> trustedKeysOf(const Settings& settings) {
  std::vector<PublicKey> keys;
  for (const std::string& given : settings.agent.trustedKeys) {
    const auto key = keys::publicKeyGiven(given);
    if (const auto* const why = std::get_if<Refusal>(&key)) {
      return wrong("trusted_keys", ": " + why->sentence);
    }
    const auto& found = std::get<PublicKey>(key);
    if (std::ranges::find(keys, found) == keys.end()) keys.push_back(found);
  }
  if (const auto why = AgentUtils::signing::complaintAboutNumbers(keys)) {
    return wrong("trusted_keys", ": " + why->sentence);
  }
  if (!keys.empty() && settings.agent.signaturesNeeded > keys.size()) {
    return wrong("signatures_needed",
                 " is more than there are trusted_keys: " + std::to_string(keys.size()));
  }
  return keys;
}

std::vector<std::string> filesOfTrustedKeys(const Settings& settings) {
  std::vector<std::string> files;
  for (const std::string& given : settings.agent.trustedKeys) {
    const auto key = AgentUtils::signing::parsePublicKey(given);
    if (std::holds_alternative<Refusal>(key)) files.push_back(given);
  }
  return files;
}

std::string whoSigned(const AgentUtils::ListJudgement& list) {
  std::string text = "signed by ";
  for (const std::string& name : list.signedBy) {
    if (&name != &list.signedBy.front()) text += " and ";
    text += name;
  }
  return text + ", serial " + std::to_string(list.serial) + ", until " + list.expires;
}

}  // namespace VarnScripts
