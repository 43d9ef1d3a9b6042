#include "signing/TrustDecision.h"

#include <algorithm>
#include <functional>
#include <map>
#include <optional>
#include <set>
#include <utility>

#include "Digest.h"
#include "signing/ListSignature.h"
#include "signing/SignedComment.h"

namespace AgentUtils::signing {
namespace {

/// A key, and what of it is remembered.
using Remembered = std::map<PublicKey, LastAccepted>::value_type;

// The newest list that any of `keys` has signed and that was accepted; null when there is none.
const Remembered* newestBy(const std::set<PublicKey>& keys, const TrustState& state) {
  const Remembered* newest = nullptr;
  for (const Remembered& each : state.keys) {
    if (!keys.contains(each.first)) continue;
    if (newest == nullptr || each.second.serial > newest->second.serial) newest = &each;
  }
  return newest;
}

std::optional<UTCTime> latestBy(const std::set<PublicKey>& keys, const TrustState& state) {
  std::optional<UTCTime> latest;
  for (const auto& [key, last] : state.keys) {
    if (keys.contains(key)) latest = std::max(latest, std::optional(last.published));
  }
  return latest;
}

std::string inQuotes(const std::string& text) { return '"' + text + '"'; }

std::string countOf(std::size_t count, const std::string& what) {
  return std::to_string(count) + ' ' + what + (count == 1 ? "" : "s");
}

// What is wrong with the policy itself, or with holding it against the state.
std::optional<Refusal> complaintAbout(const TrustPolicy& policy, const std::set<PublicKey>& keys,
                                      const TrustState& state) {
  if (keys.empty()) return Refusal{"no key is trusted"};
  if (policy.needed == 0) return Refusal{"at least 1 signature must be needed"};
  if (policy.needed > keys.size()) {
    return Refusal{countOf(policy.needed, "signature") + " are needed, and " +
                   countOf(keys.size(), "key") + (keys.size() == 1 ? " is" : " are") + " trusted"};
  }
  if (auto twins = complaintAboutNumbers(policy.keys)) return twins;
  if (state.customer != policy.customer) {
    return Refusal{"what was accepted before is of the customer " + inQuotes(state.customer) +
                   ", not of " + inQuotes(policy.customer)};
  }
  return std::nullopt;
}

/// One list being judged.
class Judging {
 public:
  Judging(std::string digest, const TrustPolicy& policy, const TrustState& remembered,
          UTCTime clock)
      : policy_(policy),
        keys_(policy.keys.begin(), policy.keys.end()),
        remembered_(remembered),
        newest_(newestBy(keys_, remembered)),
        latest_(latestBy(keys_, remembered)),
        clock_(clock),
        digest_(std::move(digest)) {}

  Judgement bySignatures(std::string_view list, const std::vector<std::string>& files) {
    if (const auto trouble = complaintAbout(policy_, keys_, remembered_)) return *trouble;
    const ListHash hash = hashOfList(list);
    for (const std::string& file : files) take(file, hash);
    return judgement("the list is not signed");
  }

  Judgement byRecord() {
    if (const auto trouble = complaintAbout(policy_, keys_, remembered_)) return *trouble;
    for (const auto& [key, last] : remembered_.keys) {
      if (!keys_.contains(key) || last.list != digest_ || last.serial != newest_->second.serial) {
        continue;
      }
      const SignedComment comment{policy_.customer, last.serial, last.published, last.expires};
      const auto complaint = complaintAboutTime(comment, key);
      if (complaint) {
        refuse(Weight::trusted, *complaint);
      } else {
        count(key, comment);
      }
    }
    return judgement("the list is not the one that was accepted last");
  }

 private:
  /// Which of several reasons is reported: what a trusted key has to do with says most.
  enum class Weight { none, unknownKey, unreadable, trusted };

  void take(const std::string& file, const ListHash& hash) {
    const auto parsed = parseSignature(file);
    if (const auto* refusal = std::get_if<Refusal>(&parsed)) {
      return refuse(Weight::unreadable, refusal->sentence);
    }
    const auto& signature = std::get<ListSignature>(parsed);
    bool isKnown = false;
    for (const PublicKey& key : keys_) {
      if (key.number != signature.key) continue;
      isKnown = true;
      takeOf(key, signature, hash);
    }
    if (!isKnown) {
      refuse(Weight::unknownKey,
             "the key " + keyName(signature.key) + ", by which the list is signed, is not trusted");
    }
  }

