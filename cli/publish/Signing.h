// The signatures of one publication: what the tree has of them, which serial the list gets, and the
// signature files that are to be put beside it.
//
// The serial is one more than the highest that the keys of this publication have signed in the
// tree, and at least the seconds since 1970: a tree that was lost begins nowhere below what
// computers have seen. The newest list keeps its serial when it is signed once more. What other
// keys have signed counts for nothing, so that whoever writes into the tree without a key, or with
// one that was stolen and given up, can't drive the serial to its end. On one thread.

#pragma once

#include <chrono>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <system_error>
#include <utility>
#include <variant>
#include <vector>

#include "publish/Documents.h"
#include "publish/ServerFiles.h"
#include "publish/Signers.h"
#include "signing/ListSignature.h"
#include "signing/TrustDecision.h"

namespace VarnScripts::publishing {

using AgentUtils::signing::ListHash;
using AgentUtils::signing::ListSignature;
using AgentUtils::signing::SignedComment;
using AgentUtils::signing::TrustState;
using AgentUtils::signing::UTCTime;
using AgentUtils::signing::utcTimeText;

/// A signature file of the tree, its name relative to the repository's directory.
struct SignatureFile {
  std::string name;
  std::string bytes;

  bool operator==(const SignatureFile&) const = default;
};

/// How little is left of the time for which a signature counts, when a publisher is told: less than
/// one part in so many.
inline constexpr int kLittleLeft = 3;

/// What is to be said of a signature that counts no more, or not for long.
struct ExpiryRemark {
  std::string text;
  bool hasExpired;
};

/// The remark on a signature with its time at `now`; nothing when it has enough. `number` is that
/// of its key.
[[nodiscard]] std::optional<ExpiryRemark> remarkOnExpiry(
    const SignedComment& comment, const AgentUtils::signing::KeyNumber& number, UTCTime now);

/// That of one of the tree's signatures `names`, which nobody has held against a key; of one that
/// has expired, when there is one.
[[nodiscard]] std::optional<ExpiryRemark> remarkOnSignatures(ServerFiles& files,
                                                             const ContentNames& names,
                                                             UTCTime now);

/// The signatures of a publication. A refusal leaves what `files` gives undefined.
class Signing {
 public:
  /// What is signed here counts for `lifetime`.
  Signing(Signers signers, std::string customer, std::chrono::seconds lifetime)
      : signers_(std::move(signers)),
        known_(signers_.all()),
        customer_(std::move(customer)),
        lifetime_(lifetime) {}

  /// Reads what the tree has. After an error `files.failedPath()` says where.
  void look(ServerFiles& files, std::error_code& error);

  /// Makes the signatures that `list` lacks, takes in those that were made elsewhere, and sees that
  /// a computer that needs all of them would take the list at `now`.
  [[nodiscard]] std::optional<Refusal> sign(std::string_view list, UTCTime now);

  /// Makes new signatures over the published `list`, which each key must have signed before. They
  /// say what those said, but for their times; none counts for less long than the one it replaces.
  [[nodiscard]] std::optional<Refusal> renew(std::string_view list, UTCTime now);

  /// What those who sign elsewhere are to sign with `list`.
  [[nodiscard]] std::variant<SignedComment, Refusal> commentFor(std::string_view list, UTCTime now);

  /// The numbers of the keys, in their order.
  [[nodiscard]] std::vector<AgentUtils::signing::KeyNumber> keyNumbers() const;

  /// What is to be written.
  [[nodiscard]] const std::vector<SignatureFile>& files() const { return files_; }

  /// "by 293CBC668E52E64C with the serial 7 until 2026-12-22T11:30:00Z", of all signatures that the
  /// list then has by these keys.
  [[nodiscard]] std::string summary() const;

  /// A sentence on each key of those who sign elsewhere whose signature the list then lacks.
  [[nodiscard]] const std::vector<std::string>& missing() const { return missing_; }

  /// A sentence on each other key that has signed this very list with another serial, higher than
  /// any of the lists before, as its signature in the tree says, which nobody has held against the
  /// key.
  [[nodiscard]] const std::vector<std::string>& otherSerials() const { return otherSerials_; }

  /// `remarkOnExpiry` of a signature that stays as it is.
  [[nodiscard]] const std::optional<ExpiryRemark>& remark() const { return remark_; }

 private:
  /// A signature of the tree by one of the keys, for this customer.
  struct Known {
    std::string name;
    PublicKey key;
    std::string digest;  ///< of its list, as its name tells it
    ListSignature signature;
    SignedComment comment;
  };

  /// A signature of the tree that says it is by another key, for this customer.
  struct Foreign {
    AgentUtils::signing::KeyNumber key;
    std::string digest;  ///< of its list, as its name tells it
    SignedComment comment;
  };

  void take(const std::string& name, std::string_view text);
  void takeForeign(const std::string& name, const ListSignature& signature);
  void beginWith(std::string_view list);
  [[nodiscard]] const Known* newestOf(const PublicKey& key) const;
  [[nodiscard]] const Known* newest() const;
  [[nodiscard]] const Known* over(const PublicKey& key) const;
  [[nodiscard]] TrustState state() const;
  [[nodiscard]] std::optional<Refusal> attach(std::string_view list, UTCTime now);
  [[nodiscard]] Refusal notAttached(std::string_view text, std::string why) const;
  void lookForMissing(std::uint64_t serial, UTCTime now);
  void lookForOtherSerials(UTCTime now);
  [[nodiscard]] std::variant<std::uint64_t, Refusal> serialFor(UTCTime now) const;
  void make(const keys::SecretKey& key, std::string_view list, std::uint64_t serial, UTCTime now);
  void put(const PublicKey& key, std::string bytes);
  [[nodiscard]] std::string nameFor(const PublicKey& key) const;
  [[nodiscard]] std::optional<Refusal> conclude(std::string_view list, UTCTime now);

  const Signers signers_;
  const std::vector<PublicKey> known_;
  const std::string customer_;
  const std::chrono::seconds lifetime_;

  // Of the tree.
  std::vector<Known> published_;
  std::vector<Foreign> foreign_;
  std::map<std::string, AgentUtils::signing::KeyNumber>
      places_;  ///< which key a file says it is by

  // Of the list in hand.
  std::string digest_;
  std::vector<Known> covering_;      ///< those over it
  std::vector<std::string> texts_;   ///< the signatures that it has in the end
  std::vector<PublicKey> signedBy_;  ///< by whom these are
  std::optional<std::uint64_t> attachedSerial_;
  std::vector<SignatureFile> files_;
  std::optional<AgentUtils::signing::Acceptance> accepted_;
  std::optional<ExpiryRemark> remark_;
  std::vector<std::string> missing_;
  std::vector<std::string> otherSerials_;
};

}  // namespace VarnScripts::publishing
