// Signs lists for tests with the keys of signing-vectors/, and with any comment.

#pragma once

#include <array>
#include <string>
#include <string_view>
#include <vector>

#include "signing/PublicKey.h"
#include "signing/TrustDecision.h"

/// The file `name` of signing-vectors/, which minisign has made.
[[nodiscard]] std::string vectorFile(const std::string& name);

/// The public key of signing-vectors/`name`.pub.
[[nodiscard]] AgentUtils::signing::PublicKey vectorKey(const std::string& name);

/// A key that signs whatever it is given.
class Signer {
 public:
  /// The key signing-vectors/`name`.key, which has no passphrase.
  explicit Signer(const std::string& name);

  /// The file of a signature over `list` with `comment`.
  [[nodiscard]] std::string sign(std::string_view list, std::string_view comment) const;

 private:
  std::vector<unsigned char> packed_;
};

/// "customer:acme", a tab, "serial:SERIAL" and so on.
[[nodiscard]] std::string commentWith(const std::string& serial,
                                      const std::string& published = "2026-11-22T11:30:00Z",
                                      const std::string& expires = "2026-12-22T11:30:00Z",
                                      const std::string& customer = "acme");

/// The time that `text` names, in the form of the comments.
[[nodiscard]] AgentUtils::signing::UTCTime at(std::string_view text);

/// A moment at which `commentWith` counts.
inline constexpr std::string_view kMeanwhile = "2026-12-01T00:00:00Z";

/// The refusal's sentence, or "(accepted)".
[[nodiscard]] std::string outcome(const AgentUtils::signing::Judgement& judgement);
