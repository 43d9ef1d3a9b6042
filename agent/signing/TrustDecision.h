// Whether a list counts: signed by enough of the keys that are trusted, for this customer, not yet
// expired, and not older than what was accepted before.
//
// The keys that are needed must have signed one serial. So at least one key that is not stolen
// bears it out, as long as fewer are stolen than are needed: a thief can neither drive it to the
// end, which would keep the next lists out, nor sign a lower one, which would let an earlier list
// in.
//
// Older is what has a lower serial than anything that a key that is trusted now has signed and that
// was accepted. What other keys have signed does not count, so that a serial which a thief has
// driven to its end is healed by trusting the thief's key no more. An expiry is held against the
// later of the clock and the latest time at which an accepted list was published, so that a clock
// that was set back revives nothing.
//
// Pure functions: the clock and the state are handed in. Any thread. Without memory they throw
// `std::bad_alloc`, and nothing is accepted.

#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "signing/PublicKey.h"
#include "signing/Refusal.h"
#include "signing/TrustState.h"
#include "signing/UTCTime.h"

namespace AgentUtils::signing {

/// Whose signatures count.
struct TrustPolicy {
  std::vector<PublicKey> keys;
  std::size_t needed = 1;  ///< how many different ones of them have to have signed
  std::string customer;
};

/// Why a list counts.
struct Acceptance {
  TrustState state;  ///< what is to be remembered from now on
  std::vector<PublicKey>
      signedBy;  ///< the trusted keys that have signed it with this serial or a lower one
  std::uint64_t serial = 0;  ///< the one that as many as needed have signed
  UTCTime expires;           ///< when it counts no more

  bool operator==(const Acceptance&) const = default;
};

using Judgement = std::variant<Acceptance, Refusal>;

/// "signed by 293CBC668E52E64C and CCC333B19BA09674 for the customer acme, serial 7, until
/// 2026-12-22T11:30:00Z".
[[nodiscard]] std::string whoSigned(const Acceptance& accepted);

/// A list with the digest by which it is remembered, made once however often it is judged. `bytes`
/// as long as this.
struct ListInHand {
  explicit ListInHand(std::string_view list);

  std::string_view bytes;
  std::string digest;
};

/// Judges a list by the signature files that came with it, in any order and number,
/// among them some that are none. `remembered` is the state so far, `clock` the time of this
/// computer.
[[nodiscard]] Judgement judgeList(const ListInHand& list,
                                  const std::vector<std::string>& signatureFiles,
                                  const TrustPolicy& policy, const TrustState& remembered,
                                  UTCTime clock);
[[nodiscard]] Judgement judgeList(std::string_view list,
                                  const std::vector<std::string>& signatureFiles,
                                  const TrustPolicy& policy, const TrustState& remembered,
                                  UTCTime clock);

/// Judges a list that was kept and has this digest, by what is remembered of its signatures alone:
/// it counts when it is the very list that was accepted last and enough of the signatures have not
/// expired. When it does not, a signature has to be asked for.
[[nodiscard]] Judgement judgeKeptList(const std::string& digest, const TrustPolicy& policy,
                                      const TrustState& remembered, UTCTime clock);

/// Why the list that was accepted last counts no more: it has expired, or more is asked of it now.
/// Nothing while it counts, and when none was accepted.
[[nodiscard]] std::optional<Refusal> complaintAboutLast(const TrustPolicy& policy,
                                                        const TrustState& remembered,
                                                        UTCTime clock);

/// How far a computer's clock may stand behind the publisher's.
inline constexpr std::chrono::seconds kClockTolerance{300};

}  // namespace AgentUtils::signing
