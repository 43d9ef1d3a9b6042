// What this computer remembers of the lists that it has accepted: what each key signed last. It is
// never lowered by anything that a server sends, so that neither an older list nor an older time is
// believed again.
//
// Kept as a text that has one form only, with its own digest in the last line: what is cut, changed
// or foreign is no state. Pure functions; any thread.

#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <string>
#include <string_view>
#include <variant>

#include "signing/PublicKey.h"
#include "signing/Refusal.h"
#include "signing/UTCTime.h"

namespace AgentUtils::signing {

/// The newest list that was accepted with the signature of one key.
struct LastAccepted {
  std::uint64_t serial = 0;
  std::string list;   ///< its SHA-256, 64 lower-case hexadecimal digits
  UTCTime published;  ///< the latest that was accepted by this key
  UTCTime expires;    ///< of the signature over this list that counts longest

  bool operator==(const LastAccepted&) const = default;
};

struct TrustState {
  std::string customer;  ///< whose lists these are
  std::map<PublicKey, LastAccepted> keys;

  bool operator==(const TrustState&) const = default;
};

inline constexpr std::size_t kLargestTrustState = std::size_t{256} << 10;

/// The state as text.
[[nodiscard]] std::string trustStateText(const TrustState& state);

/// The state that `text` is, which must be of `customer`.
[[nodiscard]] std::variant<TrustState, Refusal> parseTrustState(std::string_view text,
                                                                std::string_view customer);

}  // namespace AgentUtils::signing
