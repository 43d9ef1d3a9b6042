// The keys that signatures are held against, in the public format of minisign: a line of Base64
// that begins with "RW", alone or as the second line of a file. Any thread.

#pragma once

#include <array>
#include <compare>
#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "signing/Refusal.h"

namespace AgentUtils::signing {

/// The number that a key and its signatures carry, to find the one for the other. Whoever makes a
/// key chooses it, so it proves nothing.
using KeyNumber = std::array<unsigned char, 8>;

/// The number as people see it: "293CBC668E52E64C".
[[nodiscard]] std::string keyName(const KeyNumber& number);

/// An Ed25519 key with its number.
struct PublicKey {
  KeyNumber number{};
  std::array<unsigned char, 32> point{};

  // NOLINTNEXTLINE(modernize-use-nullptr): the comparison's own zero is no pointer.
  auto operator<=>(const PublicKey&) const = default;
};

/// What is wrong when one key stands among `keys` under two numbers: nobody signs the number, so it
/// would pass for two keys.
[[nodiscard]] std::optional<Refusal> complaintAboutNumbers(const std::vector<PublicKey>& keys);

inline constexpr std::size_t kLongestPublicKeyFile = 2048;

/// The key that `text` is: the line alone, or a whole file with its comment. A line break at the
/// end may be missing.
[[nodiscard]] std::variant<PublicKey, Refusal> parsePublicKey(std::string_view text);

/// The key's line: "RWRM5lKOZrw8KQB1mikK8fWAfBHNJrKomQDsjzUSTit4pqCza1LpOEgl".
[[nodiscard]] std::string publicKeyLine(const PublicKey& key);

/// The key's file.
[[nodiscard]] std::string publicKeyFile(const PublicKey& key);

/// How the first line of every file of keys and signatures begins.
inline constexpr std::string_view kUntrustedComment = "untrusted comment: ";

}  // namespace AgentUtils::signing
