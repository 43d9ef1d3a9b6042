// The keys that settings trust: lines and files of public keys become keys. On the thread of the
// command.

#pragma once

#include <string>
#include <variant>
#include <vector>

#include "AgentSettings.h"
#include "Settings.h"
#include "signing/PublicKey.h"

namespace VarnScripts {

/// The keys of `trusted_keys`, each once, or what is wrong with one, or with how many of them have
/// to have signed.
[[nodiscard]] std::variant<std::vector<AgentUtils::signing::PublicKey>, SettingsError>
trustedKeysOf(const Settings& settings);

/// The files among what is given for `trusted_keys`.
[[nodiscard]] std::vector<std::string> filesOfTrustedKeys(const Settings& settings);

/// "signed by 293CBC668E52E64C, serial 7, until 2026-12-22T11:30:00Z", of a list that counts.
[[nodiscard]] std::string whoSigned(const AgentUtils::ListJudgement& list);

}  // namespace VarnScripts
