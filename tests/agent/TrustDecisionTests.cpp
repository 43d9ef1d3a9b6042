// Whether a list counts, by its signatures, by what was accepted before and by the clock.

#include <gtest/gtest.h>

#include <random>
#include <string>
#include <vector>

#include "signing/ListSignature.h"
#include "signing/TrustDecision.h"
#include "support/Signer.h"

using namespace AgentUtils::signing;

namespace {

using Files = std::vector<std::string>;

constexpr char kHighest[] = "18446744073709551615";

/// One computer that trusts some keys, and remembers what it has accepted.
class Computer {
 public:
  explicit Computer(const std::vector<std::string>& keys, std::size_t needed = 1) {
    trust(keys, needed);
  }

  void trust(const std::vector<std::string>& keys, std::size_t needed = 1) {
    policy.keys.clear();
    for (const std::string& key : keys) policy.keys.push_back(vectorKey(key));
    policy.needed = needed;
  }

  Judgement judge(const std::string& list, const Files& files,
                  std::string_view clock = kMeanwhile) {
    Judgement judgement = judgeList(list, files, policy, state, at(clock));
    if (const auto* const accepted = std::get_if<Acceptance>(&judgement)) state = accepted->state;
    return judgement;
  }

  std::string see(const std::string& list, const Files& files,
                  std::string_view clock = kMeanwhile) {
    return outcome(judge(list, files, clock));
  }

  std::string keep(const std::string& list, std::string_view clock = kMeanwhile) const {
    return outcome(judgeKeptList(ListInHand(list).digest, policy, state, at(clock)));
  }

