// Digests of bytes: by the names that the manifest and the command line take. Any thread.

#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace VarnScripts::publishing {

/// A digest that clients know.
struct DigestKind {
  std::string_view name;  ///< as the documents name it: "sha256"
  bool forgeable;         ///< whether other bytes with the same digest can be made
};

/// The kind that `name` names in any usual spelling ("SHA-256", "sha_256"), or nothing.
[[nodiscard]] std::optional<DigestKind> digestKind(std::string_view name);

/// The digest of `bytes` in lower-case hexadecimal. `kind` is the name of a `DigestKind`. Throws
/// `std::invalid_argument` for another one. Without memory it throws and nothing worse.
[[nodiscard]] std::string hexDigest(std::string_view kind, std::string_view bytes);

}  // namespace VarnScripts::publishing
