// One signature over a list, in the public format of minisign: Ed25519 over the list's BLAKE2b-512,
// and a comment that is signed with it. Nothing is judged here but whether the key made it. Any
// thread.

#pragma once

#include <array>
#include <cstddef>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "signing/PublicKey.h"
#include "signing/Refusal.h"

namespace AgentUtils::signing {

/// The BLAKE2b-512 of a list: what is signed in its place.
using ListHash = std::array<unsigned char, 64>;

[[nodiscard]] ListHash hashOfList(std::string_view list);

/// A signature file's content. The comment in its first line is left out: nobody has signed it.
struct ListSignature {
  KeyNumber key{};  ///< which key it says it is by
  std::array<unsigned char, 64> overList{};
  std::string comment;                          ///< see `SignedComment`
  std::array<unsigned char, 64> overComment{};  ///< over `overList` and the comment

  bool operator==(const ListSignature&) const = default;
};

inline constexpr std::size_t kLongestSignatureFile = 4096;

/// Takes a signature file apart; a line break at its end may be missing.
[[nodiscard]] std::variant<ListSignature, Refusal> parseSignature(std::string_view text);

/// The file of a signature.
[[nodiscard]] std::string signatureFile(const ListSignature& signature);

/// The names, beside the list whose SHA-256 is `digest`, at which its signatures by `keys` are
/// looked for, in that order: that of the first key that signed it, "signatures/DIGEST.minisig",
/// and those of further ones, "signatures/DIGEST.KEY.minisig".
[[nodiscard]] std::vector<std::string> signatureNames(const std::string& digest,
                                                      const std::vector<PublicKey>& keys);

/// What a key has signed.
enum class Verdict {
  valid,
  otherList,     ///< not this list, or not with this key
  otherComment,  ///< this list, and not this comment
};

[[nodiscard]] Verdict verify(const ListSignature& signature, const PublicKey& key,
                             const ListHash& list);

/// Whether `key` has signed the comment, whichever list the signature is over.
[[nodiscard]] bool isCommentSigned(const ListSignature& signature, const PublicKey& key);

/// What `ListSignature::overComment` is over.
[[nodiscard]] std::string signedWithComment(const ListSignature& signature);

}  // namespace AgentUtils::signing
