// What a download is held against before it takes the target's place, when keys are trusted: the
// list against its signatures, everything else against the digest in its server path. Without
// trusted keys everything is taken.

#pragma once

#include <chrono>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "AgentSettings.h"
#include "DownloadTarget.h"
#include "signing/TrustDecision.h"
#include "signing/TrustStateFile.h"

namespace AgentUtils {

/// The server path of the customer's list, as the library asks for it: the one file whose path
/// binds no content.
[[nodiscard]] std::string listServerPath(const std::string& customerID);

/// The policy that the settings make, which `configure` has tried.
[[nodiscard]] signing::TrustPolicy trustPolicyOf(const AgentSettings& settings);

/// Throws `DownloadFailure` when a file at `toPath` would lie where accepted lists are remembered,
/// by whatever way that directory is named.
void requireOutsideTrustState(const std::string& toPath, const AgentSettings& settings);

/// A list that came and does not count; the host was told.
class ListRefusal : public DownloadFailure {
 public:
  using DownloadFailure::DownloadFailure;
};

/// For how long after it was received a list is asked for with the validators of that answer.
inline constexpr std::chrono::hours kValidatorsOfListCount{1};

/// One download, from its server path to its use. On one thread.
class DownloadTrust {
 public:
  /// Gives the content of a signature's file at a server path. Throws `DownloadFailure` when there
  /// is none, a `TransientFailure` when there may be one.
  using FetchSignature = std::function<std::string(const std::string& serverPath)>;
  /// Puts the content in its place.
  using Use = std::function<void()>;
  /// Gives all bytes of a list.
  using Content = std::function<std::string()>;

  /// Throws `DownloadFailure` when nothing from `serverPath` could be taken. The references as long
  /// as this.
  DownloadTrust(const AgentSettings& settings, const std::string& serverPath,
                const FetchSignature& fetch);

  [[nodiscard]] bool isOfList() const { return kind_ == Kind::list; }
  [[nodiscard]] bool isOfBoundFile() const { return kind_ == Kind::bound; }

  /// Whether `digest`, a SHA-256, is the one that binds the file.
  [[nodiscard]] bool isContent(std::string_view digest) const;

  /// Whether the server may be asked if a list that was received then is unchanged. Its validators
  /// are signed by nobody: who held the server then may have given an older list with those of the
  /// newest, and an honest server would say ever after that nothing has changed.
  [[nodiscard]] bool mayBeUnchangedSince(std::chrono::system_clock::time_point received) const;

  /// Calls `use` when what has come counts; of a list in a moment in which no other request has a
  /// newer one accepted. Otherwise throws `DownloadFailure`, of a list that came with enough to
  /// judge it `ListRefusal`. What `use` throws comes out.
  void accept(DownloadTarget& target, const Use& use) const;

  /// Likewise for a list that is there already and has this digest: false when it does not count,
  /// and it has to be asked for whole. `content` is called when its signatures are asked for.
  [[nodiscard]] bool acceptsKeptList(const std::string& digest, const Content& content,
                                     const Use& use) const;

  /// `why` no list could be had, and "; the list that was accepted last counts no more: " and why,
  /// where it does not. Then only the beginning of a long `why` is left.
  [[nodiscard]] std::string withRemarkOnLastList(std::string why) const;

 private:
  enum class Kind { unchecked, list, bound };
  struct Signatures;

  [[nodiscard]] static Kind kindOf(const AgentSettings& settings, const std::string& serverPath);
  /// By what is remembered, or by signatures that are fetched.
  [[nodiscard]] signing::Judgement judged(const signing::ListInHand& list, const Use& use) const;
  [[nodiscard]] signing::Judgement judgedByRecord(const std::string& digest, const Use& use) const;
  [[nodiscard]] signing::Judgement judgedBySignatures(const signing::ListInHand& list,
                                                      const Use& use) const;
  /// Those of all trusted keys; the ones that are not needed as far as they can be had at once.
  [[nodiscard]] Signatures signaturesOf(const signing::ListInHand& list,
                                        const signing::TrustState& state) const;
  /// Asks for one file. Throws `TransientFailure` only when it is needed.
  void askFor(const std::string& name, bool isNeeded, Signatures& found) const;
  /// What `judge` says of what is remembered, of which nothing is changed.
  [[nodiscard]] signing::Judgement judgedOnly(
      const std::function<signing::Judgement(const signing::TrustState&)>& judge,
      const Use& use) const;
  [[nodiscard]] std::string signaturePath(const std::string& name) const;
  void acceptList(std::string_view list, const Use& use) const;
  void tell(const signing::Acceptance& accepted) const;

  const AgentSettings& settings_;
  const std::string& serverPath_;
  const FetchSignature& fetch_;
  const Kind kind_;
  const signing::TrustPolicy policy_;
  const signing::TrustStateFile remembered_;
};

}  // namespace AgentUtils