  void takeOf(const PublicKey& key, const ListSignature& signature, const ListHash& hash) {
    const std::string by = "the signature by the key " + keyName(key.number);
    const Verdict verdict = verify(signature, key, hash);
    if (verdict == Verdict::otherList) {
      return refuse(Weight::trusted, by + " is not over this list");
    }
    if (verdict == Verdict::otherComment) {
      return refuse(Weight::trusted, "the comment of " + by + " was changed");
    }
    const auto parsed = parseSignedComment(signature.comment);
    if (const auto* refusal = std::get_if<Refusal>(&parsed)) {
      return refuse(Weight::trusted, "in " + by + ", " + refusal->sentence);
    }
    const auto& comment = std::get<SignedComment>(parsed);
    auto complaint = complaintAboutList(comment, key);
    if (!complaint) complaint = complaintAboutTime(comment, key);
    if (complaint) return refuse(Weight::trusted, *complaint);
    count(key, comment);
  }

  [[nodiscard]] std::optional<std::string> complaintAboutList(const SignedComment& comment,
                                                              const PublicKey& key) const {
    const std::string by = " by the key " + keyName(key.number);
    if (comment.customer != policy_.customer) {
      return "the signature" + by + " is for the customer " + inQuotes(comment.customer) +
             ", not for " + inQuotes(policy_.customer);
    }
    if (newest_ == nullptr) return std::nullopt;
    const auto& [holder, newest] = *newest_;
    if (comment.serial > newest.serial) return std::nullopt;
    const std::string whose = holder == key ? "" : " by the key " + keyName(holder.number);
    const std::string before =
        ", and " + std::to_string(newest.serial) + whose + " was accepted before";
    if (comment.serial < newest.serial) {
      return "the list is an older one: it has the serial " + std::to_string(comment.serial) + by +
             before;
    }
    if (newest.list == digest_) return std::nullopt;
    return "the list is another one under the same serial: it has " +
           std::to_string(comment.serial) + by + before;
  }

  [[nodiscard]] std::optional<std::string> complaintAboutTime(const SignedComment& comment,
                                                              const PublicKey& key) const {
    const std::string by = "the signature by the key " + keyName(key.number);
    if (comment.published > clock_ && comment.published - clock_ > kClockTolerance) {
      return by + " was made at " + utcTimeText(comment.published) +
             ", and the clock of this computer stands before that, at " + utcTimeText(clock_);
    }
    const UTCTime now = std::max(clock_, latest_.value_or(clock_));
    if (now < comment.expires) return std::nullopt;
    const std::string expired = by + " expired at " + utcTimeText(comment.expires);
    if (clock_ >= comment.expires) return expired;
    return expired + "; the clock of this computer stands at " + utcTimeText(clock_) +
           ", and a list of " + utcTimeText(now) + " was accepted before";
  }

  // A key counts once; of its signatures the newest does.
  void count(const PublicKey& key, const SignedComment& comment) {
    const auto [place, isFirst] = counted_.try_emplace(key, comment);
    if (isFirst) return;
    const auto rank = [](const SignedComment& c) { return std::pair(c.serial, c.expires); };
    if (rank(comment) > rank(place->second)) place->second = comment;
  }

  void refuse(Weight weight, const std::string& why) {
    if (weight <= weight_) return;
    weight_ = weight;
    reason_ = why;
  }

  [[nodiscard]] Judgement judgement(const std::string& withoutAny) const {
    std::map<std::uint64_t, std::size_t, std::greater<>> keysOf;
    for (const auto& [key, comment] : counted_) ++keysOf[comment.serial];
    std::size_t most = 0;
    for (const auto& [serial, keys] : keysOf) {
      if (keys >= policy_.needed) return acceptance(serial);
      most = std::max(most, keys);
    }
    const std::string reason = weight_ == Weight::none ? withoutAny : reason_;
    if (counted_.empty()) return Refusal{reason};
    std::string few = "the list has " + std::to_string(most) + " of the " +
                      countOf(policy_.needed, "signature") + " that are needed";
    if (counted_.size() > most) return Refusal{few + " with one serial: it has " + serials()};
    if (weight_ != Weight::trusted) few += ", and none by " + keysWithout();
    return Refusal{weight_ == Weight::none ? few : few + ": " + reason};
  }