  TrustPolicy policy{{}, 1, "acme"};
  TrustState state{"acme", {}};
};

/// What is signed is the text "list SERIAL", unless a test says otherwise.
std::string listOf(const std::string& serial) { return "list " + serial; }

std::string by(const std::string& key, const std::string& serial) {
  return Signer(key).sign(listOf(serial), commentWith(serial));
}

TEST(JudgeList, OfMinisignIsAccepted) {
  Computer computer({"first"});
  const Judgement judgement = computer.judge(vectorFile("list.xml"), {vectorFile("first.minisig")});
  ASSERT_EQ(outcome(judgement), "(accepted)");
  const auto& accepted = std::get<Acceptance>(judgement);
  EXPECT_EQ(accepted.serial, 7U);
  EXPECT_EQ(accepted.signedBy, std::vector{vectorKey("first")});
  EXPECT_EQ(accepted.expires, at("2026-12-22T11:30:00Z"));
  const LastAccepted remembered{7,
                                "d78081e2d670b128921716623b8d4123b27192769b50f5fe76daf837f0de402f",
                                at("2026-11-22T11:30:00Z"), at("2026-12-22T11:30:00Z")};
  EXPECT_EQ(accepted.state, (TrustState{"acme", {{vectorKey("first"), remembered}}}));
}

TEST(JudgeList, WithoutAKeyOrAnAttainableNumberIsRefused) {
  EXPECT_EQ(Computer({}).see("x", {}), "no key is trusted");
  EXPECT_EQ(Computer({"first"}, 0).see("x", {}), "at least 1 signature must be needed");
  // The same key twice is one key.
  EXPECT_EQ(Computer({"first", "first"}, 2).see(listOf("1"), {by("first", "1")}),
            "2 signatures are needed, and 1 key is trusted");
  EXPECT_EQ(Computer({"first", "second"}, 3).see("x", {}),
            "3 signatures are needed, and 2 keys are trusted");
}

TEST(JudgeList, ThatIsNotSignedByATrustedKeyIsRefused) {
  Computer computer({"first"});
  const std::string list = vectorFile("list.xml");
  EXPECT_EQ(computer.see(list, {}), "the list is not signed");
  EXPECT_EQ(computer.see(list, {""}), "the signature file is empty");
  EXPECT_EQ(computer.see(list, {vectorFile("second.minisig")}),
            "the key C3CC33B19BA09674, by which the list is signed, is not trusted");
  EXPECT_EQ(computer.see(list + ' ', {vectorFile("first.minisig")}),
            "the signature by the key 808CC446AE5308A3 is not over this list");
  EXPECT_EQ(computer.see(list, {vectorFile("uncommented.minisig")}),
            "in the signature by the key 808CC446AE5308A3, the signed comment holds what is not "
            "known here: \"timestamp:1795348265\"");
  EXPECT_EQ(computer.state, (TrustState{"acme", {}}));
}

TEST(JudgeList, WithAChangedCommentIsRefused) {
  Computer computer({"first"});
  std::string file = vectorFile("first.minisig");
  file.replace(file.find("2026-12"), 7, "2036-12");
  EXPECT_EQ(computer.see(vectorFile("list.xml"), {file}),
            "the comment of the signature by the key 808CC446AE5308A3 was changed");
}

TEST(JudgeList, WithTheNumberOfATrustedKeyAndAnotherKeyIsRefused) {
  // Whoever makes a key chooses its number.
  Computer computer({"first"});
  ListSignature forged = std::get<ListSignature>(parseSignature(vectorFile("second.minisig")));
  forged.key = vectorKey("first").number;
  EXPECT_EQ(computer.see(vectorFile("list.xml"), {signatureFile(forged)}),
            "the signature by the key 808CC446AE5308A3 is not over this list");
  // And two trusted keys of one number are both tried.
  PublicKey twin = vectorKey("second");
  twin.number = vectorKey("first").number;
  computer.policy.keys.push_back(twin);
  EXPECT_EQ(computer.see(vectorFile("list.xml"), {signatureFile(forged)}), "(accepted)");
}

TEST(JudgeList, UnderOneKeyWithTwoNumbersIsRefused) {
  // Nobody signs the number: with it changed, one signature would be two.
  Computer computer({"first"}, 2);
  PublicKey twin = vectorKey("first");
  twin.number = vectorKey("second").number;
  computer.policy.keys.push_back(twin);
  ListSignature again = std::get<ListSignature>(parseSignature(vectorFile("first.minisig")));
  again.key = twin.number;
  EXPECT_EQ(
      computer.see(vectorFile("list.xml"), {vectorFile("first.minisig"), signatureFile(again)}),
      "the keys 808CC446AE5308A3 and C3CC33B19BA09674 are one key under two numbers");
}

TEST(JudgeList, ForAnotherCustomerIsRefused) {
  Computer computer({"first"});
  const std::string file = Signer("first").sign(
      "list", commentWith("1", "2026-11-22T11:30:00Z", "2026-12-22T11:30:00Z", "other"));
  EXPECT_EQ(computer.see("list", {file}),
            "the signature by the key 808CC446AE5308A3 is for the customer \"other\", not for "
            "\"acme\"");
  computer.state.customer = "other";
  EXPECT_EQ(computer.see(listOf("1"), {by("first", "1")}),
            "what was accepted before is of the customer \"other\", not of \"acme\"");
}

TEST(JudgeList, NeedsAsManyDifferentKeysAsAreNeeded) {
  Computer computer({"first", "second"}, 2);
  const std::string first = by("first", "1");
  const std::string few =
      "the list has 1 of the 2 signatures that are needed, and none by the key C3CC33B19BA09674";
  EXPECT_EQ(computer.see(listOf("1"), {first}), few);
  EXPECT_EQ(computer.see(listOf("1"), {first, first}), few);
  // Two different signatures of one key are one as well.
  const std::string renewed = Signer("first").sign(
      listOf("1"), commentWith("1", "2026-11-23T11:30:00Z", "2026-12-23T11:30:00Z"));
  EXPECT_EQ(computer.see(listOf("1"), {first, renewed}), few);
  EXPECT_EQ(computer.see(listOf("1"), {first, by("second", "2")}),
            "the list has 1 of the 2 signatures that are needed: the signature by the key "
            "C3CC33B19BA09674 is not over this list");
  EXPECT_TRUE(computer.state.keys.empty());
  EXPECT_EQ(computer.see(listOf("1"), {by("second", "1"), first}), "(accepted)");
}

// Which of two serials is the thief's can't be told: one that is too high would keep every later
// list out, one that is too low would let an earlier list in.
TEST(JudgeList, NeedsOneSerialOfAsManyKeysAsAreNeeded) {
  Computer computer({"first", "second"}, 2);
  const auto at = [](const std::string& key, const std::string& serial) {
    return Signer(key).sign("list", commentWith(serial));
  };
  EXPECT_EQ(
      computer.see("list", {at("first", "1"), at("second", "3")}),
      "the list has 1 of the 2 signatures that are needed with one serial: it has 3 by the key "
      "C3CC33B19BA09674 and 1 by the key 808CC446AE5308A3");
  EXPECT_TRUE(computer.state.keys.empty());
  EXPECT_EQ(computer.see("list", {at("first", "3"), at("second", "3")}), "(accepted)");
  EXPECT_EQ(computer.keep("list"), "(accepted)");
  computer.trust({"first", "second", "third"}, 2);
  const Files files = {at("first", kHighest), at("second", "4"), at("third", "4")};
  const Judgement judgement = computer.judge("list", files);
  ASSERT_EQ(outcome(judgement), "(accepted)");
  const auto& accepted = std::get<Acceptance>(judgement);
  EXPECT_EQ(accepted.serial, 4U);
  EXPECT_EQ(accepted.signedBy, (std::vector{vectorKey("second"), vectorKey("third")}));
  // Nothing is remembered of the one that nobody else bears out.
  EXPECT_EQ(computer.state.keys.at(vectorKey("first")).serial, 3U);
}

TEST(JudgeList, RemembersAlsoALowerSerialOfAKeyThatIsNotNeeded) {
  Computer computer({"first", "second"});
  const Files files = {Signer("first").sign("list", commentWith("3")),
                       Signer("second").sign("list", commentWith("2"))};
  EXPECT_EQ(computer.see("list", files), "(accepted)");
  computer.trust({"second"});
  EXPECT_EQ(computer.see(listOf("1"), {by("second", "1")}),
            "the list is an older one: it has the serial 1 by the key C3CC33B19BA09674, and 2 was "
            "accepted before");
}

TEST(JudgeList, CountsForAsLongAsEnoughSignaturesDo) {
  Computer computer({"first", "second"}, 2);
  const Judgement both = computer.judge(
      "list", {Signer("first").sign("list", commentWith("1")),
               Signer("second").sign(
                   "list", commentWith("1", "2026-11-22T11:30:00Z", "2026-12-05T00:00:00Z"))});
  EXPECT_EQ(std::get<Acceptance>(both).expires, at("2026-12-05T00:00:00Z"));
  computer.trust({"first", "second"}, 1);
  const auto one =
      judgeKeptList(ListInHand("list").digest, computer.policy, computer.state, at(kMeanwhile));
  EXPECT_EQ(std::get<Acceptance>(one).expires, at("2026-12-22T11:30:00Z"));
}

TEST(JudgeList, IsNotSpoiltByFurtherSignatures) {
  Computer computer({"first"});
  EXPECT_EQ(computer.see(listOf("1"),
                         {"", "rubbish", by("second", "1"), by("first", "2"), by("first", "1")}),
            "(accepted)");
}

TEST(JudgeList, OlderThanOneThatWasAcceptedIsRefused) {
  Computer computer({"first"});
  EXPECT_EQ(computer.see(listOf("7"), {by("first", "7")}), "(accepted)");
  const TrustState before = computer.state;
  EXPECT_EQ(computer.see(listOf("6"), {by("first", "6")}),
            "the list is an older one: it has the serial 6 by the key 808CC446AE5308A3, and 7 was "
            "accepted before");
  EXPECT_EQ(computer.see("another", {Signer("first").sign("another", commentWith("7"))}),
            "the list is another one under the same serial: it has 7 by the key 808CC446AE5308A3, "
            "and 7 was accepted before");
  EXPECT_EQ(computer.state, before);
  EXPECT_EQ(computer.see(listOf("7"), {by("first", "7")}), "(accepted)");
  EXPECT_EQ(computer.see(listOf("8"), {by("first", "8")}), "(accepted)");
}

TEST(JudgeList, OlderIsRefusedAlsoBySignaturesOfAKeyThatHasSignedNothingSince) {
  Computer computer({"first", "second"});
  EXPECT_EQ(computer.see(listOf("5"), {by("first", "5"), by("second", "5")}), "(accepted)");
  EXPECT_EQ(computer.see(listOf("6"), {by("first", "6")}), "(accepted)");
  // The signature of the first key is withheld.
  EXPECT_EQ(
      computer.see(listOf("5"), {by("second", "5")}),
      "the list is an older one: it has the serial 5 by the key C3CC33B19BA09674, and 6 by the "
      "key 808CC446AE5308A3 was accepted before");
}

TEST(JudgeList, ASerialThatAThiefHasDrivenToItsEndIsHealedByTrustingAnotherKey) {
  Computer computer({"first"});
  EXPECT_EQ(computer.see(listOf(kHighest), {by("first", kHighest)}), "(accepted)");
  EXPECT_EQ(computer.see(listOf("8"), {by("first", "8")}),
            "the list is an older one: it has the serial 8 by the key 808CC446AE5308A3, and "
            "18446744073709551615 was accepted before");
  computer.trust({"second"});
  EXPECT_EQ(computer.see(listOf("8"), {by("second", "8")}), "(accepted)");
  // What the thief has signed does not come back with it.
  EXPECT_EQ(computer.see(listOf(kHighest), {by("first", kHighest)}),
            "the key 808CC446AE5308A3, by which the list is signed, is not trusted");
}

TEST(JudgeList, ThatHasExpiredIsRefusedAndSaysSinceWhen) {
  Computer computer({"first"});
  EXPECT_EQ(computer.see(listOf("1"), {by("first", "1")}, "2026-12-22T11:29:59Z"), "(accepted)");
  EXPECT_EQ(computer.see(listOf("1"), {by("first", "1")}, "2026-12-22T11:30:00Z"),
            "the signature by the key 808CC446AE5308A3 expired at 2026-12-22T11:30:00Z");
}

TEST(JudgeList, ThatHasExpiredIsNotRevivedByAClockThatIsSetBack) {
  Computer computer({"first", "second"});
  const std::string later = Signer("first").sign(
      "later", commentWith("2", "2027-02-01T00:00:00Z", "2027-03-01T00:00:00Z"));
  EXPECT_EQ(computer.see("later", {later}, "2027-02-02T00:00:00Z"), "(accepted)");
  EXPECT_EQ(computer.see(listOf("3"), {by("second", "3")}, kMeanwhile),
            "the signature by the key C3CC33B19BA09674 expired at 2026-12-22T11:30:00Z; the clock "
            "of this computer stands at 2026-12-01T00:00:00Z, and a list of 2027-02-01T00:00:00Z "
            "was accepted before");
  // The times of a key that is trusted no more do not count either.
  computer.trust({"second"});
  EXPECT_EQ(computer.see(listOf("3"), {by("second", "3")}, kMeanwhile), "(accepted)");
}

TEST(JudgeList, TheLatestTimeIsNotLoweredByWhatIsAcceptedAfterIt) {
  Computer computer({"first"});
  const auto signedAt = [](const std::string& serial, const std::string& published,
                           const std::string& expires) {
    return Signer("first").sign(listOf(serial), commentWith(serial, published, expires));
  };
  const std::string late = signedAt("1", "2027-02-01T00:00:00Z", "2027-04-01T00:00:00Z");
  const std::string early = signedAt("2", "2026-12-01T00:00:00Z", "2027-04-01T00:00:00Z");
  const std::string brief = signedAt("3", "2026-12-01T00:00:00Z", "2027-01-01T00:00:00Z");
  EXPECT_EQ(computer.see(listOf("1"), {late}, "2027-02-02T00:00:00Z"), "(accepted)");
  EXPECT_EQ(computer.see(listOf("2"), {early}, "2027-02-02T00:00:00Z"), "(accepted)");
  EXPECT_EQ(computer.see(listOf("3"), {brief}, "2026-12-02T00:00:00Z"),
            "the signature by the key 808CC446AE5308A3 expired at 2027-01-01T00:00:00Z; the clock "
            "of this computer stands at 2026-12-02T00:00:00Z, and a list of 2027-02-01T00:00:00Z "
            "was accepted before");
}

TEST(JudgeList, UnderAClockThatStandsBeforeItsPublicationIsRefused) {
  Computer computer({"first"});
  EXPECT_EQ(computer.see(listOf("1"), {by("first", "1")}, "1970-01-01T00:00:07Z"),
            "the signature by the key 808CC446AE5308A3 was made at 2026-11-22T11:30:00Z, and the "
            "clock of this computer stands before that, at 1970-01-01T00:00:07Z");
  EXPECT_EQ(computer.see(listOf("1"), {by("first", "1")}, "2026-11-22T11:24:59Z"),
            "the signature by the key 808CC446AE5308A3 was made at 2026-11-22T11:30:00Z, and the "
            "clock of this computer stands before that, at 2026-11-22T11:24:59Z");
  // Clocks differ by some minutes.
  EXPECT_EQ(computer.see(listOf("1"), {by("first", "1")}, "2026-11-22T11:25:00Z"), "(accepted)");
}

TEST(JudgeList, OfARenewedSignatureCountsLonger) {
  Computer computer({"first"});
  const std::string list = listOf("1");
  EXPECT_EQ(computer.see(list, {by("first", "1")}), "(accepted)");
  const std::string renewed =
      Signer("first").sign(list, commentWith("1", "2026-12-20T00:00:00Z", "2027-01-20T00:00:00Z"));
  EXPECT_EQ(computer.see(list, {by("first", "1"), renewed}, "2026-12-23T00:00:00Z"), "(accepted)");
  EXPECT_EQ(computer.keep(list, "2027-01-19T00:00:00Z"), "(accepted)");
  // The earlier signature takes nothing of that away.
  EXPECT_EQ(computer.see(list, {by("first", "1")}, "2026-12-21T00:00:00Z"), "(accepted)");
  EXPECT_EQ(computer.keep(list, "2027-01-19T00:00:00Z"), "(accepted)");
}

TEST(JudgeKeptList, CountsWhileItIsTheOneThatWasAcceptedLastAndHasNotExpired) {
  Computer computer({"first"});
  EXPECT_EQ(computer.keep(listOf("1")), "the list is not the one that was accepted last");
  EXPECT_EQ(computer.see(listOf("1"), {by("first", "1")}), "(accepted)");
  EXPECT_EQ(computer.keep(listOf("1")), "(accepted)");
  EXPECT_EQ(computer.keep(listOf("2")), "the list is not the one that was accepted last");
  EXPECT_EQ(computer.keep(listOf("1"), "2026-12-22T11:30:00Z"),
            "the signature by the key 808CC446AE5308A3 expired at 2026-12-22T11:30:00Z");
  EXPECT_EQ(computer.see(listOf("2"), {by("first", "2")}), "(accepted)");
  EXPECT_EQ(computer.keep(listOf("1")), "the list is not the one that was accepted last");
  computer.trust({"second"});
  EXPECT_EQ(computer.keep(listOf("2")), "the list is not the one that was accepted last");
  computer.trust({"first", "second"}, 2);
  EXPECT_EQ(
      computer.keep(listOf("2")),
      "the list has 1 of the 2 signatures that are needed, and none by the key C3CC33B19BA09674");
}

TEST(JudgeKeptList, DoesNotCountByAnOlderSignatureOfAnotherKey) {
  Computer computer({"first", "second"});
  EXPECT_EQ(computer.see(listOf("5"), {by("second", "5")}), "(accepted)");
  EXPECT_EQ(computer.see(listOf("6"), {by("first", "6")}), "(accepted)");
  EXPECT_EQ(computer.keep(listOf("5")), "the list is not the one that was accepted last");
}

// Whatever a server sends in whatever order: nothing is accepted that was not signed, and nothing
// older than what was accepted.
TEST(JudgeList, NeverGoesBackUnderAnySequenceOfReplays) {
  const Signer signers[] = {Signer("first"), Signer("second")};
  // Every publication is signed by one of the keys or by both.
  struct Published {
    std::string list;
    Files files;
  };
  std::vector<Published> published;
  for (int serial = 0; serial < 24; ++serial) {
    Published one{listOf(std::to_string(serial)), {}};
    for (int key = 0; key < 2; ++key) {
      if (((serial % 3 + 1) & (1 << key)) == 0) continue;
      one.files.push_back(signers[key].sign(one.list, commentWith(std::to_string(serial))));
    }
    published.push_back(one);
  }
  std::mt19937 random(13);
  const auto below = [&random](std::size_t limit) { return random() % limit; };
  int accepted = 0;
  for (int sequence = 0; sequence < 300; ++sequence) {
    Computer computer({"first", "second"}, 1 + below(2));
    std::uint64_t highest = 0;
    for (int step = 0; step < 12; ++step) {
      const Published& list = published[below(published.size())];
      const Published& other = published[below(published.size())];
      Files files = below(2) == 0 ? list.files : other.files;
      if (below(3) == 0) files.erase(files.begin());
      if (below(3) == 0) files.insert(files.end(), other.files.begin(), other.files.end());
      const Judgement judgement = computer.judge(list.list, files);
      if (!std::holds_alternative<Acceptance>(judgement)) continue;
      ++accepted;
      const std::uint64_t serial = std::get<Acceptance>(judgement).serial;
      ASSERT_EQ(list.list, listOf(std::to_string(serial)));
      ASSERT_GE(serial, highest);
      ASSERT_GE(std::get<Acceptance>(judgement).signedBy.size(), computer.policy.needed);
      highest = serial;
    }
  }
  EXPECT_GT(accepted, 300);
}

// One of three keys is stolen, of which two have to have signed: whatever the thief signs and the
// server sends, nothing is accepted that the others have not signed, no older list is, and the next
// list that they sign is.
TEST(JudgeList, HoldsAgainstAThiefOfFewerKeysThanAreNeeded) {
  const std::vector<std::string> names = {"first", "second", "third"};
  const std::vector<Signer> signers = {Signer("first"), Signer("second"), Signer("third")};
  const Signer& thief = signers[0];
  std::mt19937 random(13);
  const auto below = [&random](std::size_t limit) { return random() % limit; };
  std::size_t accepted = 0;
  for (int sequence = 0; sequence < 300; ++sequence) {
    Computer computer(names, 2);
    std::vector<std::string> lists;
    std::vector<Files> files;
    std::uint64_t serial = 0;
    const auto publish = [&](std::size_t without) {
      serial += 1 + below(3);
      lists.push_back("list " + std::to_string(lists.size()));
      files.emplace_back();
      for (std::size_t key = 0; key < signers.size(); ++key) {
        if (key == without) continue;
        files.back().push_back(
            signers[key].sign(lists.back(), commentWith(std::to_string(serial))));
      }
    };
    std::size_t last = 0;
    publish(below(4));
    for (int step = 0; step < 12; ++step) {
      if (below(2) == 0) publish(below(4));
      const bool isOwn = below(8) == 0;
      const std::size_t which = below(lists.size());
      const std::string list = isOwn ? "evil" : lists[which];
      Files given = files[which];
      if (below(2) == 0) given.erase(given.begin());
      if (below(3) != 0) {
        const std::string claimed = below(4) == 0 ? kHighest : std::to_string(below(serial + 4));
        given.insert(given.begin() + static_cast<std::ptrdiff_t>(below(given.size() + 1)),
                     thief.sign(list, commentWith(claimed)));
      }
      if (outcome(computer.judge(list, given)) != "(accepted)") continue;
      ++accepted;
      ASSERT_FALSE(isOwn);
      ASSERT_GE(which, last);
      last = which;
      ASSERT_EQ(computer.keep(list), "(accepted)");
    }
    publish(below(2) == 0 ? 0 : signers.size());
    ASSERT_EQ(computer.see(lists.back(), files.back()), "(accepted)") << sequence;
  }
  EXPECT_GT(accepted, 300U);
}

}  // namespace
