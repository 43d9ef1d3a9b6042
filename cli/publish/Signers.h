// Who signs a publication: the keys and the signatures that the command line names.

#pragma once

#include <string>
#include <variant>
#include <vector>

#include "key/SecretKey.h"
#include "publish/SigningOptions.h"

namespace VarnScripts::publishing {

using AgentUtils::signing::PublicKey;
using AgentUtils::signing::Refusal;

/// Who signs a list.
struct Signers {
  std::vector<keys::SecretKey> here;  ///< in the order in which they were given
  std::vector<PublicKey> elsewhere;   ///< the keys of those who sign on another computer
  /// The signature files that these have made.
  std::vector<std::string> attached;

  /// All keys, those of this computer first.
  [[nodiscard]] std::vector<PublicKey> all() const;
};

/// Why there are no signers, and the exit status for that.
struct NoSigners {
  std::string sentence;
  int exitStatus;
};

/// Reads the keys and the signature files that `options` name, and asks for passphrases. The first
/// passphrase file is for the first key that is protected, and so on; the last one serves all that
/// are left. Refused when a key is there twice.
[[nodiscard]] std::variant<Signers, NoSigners> signersFor(const SigningOptions& options);

}  // namespace VarnScripts::publishing