  // "8 by the key 808CC446AE5308A3 and 7 by the key C3CC33B19BA09674".
  [[nodiscard]] std::string serials() const {
    std::string text;
    for (const auto& [key, comment] : counted_) {
      if (!text.empty()) text += " and ";
      text += std::to_string(comment.serial) + " by the key " + keyName(key.number);
    }
    return text;
  }

  // The trusted keys of which nothing counts: "the key 808CC446AE5308A3 or C3CC33B19BA09674".
  [[nodiscard]] std::string keysWithout() const {
    std::string text;
    for (const PublicKey& key : keys_) {
      if (counted_.contains(key)) continue;
      text += (text.empty() ? "the key " : " or ") + keyName(key.number);
    }
    return text;
  }

  // Of a key that has signed a higher serial than as many as needed nothing is remembered: nobody
  // bears it out.
  [[nodiscard]] Acceptance acceptance(std::uint64_t serial) const {
    Acceptance accepted{remembered_, {}, serial, {}};
    std::vector<UTCTime> ends;
    for (const auto& [key, comment] : counted_) {
      if (comment.serial > serial) continue;
      accepted.signedBy.push_back(key);
      if (comment.serial == serial) ends.push_back(comment.expires);
      remember(key, comment, accepted.state);
    }
    // It counts for as long as enough of them do.
    std::ranges::sort(ends, std::greater());
    accepted.expires = ends[policy_.needed - 1];
    return accepted;
  }

  void remember(const PublicKey& key, const SignedComment& comment, TrustState& state) const {
    LastAccepted next{comment.serial, digest_, comment.published, comment.expires};
    const auto last = remembered_.keys.find(key);
    if (last != remembered_.keys.end()) {
      next.published = std::max(next.published, last->second.published);
      const bool isSame = last->second.serial == next.serial && last->second.list == next.list;
      if (isSame) next.expires = std::max(next.expires, last->second.expires);
    }
    state.keys.insert_or_assign(key, std::move(next));
  }

  const TrustPolicy& policy_;
  const std::set<PublicKey> keys_;
  const TrustState& remembered_;
  const Remembered* const newest_;
  const std::optional<UTCTime> latest_;
  const UTCTime clock_;
  const std::string digest_;
  std::map<PublicKey, SignedComment> counted_;
  Weight weight_ = Weight::none;
  std::string reason_;
};

}  // namespace

std::string whoSigned(const Acceptance& accepted) {
  std::string text = "signed by ";
  for (const PublicKey& key : accepted.signedBy) {
    if (key != accepted.signedBy.front()) text += " and ";
    text += keyName(key.number);
  }
  return text + " for the customer " + accepted.state.customer + ", serial " +
         std::to_string(accepted.serial) + ", until " + utcTimeText(accepted.expires);
}

ListInHand::ListInHand(std::string_view list)
    : bytes(list), digest(hexDigest(usualDigest(), list)) {}

Judgement judgeList(const ListInHand& list, const std::vector<std::string>& signatureFiles,
                    const TrustPolicy& policy, const TrustState& remembered, UTCTime clock) {
  return Judging(list.digest, policy, remembered, clock).bySignatures(list.bytes, signatureFiles);
}

Judgement judgeList(std::string_view list, const std::vector<std::string>& signatureFiles,
                    const TrustPolicy& policy, const TrustState& remembered, UTCTime clock) {
  return judgeList(ListInHand(list), signatureFiles, policy, remembered, clock);
}

Judgement judgeKeptList(const std::string& digest, const TrustPolicy& policy,
                        const TrustState& remembered, UTCTime clock) {
  return Judging(digest, policy, remembered, clock).byRecord();
}

std::optional<Refusal> complaintAboutLast(const TrustPolicy& policy, const TrustState& remembered,
                                          UTCTime clock) {
  const std::set<PublicKey> keys(policy.keys.begin(), policy.keys.end());
  const Remembered* const last = newestBy(keys, remembered);
  if (last == nullptr) return std::nullopt;
  Judgement judgement = judgeKeptList(last->second.list, policy, remembered, clock);
  auto* const why = std::get_if<Refusal>(&judgement);
  return why == nullptr ? std::nullopt : std::optional(std::move(*why));
}

}  // namespace AgentUtils::signing
