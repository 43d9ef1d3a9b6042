// The keys that lists are signed with, in the form in which minisign keeps them: a comment and a
// line of Base64, protected with a passphrase (scrypt) or not. Any thread.

#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <variant>

#include "key/Secret.h"
#include "signing/ListSignature.h"
#include "signing/PublicKey.h"
#include "signing/Refusal.h"
#include "signing/SignedComment.h"

namespace VarnScripts::keys {

using AgentUtils::signing::KeyNumber;
using AgentUtils::signing::PublicKey;
using AgentUtils::signing::Refusal;
using AgentUtils::signing::SignedComment;

/// An Ed25519 key: the seed, and behind it the point of its public key.
struct SecretKey {
  KeyNumber number{};
  Secret<64> bytes;

  [[nodiscard]] PublicKey publicKey() const;
};

/// A new one.
[[nodiscard]] SecretKey makeSecretKey();

/// What it costs to try one passphrase: operations, and bytes of memory.
struct PassphraseCost {
  std::uint64_t operations;
  std::uint64_t memory;
};

/// What minisign asks for as well: a gibibyte of memory and some seconds.
inline constexpr PassphraseCost kUsualCost{33554432, 1073741824};

/// Gives the passphrase of a key that is protected, or why there is none.
using AskPassphrase = std::function<std::variant<Passphrase, Refusal>()>;

/// The key that `text`, the content of a secret key's file, is. `ask` is called when it is
/// protected.
[[nodiscard]] std::variant<SecretKey, Refusal> parseSecretKey(std::string_view text,
                                                              const AskPassphrase& ask);

/// The file of a key with a passphrase, and what it costs to try one.
struct ProtectedKey {
  KeyText text;
  PassphraseCost cost;
};

/// The file of `key`, protected with `passphrase`, which is not empty. Where there is not so much
/// memory, the cost is halved until there is; refused when it would become too small.
[[nodiscard]] std::variant<ProtectedKey, Refusal> protectedKeyText(
    const SecretKey& key, const Passphrase& passphrase, PassphraseCost cost = kUsualCost);

/// The file of `key` without any protection.
[[nodiscard]] KeyText plainKeyText(const SecretKey& key);

/// The file of a signature by `key` over `list`, with `comment` signed as well.
[[nodiscard]] std::string signedWith(const SecretKey& key, std::string_view list,
                                     const SignedComment& comment);

}  // namespace VarnScripts::keys
