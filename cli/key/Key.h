// The commands `key generate`, `key show` and `key verify`: the keys that lists are signed with.

#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "Settings.h"

namespace VarnScripts {

struct CommandLine;

/// What the commands take beside the settings.
struct KeyOptions {
  std::string file;                     ///< a key; of `verify` the list
  std::string passphraseFile;           ///< empty: the terminal is asked
  bool noPassphrase = false;            ///< of `generate`
  std::vector<std::string> signatures;  ///< of `verify`: files; none means those beside the list
};

/// Makes a key: the secret one at the path that was given, the public one in a file of that name
/// with ".pub" behind it, and on standard output. Gives the exit status; what went wrong is one
/// line on standard error.
int generateKey(const CommandLine& line, const Settings& settings);

/// Writes the public key of a secret or public key to standard output, likewise.
int showKey(const CommandLine& line, const Settings& settings);

/// Tells whether a list is signed by enough of the keys that `settings` trusts, likewise. When a
/// customer is set, it must be signed for that one.
int verifyList(const CommandLine& line, const Settings& settings);

}  // namespace VarnScripts
