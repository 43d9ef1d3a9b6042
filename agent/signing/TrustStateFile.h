// The file that remembers what lists were accepted, in the agent's data directory: read by every
// request, replaced in one step when something new is accepted, and on the disk before the list is
// used. Requests of several processes take turns. No path of a server leads there.

#pragma once

#include <functional>
#include <optional>
#include <string>
#include <variant>
#include <vector>

#include "signing/Refusal.h"
#include "signing/TrustDecision.h"
#include "signing/TrustState.h"
#include "signing/UTCTime.h"

namespace AgentUtils::signing {

/// One customer's state at one path. Any thread; without memory the operations throw
/// `std::bad_alloc`, and the file is as it was or holds what was to be remembered, never less.
///
/// Refused is a file that is no regular file with one name, belongs to another user than the one of
/// this process, may be written to by its group or by others, or is not the state of this customer.
/// Where there is none, nothing was accepted yet.
class TrustStateFile {
 public:
  TrustStateFile(std::string path, std::string customer);

  [[nodiscard]] const std::string& path() const { return path_; }

  /// What is remembered.
  [[nodiscard]] std::variant<TrustState, Refusal> read() const;

  /// `judgeList` with what is remembered. When the list is accepted, what it adds to that is on the
  /// disk, and then `use` is called, with the turn still held: a list that takes its place there is
  /// never put behind a newer one of another request. What it throws comes out. A list whose state
  /// can't be written is refused. Missing directories on the way to the file are made (0700).
  [[nodiscard]] Judgement accept(const ListInHand& list,
                                 const std::vector<std::string>& signatureFiles,
                                 const TrustPolicy& policy, UTCTime clock,
                                 const std::function<void()>& use = {}) const;

  /// `judgeKeptList` in the same way: nothing is added to what is remembered.
  [[nodiscard]] Judgement acceptKept(const std::string& digest, const TrustPolicy& policy,
                                     UTCTime clock, const std::function<void()>& use = {}) const;

 private:
  [[nodiscard]] Refusal refusal(const std::string& why) const;
  /// What `judge` says of what is remembered, with the turn held and `use` called as in `accept`.
  [[nodiscard]] Judgement judged(const std::function<Judgement(const TrustState&)>& judge,
                                 const std::function<void()>& use) const;
  /// Has `state` on the disk; why not, when it is not.
  [[nodiscard]] std::optional<Refusal> write(const TrustState& state) const;

  const std::string path_;
  const std::string customer_;
};

/// Where the state lies in the agent's data directory `dataPath`.
[[nodiscard]] std::string trustStatePath(const std::string& dataPath);

/// The file beside the state at `path` that is locked while lists are judged.
[[nodiscard]] std::string lockOfTrustState(const std::string& path);

}  // namespace AgentUtils::signing
