// What the command line asks of a publication's signatures.

#pragma once

#include <chrono>
#include <optional>
#include <string>
#include <vector>

namespace VarnScripts::publishing {

/// For how long a signature counts when nobody says.
inline constexpr std::chrono::seconds kUsualLifetime = std::chrono::days(30);

struct SigningOptions {
  std::vector<std::string> keyFiles;             ///< `--sign-with`
  std::vector<std::string> passphraseFiles;      ///< in place of asking the terminal
  std::optional<std::chrono::seconds> lifetime;  ///< `--expires`
  std::string leaveIn;                ///< `--unsigned-for`: where the list is left for signing
  std::vector<std::string> attached;  ///< `--attach`: signature files that were made elsewhere
  std::vector<std::string> signedBy;  ///< public keys of those who sign elsewhere, lines or files
  bool renew = false;
  bool withoutSignature = false;  ///< `--unsigned`, though the published list is signed

  /// Whether anything is signed, here or elsewhere.
  [[nodiscard]] bool any() const { return !keyFiles.empty() || !signedBy.empty(); }
};

}  // namespace VarnScripts::publishing
