#include "DownloadTrust.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <chrono>
#include <optional>
#include <set>
#include <utility>
#include <variant>

#include "AgentLog.h"
#include "Calls.h"
#include "Digest.h"
#include "DownloadRetries.h"
#include "DownloadTarget.h"
#include "Pieces.h"
#include "signing/BoundPath.h"
#include "signing/ListSignature.h"

namespace AgentUtils {
namespace {

using signing::Acceptance;
using signing::Judgement;
using signing::PublicKey;
using signing::Refusal;

signing::UTCTime now(const AgentSettings& settings) {
  return std::chrono::floor<std::chrono::seconds>(
      settings.clock ? settings.clock() : std::chrono::system_clock::now());
}

void report(const AgentSettings& settings, const ListJudgement& judgement) {
  if (!settings.onListJudged) return;
  try {
    settings.onListJudged(judgement);
  } catch (...) {
    // The host's own failure.
  }
}

bool isSameDirectory(const std::string& a, const std::string& b) {
  struct stat first {};
  struct stat second {};
  return ::stat(a.c_str(), &first) == 0 && ::stat(b.c_str(), &second) == 0 &&
         first.st_dev == second.st_dev && first.st_ino == second.st_ino;
}

}  // namespace

/// What a server gives of the signatures of one list.
struct DownloadTrust::Signatures {
  std::vector<std::string> files;
  std::set<signing::KeyNumber> by;  ///< the keys that they say they are by
  std::string missing;              ///< the first that can't be had, and why
  std::string unreadable;           ///< the first that is none, and why

