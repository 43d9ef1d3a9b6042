#include "publish/Signing.h"

#include <algorithm>
#include <limits>
#include <ranges>
#include <set>

#include "Digest.h"

namespace VarnScripts::publishing {
namespace {

namespace signing = AgentUtils::signing;

// Other things than files are no signatures, and neither is what is longer than any.
bool isNoSignature(const std::error_code& error) {
  return error == std::errc::invalid_argument ||
         error == std::errc::too_many_symbolic_link_levels || error == std::errc::file_too_large;
}

std::string nameOf(const PublicKey& key) { return "the key " + signing::keyName(key.number); }

Refusal countsLonger(const PublicKey& key, const SignedComment& comment,
                     const std::string& remedy) {
  return {"the signature by " + nameOf(key) + " counts until " + utcTimeText(comment.expires) +
          " already, and would for less long; " + remedy};
}

bool isLast(std::uint64_t serial) { return serial == std::numeric_limits<std::uint64_t>::max(); }

// A list with the last serial would be the last one: who has driven it there was a thief.
std::optional<Refusal> complaintAboutSerial(const PublicKey& key, std::uint64_t serial) {
  if (!isLast(serial)) return std::nullopt;
  return Refusal{nameOf(key) + " has signed the serial " + std::to_string(serial) +
                 ", which none can follow; publish with other keys alone"};
}

}  // namespace

std::optional<ExpiryRemark> remarkOnExpiry(const SignedComment& comment,
                                           const signing::KeyNumber& number, UTCTime now) {
  const std::string by = "the signature by the key " + signing::keyName(number) + " expire";
  const std::string time = " at " + utcTimeText(comment.expires);
  const std::string remedy = "; publish --renew makes a new one";
  if (now >= comment.expires) {
    return ExpiryRemark{
        by + "d" + time + ", and computers that trust the key refuse the list" + remedy, true};
  }
  if (comment.expires - now >= (comment.expires - comment.published) / kLittleLeft) {
    return std::nullopt;
  }
  return ExpiryRemark{by + "s" + time + remedy, false};
}

std::optional<ExpiryRemark> remarkOnSignatures(ServerFiles& files, const ContentNames& names,
                                               UTCTime now) {
  std::optional<ExpiryRemark> soon;
  for (const std::string& name : names) {
    std::error_code unread;
    const auto text = files.read(name, unread, signing::kLongestSignatureFile);
    if (!text) continue;
    const auto signature = signing::parseSignature(*text);
    const auto* const made = std::get_if<ListSignature>(&signature);
    if (made == nullptr) continue;
    const auto comment = signing::parseSignedComment(made->comment);
    const auto* const said = std::get_if<SignedComment>(&comment);
    if (said == nullptr) continue;
    auto remark = remarkOnExpiry(*said, made->key, now);
    if (remark && remark->hasExpired) return remark;
    if (!soon) soon = std::move(remark);
  }
  return soon;
}

void Signing::look(ServerFiles& files, std::error_code& error) {
  published_.clear();
  foreign_.clear();
  places_.clear();
  const std::vector<std::string> names = files.signatures(error);
  if (error) return;
  for (const std::string& name : names) {
    const auto text = files.read(name, error, signing::kLongestSignatureFile);
    if (isNoSignature(error)) error.clear();
    if (error) return;
    if (text) take(name, *text);
  }
}

// A comment proves that its key has signed it; whether that was over the list that the file's name
// tells shows when there is that list.
void Signing::take(const std::string& name, std::string_view text) {
  const auto parsed = signing::parseSignature(text);
  const auto* const signature = std::get_if<ListSignature>(&parsed);
  if (signature == nullptr) return;
  places_.insert_or_assign(name, signature->key);
  if (std::ranges::find(known_, signature->key, &PublicKey::number) == known_.end()) {
    return takeForeign(name, *signature);
  }
  for (const PublicKey& key : known_) {
    if (key.number != signature->key || !isCommentSigned(*signature, key)) continue;
    const auto comment = signing::parseSignedComment(signature->comment);
    const auto* const said = std::get_if<SignedComment>(&comment);
    if (said == nullptr || said->customer != customer_) continue;
    published_.push_back({name, key, signedListIn(name).value_or(""), *signature, *said});
  }
}

void Signing::takeForeign(const std::string& name, const ListSignature& signature) {
  const auto comment = signing::parseSignedComment(signature.comment);
  const auto* const said = std::get_if<SignedComment>(&comment);
  if (said == nullptr || said->customer != customer_) return;
  foreign_.push_back({signature.key, signedListIn(name).value_or(""), *said});
}

std::optional<Refusal> Signing::sign(std::string_view list, UTCTime now) {
  beginWith(list);
  if (auto why = attach(list, now)) return why;
  const auto serial = serialFor(now);
  if (const auto* const why = std::get_if<Refusal>(&serial)) return *why;
  for (const keys::SecretKey& key : signers_.here) {
    const Known* const there = over(key.publicKey());
    const bool counts = there != nullptr && now < there->comment.expires &&
                        there->comment.serial == std::get<std::uint64_t>(serial);
    if (!counts) {
      make(key, list, std::get<std::uint64_t>(serial), now);
      continue;
    }
    texts_.push_back(signatureFile(there->signature));
    signedBy_.push_back(there->key);
    if (!remark_) remark_ = remarkOnExpiry(there->comment, there->key.number, now);
  }
  lookForMissing(std::get<std::uint64_t>(serial), now);
  return conclude(list, now);
}

std::optional<Refusal> Signing::renew(std::string_view list, UTCTime now) {
  beginWith(list);
  // Signatures that were made one by one come to one serial: computers that need several want that.
  std::uint64_t serial = 0;
  for (const keys::SecretKey& key : signers_.here) {
    const Known* const there = over(key.publicKey());
    if (there == nullptr) {
      return Refusal{nameOf(key.publicKey()) +
                     " has not signed the list there; publish it with --sign-with, which does"};
    }
    if (auto why = complaintAboutSerial(there->key, there->comment.serial)) return why;
    serial = std::max(serial, there->comment.serial);
  }
  if (const Known* const last = newest(); last != nullptr && last->comment.serial > serial) {
    return Refusal{nameOf(last->key) + " has signed a newer list, with the serial " +
                   std::to_string(last->comment.serial) +
                   ", and the one there is older: a publication was interrupted, or an older list "
                   "was put back; publish again, with --sign-with"};
  }
  for (const keys::SecretKey& key : signers_.here) {
    const Known* const there = over(key.publicKey());
    if (now + lifetime_ < there->comment.expires) {
      return countsLonger(there->key, there->comment, "give a longer --expires");
    }
    make(key, list, serial, now);
  }
  return conclude(list, now);
}

std::variant<SignedComment, Refusal> Signing::commentFor(std::string_view list, UTCTime now) {
  beginWith(list);
  const auto serial = serialFor(now);
  if (const auto* const why = std::get_if<Refusal>(&serial)) return *why;
  return SignedComment{customer_, std::get<std::uint64_t>(serial), now, now + lifetime_};
}

std::vector<signing::KeyNumber> Signing::keyNumbers() const {
  std::vector<signing::KeyNumber> numbers;
  numbers.reserve(known_.size());
  for (const PublicKey& key : known_) numbers.push_back(key.number);
  return numbers;
}

std::string Signing::summary() const {
  std::string text = "by";
  for (const PublicKey& key : signedBy_) {
    if (key != signedBy_.front()) text += " and";
    text += " " + signing::keyName(key.number);
  }
  return text + " with the serial " + std::to_string(accepted_->serial) + " until " +
         utcTimeText(accepted_->expires);
}

// Finds out which of the tree's signatures are over the list.
void Signing::beginWith(std::string_view list) {
  digest_ = AgentUtils::hexDigest(AgentUtils::usualDigest(), list);
  const ListHash hash = signing::hashOfList(list);
  covering_.clear();
  for (const Known& known : published_) {
    const bool isOver = known.digest == digest_ &&
                        verify(known.signature, known.key, hash) == signing::Verdict::valid;
    if (isOver) covering_.push_back(known);
  }
  texts_.clear();
  signedBy_.clear();
  attachedSerial_.reset();
  files_.clear();
  accepted_.reset();
  remark_.reset();
  missing_.clear();
  otherSerials_.clear();
}

const Signing::Known* Signing::newestOf(const PublicKey& key) const {
  const Known* newest = nullptr;
  for (const Known& known : published_) {
    if (known.key != key) continue;
    // A copy under the name of another list proves nothing.
    const auto rank = [this](const Known& each) {
      return std::pair(each.comment.serial, each.digest == digest_);
    };
    if (newest == nullptr || rank(known) > rank(*newest)) newest = &known;
  }
  return newest;
}

const Signing::Known* Signing::newest() const {
  const auto found = std::ranges::max_element(
      published_, {}, [](const Known& known) { return known.comment.serial; });
  return found == published_.end() ? nullptr : &*found;
}

// The newest of the key's signatures over the list.
const Signing::Known* Signing::over(const PublicKey& key) const {
  const Known* newest = nullptr;
  const auto rank = [](const Known& known) {
    return std::pair(known.comment.serial, known.comment.expires);
  };
  for (const Known& known : covering_) {
    if (known.key == key && (newest == nullptr || rank(known) > rank(*newest))) newest = &known;
  }
  return newest;
}

// What a computer remembers that has taken each publication.
TrustState Signing::state() const {
  TrustState state{customer_, {}};
  for (const PublicKey& key : known_) {
    const Known* const last = newestOf(key);
    if (last == nullptr) continue;
    state.keys[key] = {last->comment.serial, last->digest, last->comment.published,
                       last->comment.expires};
  }
  return state;
}

// Takes in the signatures that were made elsewhere, each of which must count on its own.
std::optional<Refusal> Signing::attach(std::string_view list, UTCTime now) {
  for (const std::string& text : signers_.attached) {
    const auto judgement =
        judgeList(list, {text}, {signers_.elsewhere, 1, customer_}, state(), now);
    if (const auto* const why = std::get_if<Refusal>(&judgement)) {
      return notAttached(text, why->sentence);
    }
    const auto& accepted = std::get<signing::Acceptance>(judgement);
    const PublicKey& key = accepted.signedBy.front();
    if (auto why = complaintAboutSerial(key, accepted.serial)) return why;
    if (std::ranges::find(signedBy_, key) != signedBy_.end()) {
      return Refusal{"two of the signatures are by " + nameOf(key)};
    }
    const Known* const there = over(key);
    const bool replaces = there != nullptr && there->comment.serial == accepted.serial;
    if (replaces && accepted.expires < there->comment.expires) {
      return countsLonger(key, there->comment, "have it signed for longer");
    }
    // A computer that has taken the one takes no lower one afterwards, be it over the same list.
    if (attachedSerial_.value_or(accepted.serial) != accepted.serial) {
      return Refusal{"the signatures have different serials, " + std::to_string(*attachedSerial_) +
                     " and " + std::to_string(accepted.serial) +
                     "; all are to be made with the same comment"};
    }
    attachedSerial_ = accepted.serial;
    put(key, text);
  }
  return std::nullopt;
}

// Whoever publishes can do something about it, other than a computer.
Refusal Signing::notAttached(std::string_view text, std::string why) const {
  const auto parsed = signing::parseSignature(text);
  const auto* const signature = std::get_if<ListSignature>(&parsed);
  if (signature == nullptr) return {std::move(why)};
  const auto key = std::ranges::find(signers_.elsewhere, signature->key, &PublicKey::number);
  if (key == signers_.elsewhere.end()) {
    return {"the key " + signing::keyName(signature->key) +
            ", by which the list is signed, is not among those of --signed-by"};
  }
  if (why.ends_with("is not over this list")) {
    why += "; leave the list for signing again with --unsigned-for";
  } else if (isCommentSigned(*signature, *key) &&
             std::holds_alternative<Refusal>(signing::parseSignedComment(signature->comment))) {
    why += "; have it signed with minisign -t and the comment that was left";
  }
  return {std::move(why)};
}

// What the tree has of those who sign elsewhere counts as well.
void Signing::lookForMissing(std::uint64_t serial, UTCTime now) {
  for (const PublicKey& key : signers_.elsewhere) {
    if (std::ranges::find(signedBy_, key) != signedBy_.end()) continue;
    const Known* const there = over(key);
    if (there != nullptr && there->comment.serial == serial && now < there->comment.expires) {
      texts_.push_back(signatureFile(there->signature));
      signedBy_.push_back(key);
    } else {
      missing_.push_back(nameOf(key) +
                         " has not signed the list; computers that need its signature refuse it");
    }
  }
}

// Two keys that sign one list one after the other do so under two serials, and computers that need
// several signatures want them of one. What has been before, and came back, is no such list; a key
// with the last serial was a thief's.
void Signing::lookForOtherSerials(UTCTime now) {
  std::uint64_t before = 0;
  for (const Known& known : published_) {
    if (known.digest != digest_) before = std::max(before, known.comment.serial);
  }
  std::map<signing::KeyNumber, std::uint64_t> others;
  std::set<signing::KeyNumber> agreed;
  for (const Foreign& each : foreign_) {
    const std::uint64_t serial = each.comment.serial;
    if (each.digest != digest_ || now >= each.comment.expires) continue;
    if (serial <= before || isLast(serial)) continue;
    if (serial == accepted_->serial) agreed.insert(each.key);
    others[each.key] = std::max(others[each.key], serial);
  }
  for (const auto& [key, serial] : others) {
    if (agreed.contains(key)) continue;
    otherSerials_.push_back(
        "the key " + signing::keyName(key) + " has signed the same list with the serial " +
        std::to_string(serial) + ", not " + std::to_string(accepted_->serial) +
        "; computers that need the signatures of both refuse it; publish --renew with both keys "
        "brings them to one serial");
  }
}

std::variant<std::uint64_t, Refusal> Signing::serialFor(UTCTime now) const {
  if (attachedSerial_) return *attachedSerial_;
  const auto seconds =
      static_cast<std::uint64_t>(std::max<std::int64_t>(1, now.time_since_epoch().count()));
  const Known* const last = newest();
  if (last == nullptr) return seconds;
  const std::uint64_t highest = last->comment.serial;
  if (auto why = complaintAboutSerial(last->key, highest)) return *std::move(why);
  const bool isNewest = std::ranges::any_of(
      covering_, [highest](const Known& known) { return known.comment.serial == highest; });
  if (isNewest) return highest;
  return std::max(highest + 1, seconds);
}

void Signing::make(const keys::SecretKey& key, std::string_view list, std::uint64_t serial,
                   UTCTime now) {
  put(key.publicKey(), signedWith(key, list, {customer_, serial, now, now + lifetime_}));
}

void Signing::put(const PublicKey& key, std::string bytes) {
  const Known* const there = over(key);
  const auto parsed = signing::parseSignature(bytes);
  const auto* const signature = std::get_if<ListSignature>(&parsed);
  const bool isThere = there != nullptr && signature != nullptr && there->signature == *signature;
  if (!isThere) files_.push_back({nameFor(key), bytes});
  texts_.push_back(std::move(bytes));
  signedBy_.push_back(key);
}

// Where the key's signature is already; otherwise the place that computers look at first, for the
// first of the keys when no other key has it, or the key's own.
std::string Signing::nameFor(const PublicKey& key) const {
  if (const Known* const there = over(key)) return there->name;
  const auto names = signing::signatureNames(digest_, {key});
  const auto place = places_.find(names.front());
  const bool isFree = place == places_.end() || place->second == key.number;
  return key == known_.front() && isFree ? names.front() : names.back();
}

// Nothing goes out that computers would refuse.
std::optional<Refusal> Signing::conclude(std::string_view list, UTCTime now) {
  auto judgement = judgeList(list, texts_, {signedBy_, signedBy_.size(), customer_}, state(), now);
  if (auto* const why = std::get_if<Refusal>(&judgement)) return std::move(*why);
  accepted_ = std::move(std::get<signing::Acceptance>(judgement));
  lookForOtherSerials(now);
  return std::nullopt;
}

}  // namespace VarnScripts::publishing
