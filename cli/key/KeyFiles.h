// The files of keys: made for the owner alone, and refused when others may look into them. Any
// thread.

#pragma once

#include <sys/stat.h>

#include <optional>
#include <string>
#include <string_view>
#include <variant>

#include "key/Secret.h"
#include "key/SecretKey.h"
#include "signing/PublicKey.h"
#include "signing/Refusal.h"

namespace VarnScripts::keys {

/// Why a file of this owner and mode is not one for a secret: it must be of this user's or root's,
/// and nobody else may read or write it. Empty when it is one.
[[nodiscard]] std::string openToOthers(const struct stat& status);

/// What a key's file holds, and `openToOthers` of it.
struct KeyFile {
  KeyText text;
  std::string openToOthers;  ///< empty when it may hold a secret key
};

/// The file of a key, secret or public, at `path`: a regular file.
[[nodiscard]] std::variant<KeyFile, Refusal> readKeyFile(const std::string& path);

/// Takes the passphrase of the key at `path` from the file `passphraseFile`, or asks the terminal
/// for it when that is empty.
[[nodiscard]] AskPassphrase passphraseOf(std::string path, std::string passphraseFile);

/// The secret key at `path`, in a file that is for its owner alone; `ask` gives the passphrase of
/// one that is protected. From the first of them on this process has no core dumps.
[[nodiscard]] std::variant<SecretKey, Refusal> secretKeyIn(const std::string& path,
                                                           const AskPassphrase& ask);

/// The public key that `given` is: its line, or the path of its file.
[[nodiscard]] std::variant<PublicKey, Refusal> publicKeyGiven(const std::string& given);

/// Why no new key can be written to `path` and `publicPath`: one of them is there. Nothing when
/// they are not.
[[nodiscard]] std::optional<Refusal> complaintAboutNewKey(const std::string& path,
                                                          const std::string& publicPath);

/// Writes a new secret key to `path` (0600) and its public one to `publicPath` (0644), on the disk
/// when this returns. Neither may be there. After a refusal neither is, unless it was before.
[[nodiscard]] std::optional<Refusal> writeKeyFiles(const std::string& path, const KeyText& secret,
                                                   const std::string& publicPath,
                                                   const PublicKey& key);

}  // namespace VarnScripts::keys