  void take(const std::string& name, std::string file) {
    const auto parsed = signing::parseSignature(file);
    if (const auto* const why = std::get_if<Refusal>(&parsed)) {
      if (unreadable.empty()) unreadable = name + ": " + why->sentence;
      return;
    }
    by.insert(std::get<signing::ListSignature>(parsed).key);
    files.push_back(std::move(file));
  }
};

std::string listServerPath(const std::string& customerID) {
  return "/client-data/" + customerID + "/scriptrepo/scripts-meta.xml";
}

signing::TrustPolicy trustPolicyOf(const AgentSettings& settings) {
  signing::TrustPolicy policy{{}, settings.signaturesNeeded, settings.customerID};
  for (const std::string& line : settings.trustedKeys) {
    policy.keys.push_back(std::get<PublicKey>(signing::parsePublicKey(line)));
  }
  return policy;
}

void requireOutsideTrustState(const std::string& toPath, const AgentSettings& settings) {
  if (settings.trustedKeys.empty()) return;
  const std::string state = signing::trustStatePath(settings.dataPath);
  if (!isSameDirectory(posix::directoryOf(toPath), posix::directoryOf(state))) return;
  throw DownloadFailure("the target lies where accepted lists are remembered: " + toPath);
}

DownloadTrust::Kind DownloadTrust::kindOf(const AgentSettings& settings,
                                          const std::string& serverPath) {
  if (settings.trustedKeys.empty()) return Kind::unchecked;
  if (serverPath == listServerPath(settings.customerID)) return Kind::list;
  if (!signing::digestInPath(serverPath)) {
    throw DownloadFailure(signing::complaintAboutContent(serverPath, "")->sentence);
  }
  return Kind::bound;
}

DownloadTrust::DownloadTrust(const AgentSettings& settings, const std::string& serverPath,
                             const FetchSignature& fetch)
    : settings_(settings),
      serverPath_(serverPath),
      fetch_(fetch),
      kind_(kindOf(settings, serverPath)),
      policy_(trustPolicyOf(settings)),
      remembered_(signing::trustStatePath(settings.dataPath), settings.customerID) {}

bool DownloadTrust::isContent(std::string_view digest) const {
  return !signing::complaintAboutContent(serverPath_, digest);
}

bool DownloadTrust::mayBeUnchangedSince(std::chrono::system_clock::time_point received) const {
  const auto age = now(settings_) - std::chrono::floor<std::chrono::seconds>(received);
  return age >= std::chrono::seconds(0) && age < kValidatorsOfListCount;
}

void DownloadTrust::accept(DownloadTarget& target, const Use& use) const {
  if (kind_ == Kind::unchecked) return use();
  const FileDescriptor& file = target.temporaryFile();
  if (kind_ == Kind::list) return acceptList(wholeContent(file, target.size()), use);
  const auto digest = hexDigest(usualDigest(), file, static_cast<std::size_t>(target.size()));
  if (!digest) throw DownloadFailure("can't read the file again");
  if (const auto complaint = signing::complaintAboutContent(serverPath_, *digest)) {
    throw DownloadFailure(complaint->sentence);
  }
  use();
}

void DownloadTrust::acceptList(std::string_view list, const Use& use) const {
  const Judgement judgement = judged(signing::ListInHand(list), use);
  if (const auto* const why = std::get_if<Refusal>(&judgement)) {
    report(settings_, {why->sentence, {}, 0, {}});
    throw ListRefusal(why->sentence);
  }
  tell(std::get<Acceptance>(judgement));
}

bool DownloadTrust::acceptsKeptList(const std::string& digest, const Content& content,
                                    const Use& use) const {
  Judgement judgement = judgedByRecord(digest, use);
  if (std::holds_alternative<Refusal>(judgement)) {
    const std::string list = content();
    judgement = judgedBySignatures(signing::ListInHand(list), use);
  }
  const auto* const accepted = std::get_if<Acceptance>(&judgement);
  if (accepted != nullptr) tell(*accepted);
  return accepted != nullptr;
}

std::string DownloadTrust::withRemarkOnLastList(std::string why) const {
  // What a server says may be as long as it likes, and whoever shows a reason shortens it.
  constexpr std::size_t kMostOfTheWords = 512;
  if (kind_ != Kind::list) return why;
  const auto remembered = remembered_.read();
  const auto* const state = std::get_if<signing::TrustState>(&remembered);
  if (state == nullptr) return why;
  const auto complaint = signing::complaintAboutLast(policy_, *state, now(settings_));
  if (!complaint) return why;
  std::string text(beginningOf(why, kMostOfTheWords));
  if (text.size() < why.size()) text += "…";
  return text + "; the list that was accepted last counts no more: " + complaint->sentence;
}

Judgement DownloadTrust::judged(const signing::ListInHand& list, const Use& use) const {
  Judgement judgement = judgedByRecord(list.digest, use);
  if (std::holds_alternative<Acceptance>(judgement)) return judgement;
  return judgedBySignatures(list, use);
}

Judgement DownloadTrust::judgedByRecord(const std::string& digest, const Use& use) const {
  const signing::UTCTime clock = now(settings_);
  if (settings_.remembersLists) return remembered_.acceptKept(digest, policy_, clock, use);
  return judgedOnly(
      [&](const auto& state) { return signing::judgeKeptList(digest, policy_, state, clock); },
      use);
}

Judgement DownloadTrust::judgedBySignatures(const signing::ListInHand& list, const Use& use) const {
  const auto remembered = remembered_.read();
  // No signature helps where it can't be told what was accepted before.
  if (const auto* const why = std::get_if<Refusal>(&remembered)) return *why;
  const Signatures found = signaturesOf(list, std::get<signing::TrustState>(remembered));
  if (found.files.empty()) {
    const std::string& why = found.unreadable.empty() ? found.missing : found.unreadable;
    return Refusal{withRemarkOnLastList("the list is not signed: " + why)};
  }
  const signing::UTCTime clock = now(settings_);
  Judgement judgement =
      settings_.remembersLists
          ? remembered_.accept(list, found.files, policy_, clock, use)
          : judgedOnly(
                [&](const auto& state) {
                  return signing::judgeList(list, found.files, policy_, state, clock);
                },
                use);
  auto* const why = std::get_if<Refusal>(&judgement);
  if (why != nullptr && !found.unreadable.empty()) why->sentence += "; " + found.unreadable;
  return judgement;
}

DownloadTrust::Signatures DownloadTrust::signaturesOf(const signing::ListInHand& list,
                                                      const signing::TrustState& state) const {
  const auto names = signing::signatureNames(list.digest, policy_.keys);
  Signatures found;
  askFor(names.front(), true, found);
  bool isEnough = false;
  for (std::size_t i = 1; i < names.size(); ++i) {
    // The first name is that of whoever signed first, each further one that of a key.
    if (found.by.contains(policy_.keys[i - 1].number)) continue;
    // When there are enough, the others are asked for all the same: what a key has signed is
    // remembered of it, so that no older list counts by it once the rest are trusted no more.
    isEnough = isEnough || std::holds_alternative<Acceptance>(signing::judgeList(
                               list, found.files, policy_, state, now(settings_)));
    askFor(names[i], !isEnough, found);
  }
  return found;
}

void DownloadTrust::askFor(const std::string& name, bool isNeeded, Signatures& found) const {
  try {
    found.take(name, fetch_(signaturePath(name)));
  } catch (const TransientFailure& failure) {
    if (isNeeded) throw TransientFailure(name + ": " + failure.what(), failure.askedPause());
  } catch (const DownloadFailure& failure) {
    if (found.missing.empty()) found.missing = name + ": " + failure.what();
  }
}

Judgement DownloadTrust::judgedOnly(
    const std::function<Judgement(const signing::TrustState&)>& judge, const Use& use) const {
  const auto remembered = remembered_.read();
  if (const auto* const why = std::get_if<Refusal>(&remembered)) return *why;
  Judgement judgement = judge(std::get<signing::TrustState>(remembered));
  if (std::holds_alternative<Acceptance>(judgement)) use();
  return judgement;
}

std::string DownloadTrust::signaturePath(const std::string& name) const {
  return posix::directoryOf(serverPath_) + "/" + name;
}

void DownloadTrust::tell(const Acceptance& accepted) const {
  AgentLog::logInfo("The list is " + signing::whoSigned(accepted), "DownloadTrust",
                    "acceptList(_:use:)", __LINE__);
  ListJudgement judgement{{}, {}, accepted.serial, signing::utcTimeText(accepted.expires)};
  for (const PublicKey& key : accepted.signedBy) {
    judgement.signedBy.push_back(signing::keyName(key.number));
  }
  report(settings_, judgement);
}

bool isBoundDocument(const std::string& path, const std::string& serverPath) noexcept {
  try {
    if (settings().trustedKeys.empty()) return true;
    const auto expected = signing::digestInPath(serverPath);
    // Not blocking, or a FIFO at that path would be waited for.
    const posix::FileDescriptor file(
        ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY));
    struct stat status {};
    if (!expected || !file || ::fstat(file.get(), &status) != 0 || !S_ISREG(status.st_mode)) {
      return false;
    }
    const auto digest = hexDigest(usualDigest(), file, static_cast<std::size_t>(status.st_size));
    return digest == *expected;
  } catch (...) {
    // Out of memory: what can't be held against the list does not count.
    return false;
  }
}

}  // namespace AgentUtils
