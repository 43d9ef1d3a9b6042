// The digests that checksums are made of: by the names that servers, manifests and command lines
// have for them, of bytes and of files. Any thread. Without memory they throw `std::bad_alloc`.

#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

#include "FileDescriptor.h"

namespace AgentUtils {

/// A digest that is known here.
struct DigestKind {
  std::string_view name;  ///< as documents have it: "sha256"
  bool forgeable;         ///< whether other bytes with the same digest can be made
};

/// The kind that `name` names, whatever its case and with `-`, `_` and blanks anywhere in it
/// ("SHA-256", "sha 256", "Sha_256"; "SHA" is SHA-1). Null for any other name.
[[nodiscard]] const DigestKind* digestKind(std::string_view name);

/// The kind that is used where nobody asks for another: SHA-256.
[[nodiscard]] const DigestKind& usualDigest();

/// The digest of `bytes` in lower-case hexadecimal. `kind` is one of those above.
[[nodiscard]] std::string hexDigest(const DigestKind& kind, std::string_view bytes);

/// The digest of the whole open file, wherever its descriptor stands, likewise. It is read in
/// pieces, so its size costs no memory; `size` is about how large it is. Nothing when it can't be
/// read.
[[nodiscard]] std::optional<std::string> hexDigest(const DigestKind& kind,
                                                   const posix::FileDescriptor& file,
                                                   std::size_t size);

/// Whether `checksum` is that digest, in hexadecimal digits of either case.
[[nodiscard]] bool isDigest(std::string_view checksum, std::string_view hexDigest);

}  // namespace AgentUtils
