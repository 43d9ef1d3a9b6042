// Where passphrases come from: the terminal, without showing what is typed, or a file that was
// named. Never the command line or the environment, which other users and programs can read. On the
// thread of the command.

#pragma once

#include <string>
#include <variant>

#include "key/Secret.h"
#include "signing/Refusal.h"

namespace VarnScripts::keys {

/// Asks the person at the process's terminal, with `question` in front of the answer. A signal that
/// would end the process ends it, with the terminal as it was. Refused when there is no terminal,
/// and an answer that is empty or too long.
[[nodiscard]] std::variant<Passphrase, AgentUtils::signing::Refusal> askForPassphrase(
    const std::string& question);

/// The first line of the file at `path`, which may be a pipe such as "/dev/fd/3"; a regular file
/// must be for this user alone, as that of a secret key. Refused when that is empty or too long.
[[nodiscard]] std::variant<Passphrase, AgentUtils::signing::Refusal> passphraseIn(
    const std::string& path);

}  // namespace VarnScripts::keys
