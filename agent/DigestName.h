// The names and values of checksums as servers spell them. Pure functions.

#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

namespace AgentUtils {

/// A digest algorithm. The value is the digest's length in bytes.
enum class Digest : std::size_t {
  md5 = 16,
  sha1 = 20,
  sha224 = 28,
  sha256 = 32,
  sha384 = 48,
  sha512 = 64
};

/// The algorithm that `checksumType` names, whatever its case and with `-`, `_` and blanks anywhere
/// in it ("SHA-256", "sha 256", "Sha_256"; "SHA" is SHA-1). Nothing for any other name.
[[nodiscard]] std::optional<Digest> digestOfName(std::string_view checksumType);

/// The bytes that `checksum` gives in hexadecimal digits of either case. Nothing unless it is
/// hexadecimal digits alone and exactly the digest's length.
[[nodiscard]] std::optional<std::string> digestBytes(Digest digest, std::string_view checksum);

}  // namespace AgentUtils
