// The signatures of a publication: their serials and times, where they lie, and which are refused.
// The clock is the tests' own.

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <limits>
#include <map>
#include <string>

#include "Digest.h"
#include "publish/Signing.h"
#include "support/TemporaryDirectory.h"

namespace VarnScripts::publishing {
namespace {

namespace fs = std::filesystem;
namespace signing = AgentUtils::signing;

constexpr const char* kList = "<scripts-meta>1</scripts-meta>\n";
constexpr const char* kOtherList = "<scripts-meta>2</scripts-meta>\n";
constexpr std::chrono::seconds kMonth = std::chrono::days(30);

UTCTime at(std::string_view text) { return signing::utcTimeFrom(text).value(); }

// 1795348800 seconds after the beginning of 1970.
const UTCTime kNoon = at("2026-11-22T12:00:00Z");

std::string digestOf(const std::string& list) {
  return AgentUtils::hexDigest(AgentUtils::usualDigest(), list);
}

keys::SecretKey copyOf(const keys::SecretKey& key) {
  keys::SecretKey copy;
  copy.number = key.number;
  copy.bytes.add(key.bytes.text());
  return copy;
}

std::string nameOf(const keys::SecretKey& key) { return signing::keyName(key.number); }

class SigningTest : public testing::Test {
 protected:
  void SetUp() override {
    std::error_code error;
    files_.open(directory_.path(), "client-data/acme/scriptrepo", error);
    ASSERT_FALSE(error);
    files_.makePlaceForSignatures(error);
    ASSERT_FALSE(error);
  }

  void put(const std::string& name, std::string_view bytes) const {
    std::ofstream(files_.pathOf(name), std::ios::binary) << bytes;
  }

  [[nodiscard]] std::string bytesOf(const std::string& name) const {
    std::ifstream file(files_.pathOf(name), std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
  }

  static Signers here(std::initializer_list<const keys::SecretKey*> keys) {
    Signers signers;
    for (const auto* key : keys) signers.here.push_back(copyOf(*key));
    return signers;
  }

  // Signs the list, puts what comes into the tree, and gives the summary or the refusal.
  std::string sign(Signers signers, const std::string& list, UTCTime now,
                   std::chrono::seconds lifetime = kMonth) {
    return done(std::move(signers), list, now, lifetime, &Signing::sign);
  }

  std::string renew(Signers signers, const std::string& list, UTCTime now,
                    std::chrono::seconds lifetime = kMonth) {
    return done(std::move(signers), list, now, lifetime, &Signing::renew);
  }

  std::string done(Signers signers, const std::string& list, UTCTime now,
                   std::chrono::seconds lifetime,
                   std::optional<Refusal> (Signing::*operation)(std::string_view, UTCTime)) {
    Signing signing(std::move(signers), "acme", lifetime);
    std::error_code error;
    signing.look(files_, error);
    EXPECT_FALSE(error) << error.message();
    if (const auto why = (signing.*operation)(list, now)) return "refused: " + why->sentence;
    written_.clear();
    for (const SignatureFile& file : signing.files()) {
      put(file.name, file.bytes);
      written_.push_back(file.name);
    }
    remark_ = signing.remark() ? signing.remark()->text : "";
    missing_ = signing.missing();
    otherSerials_ = signing.otherSerials();
    return signing.summary();
  }

  // A signature that the key has made over the list, in the tree under that list's name.
  void signedBefore(const keys::SecretKey& key, const std::string& list, std::uint64_t serial,
                    UTCTime published = kNoon - std::chrono::hours(1),
                    const std::string& customer = "acme", const std::string& named = "") {
    put("signatures/" + digestOf(named.empty() ? list : named) + "." + nameOf(key) + ".minisig",
        signedWith(key, list, {customer, serial, published, published + kMonth}));
  }

  const TemporaryDirectory directory_;
  const keys::SecretKey key_ = keys::makeSecretKey();
  const keys::SecretKey other_ = keys::makeSecretKey();
  ServerFiles files_;
  std::vector<std::string> written_;
  std::string remark_;
  std::vector<std::string> missing_;
  std::vector<std::string> otherSerials_;
};

TEST_F(SigningTest, TheFirstSerialIsTheTimeAndTheNextOneIsHigher) {
  const std::string by = "by " + nameOf(key_) + " with the serial ";
  EXPECT_EQ(sign(here({&key_}), kList, kNoon), by + "1795348800 until 2026-12-22T12:00:00Z");
  EXPECT_EQ(written_, (std::vector{"signatures/" + digestOf(kList) + ".minisig"}));
  // Within the same second.
  EXPECT_EQ(sign(here({&key_}), kOtherList, kNoon), by + "1795348801 until 2026-12-22T12:00:00Z");
  // After some time.
  EXPECT_EQ(sign(here({&key_}), kList + std::string("\n"), kNoon + std::chrono::hours(1)),
            by + "1795352400 until 2026-12-22T13:00:00Z");
}

TEST_F(SigningTest, ATreeThatWasLostBeginsBeyondWhatWasSigned) {
  sign(here({&key_}), kList, kNoon);
  fs::remove(files_.pathOf("signatures/" + digestOf(kList) + ".minisig"));
  EXPECT_EQ(sign(here({&key_}), kOtherList, kNoon + std::chrono::seconds(1)),
            "by " + nameOf(key_) + " with the serial 1795348801 until 2026-12-22T12:00:01Z");
}

TEST_F(SigningTest, AListThatIsTheNewestKeepsItsSignature) {
  sign(here({&key_}), kList, kNoon);
  const std::string name = written_.front();
  const std::string before = bytesOf(name);
  EXPECT_EQ(sign(here({&key_}), kList, kNoon + std::chrono::hours(1)),
            "by " + nameOf(key_) + " with the serial 1795348800 until 2026-12-22T12:00:00Z");
  EXPECT_TRUE(written_.empty());
  EXPECT_EQ(remark_, "");
}

TEST_F(SigningTest, AListThatComesBackIsANewPublication) {
  sign(here({&key_}), kList, kNoon);
  sign(here({&key_}), kOtherList, kNoon);
  EXPECT_EQ(sign(here({&key_}), kList, kNoon),
            "by " + nameOf(key_) + " with the serial 1795348802 until 2026-12-22T12:00:00Z");
  EXPECT_EQ(written_, (std::vector{"signatures/" + digestOf(kList) + ".minisig"}));
}

TEST_F(SigningTest, ASignatureThatHasExpiredIsMadeAnewWithTheSameSerial) {
  sign(here({&key_}), kList, kNoon);
  EXPECT_EQ(sign(here({&key_}), kList, kNoon + kMonth),
            "by " + nameOf(key_) + " with the serial 1795348800 until 2027-01-21T12:00:00Z");
  EXPECT_EQ(written_.size(), 1U);
}

TEST_F(SigningTest, ASignatureThatIsDamagedOrOverAnotherListIsMadeAnew) {
  sign(here({&key_}), kList, kNoon);
  const std::string name = written_.front();
  for (const std::string& bytes :
       {bytesOf(name).substr(0, 200), std::string(), std::string(100000, 'x'),
        signedWith(key_, kOtherList, {"acme", 1795348800, kNoon, kNoon + kMonth})}) {
    put(name, bytes);
    sign(here({&key_}), kList, kNoon);
    EXPECT_EQ(written_, (std::vector{name}));
  }
  fs::remove(files_.pathOf(name));
  fs::create_directory(files_.pathOf(name));
  sign(here({&key_}), kList, kNoon);
  EXPECT_EQ(written_, (std::vector{name}));
}

TEST_F(SigningTest, EveryKeySignsWithTheSameSerial) {
  signedBefore(other_, kOtherList, 1800000000);
  EXPECT_EQ(sign(here({&key_, &other_}), kList, kNoon),
            "by " + nameOf(key_) + " and " + nameOf(other_) +
                " with the serial 1800000001 until 2026-12-22T12:00:00Z");
  const std::string start = "signatures/" + digestOf(kList);
  EXPECT_EQ(written_, (std::vector{start + ".minisig", start + "." + nameOf(other_) + ".minisig"}));
}

TEST_F(SigningTest, AKeyThatComesLaterSignsWhatIsPublishedAndMovesNobody) {
  sign(here({&key_}), kList, kNoon);
  const std::string start = "signatures/" + digestOf(kList);
  for (const bool isFirst : {false, true}) {
    fs::remove(files_.pathOf(start + "." + nameOf(other_) + ".minisig"));
    EXPECT_EQ(sign(isFirst ? here({&other_, &key_}) : here({&key_, &other_}), kList, kNoon),
              "by " +
                  (isFirst ? nameOf(other_) + " and " + nameOf(key_)
                           : nameOf(key_) + " and " + nameOf(other_)) +
                  " with the serial 1795348800 until 2026-12-22T12:00:00Z");
    EXPECT_EQ(written_, (std::vector{start + "." + nameOf(other_) + ".minisig"}));
  }
  // Alone it leaves the place to the other one as well.
  fs::remove(files_.pathOf(start + "." + nameOf(other_) + ".minisig"));
  sign(here({&other_}), kList, kNoon);
  EXPECT_EQ(written_, (std::vector{start + "." + nameOf(other_) + ".minisig"}));
}

TEST_F(SigningTest, WhatOtherKeysHaveSignedCountsForNothing) {
  signedBefore(other_, kOtherList, std::numeric_limits<std::uint64_t>::max());
  // With the number of the key, which anybody may take.
  keys::SecretKey thief = copyOf(other_);
  thief.number = key_.number;
  signedBefore(thief, kList, std::numeric_limits<std::uint64_t>::max());
  signedBefore(key_, kOtherList, 1900000000, kNoon, "another");
  EXPECT_EQ(sign(here({&key_}), kList, kNoon),
            "by " + nameOf(key_) + " with the serial 1795348800 until 2026-12-22T12:00:00Z");
}

TEST_F(SigningTest, ASerialThatWasDrivenToItsEndIsRefused) {
  signedBefore(key_, kOtherList, std::numeric_limits<std::uint64_t>::max());
  EXPECT_EQ(sign(here({&key_, &other_}), kList, kNoon),
            "refused: the key " + nameOf(key_) +
                " has signed the serial 18446744073709551615, which none can follow; publish with "
                "other keys alone");
  EXPECT_EQ(sign(here({&other_}), kList, kNoon),
            "by " + nameOf(other_) + " with the serial 1795348800 until 2026-12-22T12:00:00Z");
}

TEST_F(SigningTest, ASerialAtTheEndIsNotSignedOnceMoreEither) {
  // Over the very list that a thief has published.
  signedBefore(key_, kList, std::numeric_limits<std::uint64_t>::max());
  const std::string refusal =
      "refused: the key " + nameOf(key_) +
      " has signed the serial 18446744073709551615, which none can follow; publish with other "
      "keys alone";
  EXPECT_EQ(sign(here({&key_}), kList, kNoon), refusal);
  EXPECT_EQ(sign(here({&key_}), kList, kNoon + kMonth), refusal);
  EXPECT_EQ(renew(here({&key_}), kList, kNoon), refusal);
}

TEST_F(SigningTest, ACopyUnderTheNameOfAnotherListHoldsNobodyUp) {
  sign(here({&key_}), kList, kNoon);
  for (const char* const list : {kList, kOtherList}) {
    signedBefore(key_, kList, 1795348800, kNoon, "acme", "0");
    signedBefore(key_, kList, 1795348800, kNoon, "acme", "1");
    signedBefore(key_, kList, 1795348800, kNoon, "acme", "2");
    EXPECT_EQ(sign(here({&key_}), list, kNoon).substr(0, 3), "by ") << list;
  }
}

TEST_F(SigningTest, AClockThatWasSetBackFarIsNoticed) {
  sign(here({&key_}), kList, kNoon);
  EXPECT_EQ(sign(here({&key_}), kOtherList, kNoon - kMonth - std::chrono::hours(1)),
            "refused: the signature by the key " + nameOf(key_) +
                " expired at 2026-11-22T11:00:00Z; the clock of this computer stands at "
                "2026-10-23T11:00:00Z, and a list of 2026-11-22T12:00:00Z was accepted before");
}

TEST_F(SigningTest, RenewingChangesTheTimesAlone) {
  sign(here({&key_, &other_}), kList, kNoon);
  const auto written = written_;
  const UTCTime later = kNoon + std::chrono::days(20);
  EXPECT_EQ(renew(here({&other_, &key_}), kList, later),
            "by " + nameOf(other_) + " and " + nameOf(key_) +
                " with the serial 1795348800 until 2027-01-11T12:00:00Z");
  EXPECT_EQ(std::set(written_.begin(), written_.end()), std::set(written.begin(), written.end()));
  const auto parsed = signing::parseSignature(bytesOf(written.front()));
  EXPECT_EQ(std::get<ListSignature>(parsed).comment,
            "customer:acme\tserial:1795348800\tpublished:2026-12-12T12:00:00Z\t"
            "expires:2027-01-11T12:00:00Z");
}

TEST_F(SigningTest, RenewingIsForThoseWhoHaveSignedAndMakesNoTimeShorter) {
  EXPECT_EQ(renew(here({&key_}), kList, kNoon),
            "refused: the key " + nameOf(key_) +
                " has not signed the list there; publish it with --sign-with, which does");
  sign(here({&key_}), kList, kNoon);
  EXPECT_EQ(renew(here({&key_}), kList, kNoon, kMonth - std::chrono::seconds(1)),
            "refused: the signature by the key " + nameOf(key_) +
                " counts until 2026-12-22T12:00:00Z already, and would for less long; give a "
                "longer --expires");
  EXPECT_NE(renew(here({&key_, &other_}), kList, kNoon).find(nameOf(other_)), std::string::npos);
}

TEST_F(SigningTest, RenewingOneThatIsNotTheNewestIsRefused) {
  sign(here({&key_}), kList, kNoon);
  sign(here({&key_}), kOtherList, kNoon);
  EXPECT_EQ(renew(here({&key_}), kList, kNoon),
            "refused: the key " + nameOf(key_) +
                " has signed a newer list, with the serial 1795348801, and the one there is older: "
                "a publication was interrupted, or an older list was put back; publish again, with "
                "--sign-with");
}

TEST_F(SigningTest, RenewingBringsSignaturesThatWereMadeApartToOneSerial) {
  sign(here({&key_}), kList, kNoon);
  const UTCTime later = kNoon + std::chrono::seconds(2);
  sign(here({&other_}), kList, later);
  EXPECT_EQ(renew(here({&key_, &other_}), kList, later),
            "by " + nameOf(key_) + " and " + nameOf(other_) +
                " with the serial 1795348802 until 2026-12-22T12:00:02Z");
}

TEST_F(SigningTest, AnotherKeyWithAnotherSerialOverTheSameListIsRemarkedOn) {
  const auto remarkOn = [&](const keys::SecretKey& key, const std::string& serial,
                            const std::string& own) {
    return std::vector<std::string>{
        "the key " + nameOf(key) + " has signed the same list with the serial " + serial +
        ", not " + own +
        "; computers that need the signatures of both refuse it; publish --renew with both keys "
        "brings them to one serial"};
  };
  const std::vector<std::string> nothing;
  sign(here({&key_}), kList, kNoon);
  EXPECT_EQ(otherSerials_, nothing);
  const UTCTime later = kNoon + std::chrono::seconds(2);
  sign(here({&other_}), kList, later);
  EXPECT_EQ(otherSerials_, remarkOn(key_, "1795348800", "1795348802"));
  // For as long as it is so, whichever of them signs.
  sign(here({&key_}), kList, later);
  EXPECT_EQ(otherSerials_, remarkOn(other_, "1795348802", "1795348800"));
  renew(here({&key_}), kList, later);
  EXPECT_EQ(otherSerials_, remarkOn(other_, "1795348802", "1795348800"));
  renew(here({&key_, &other_}), kList, later);
  EXPECT_EQ(otherSerials_, nothing);
  sign(here({&key_}), kList, later);
  EXPECT_EQ(otherSerials_, nothing);
  // Of an earlier publication, expired, for another customer, or a thief's, it is another matter.
  sign(here({&key_}), kOtherList, later);
  EXPECT_EQ(otherSerials_, nothing);
  signedBefore(other_, kOtherList, 1795348802);
  sign(here({&key_}), kOtherList, later);
  EXPECT_EQ(otherSerials_, nothing);
  signedBefore(other_, kOtherList, 1900000000, kNoon - std::chrono::days(31));
  sign(here({&key_}), kOtherList, later);
  EXPECT_EQ(otherSerials_, nothing);
  signedBefore(other_, kOtherList, 1900000000, kNoon, "another");
  sign(here({&key_}), kOtherList, later);
  EXPECT_EQ(otherSerials_, nothing);
  signedBefore(other_, kOtherList, std::numeric_limits<std::uint64_t>::max());
  sign(here({&key_}), kOtherList, later);
  EXPECT_EQ(otherSerials_, nothing);
  signedBefore(other_, kOtherList, 1900000000);
  sign(here({&key_}), kOtherList, later);
  EXPECT_EQ(otherSerials_, remarkOn(other_, "1900000000", "1795348803"));
}

TEST_F(SigningTest, ASignatureThatSoonExpiresIsRemarkedOn) {
  sign(here({&key_}), kList, kNoon);
  const std::string by = "the signature by the key " + nameOf(key_) + " expires at ";
  const std::string remedy = "; publish --renew makes a new one";
  sign(here({&key_}), kList, kNoon + std::chrono::days(20));
  EXPECT_EQ(remark_, "");
  sign(here({&key_}), kList, kNoon + std::chrono::days(20) + std::chrono::seconds(1));
  EXPECT_EQ(remark_, by + "2026-12-22T12:00:00Z" + remedy);
  const SignedComment comment{"acme", 1, kNoon, kNoon + std::chrono::hours(3)};
  EXPECT_FALSE(remarkOnExpiry(comment, key_.number, kNoon));
  EXPECT_FALSE(remarkOnExpiry(comment, key_.number, kNoon + std::chrono::minutes(170))->hasExpired);
  const auto expired = remarkOnExpiry(comment, key_.number, kNoon + std::chrono::hours(3));
  EXPECT_TRUE(expired->hasExpired);
  EXPECT_EQ(expired->text,
            "the signature by the key " + nameOf(key_) +
                " expired at 2026-11-22T15:00:00Z, and computers that trust the key refuse the "
                "list" +
                remedy);
}

class AttachedSignatures : public SigningTest {
 protected:
  Signers elsewhere(const std::vector<std::string>& attached) const {
    Signers signers;
    signers.elsewhere = {key_.publicKey(), other_.publicKey()};
    signers.attached = attached;
    return signers;
  }

  [[nodiscard]] std::string made(const keys::SecretKey& key, std::uint64_t serial,
                                 UTCTime published = kNoon, UTCTime expires = kNoon + kMonth,
                                 const std::string& customer = "acme",
                                 const std::string& list = kList) const {
    return signedWith(key, list, {customer, serial, published, expires});
  }
};

TEST_F(AttachedSignatures, AreTakenInAsTheyAre) {
  const std::string first = made(key_, 8);
  const std::string second = made(other_, 8);
  EXPECT_EQ(sign(elsewhere({second, first}), kList, kNoon),
            "by " + nameOf(other_) + " and " + nameOf(key_) +
                " with the serial 8 until 2026-12-22T12:00:00Z");
  const std::string start = "signatures/" + digestOf(kList);
  EXPECT_EQ(written_, (std::vector{start + "." + nameOf(other_) + ".minisig", start + ".minisig"}));
  EXPECT_EQ(bytesOf(start + ".minisig"), first);
  // Once more there is nothing to do.
  sign(elsewhere({second, first}), kList, kNoon);
  EXPECT_TRUE(written_.empty());
}

TEST_F(AttachedSignatures, GiveTheirSerialToThoseThatAreMadeHere) {
  Signers signers = here({&other_});
  signers.elsewhere = {key_.publicKey()};
  signers.attached = {made(key_, 7)};
  EXPECT_EQ(sign(std::move(signers), kList, kNoon),
            "by " + nameOf(key_) + " and " + nameOf(other_) +
                " with the serial 7 until 2026-12-22T12:00:00Z");
}

TEST_F(AttachedSignatures, AreRefusedWithTheReason) {
  signedBefore(key_, kOtherList, 5);
  const std::string by = "the signature by the key " + nameOf(key_);
  const keys::SecretKey stranger = keys::makeSecretKey();
  const std::string cut = made(key_, 7).substr(0, 100);
  std::string changed = made(key_, 7);
  changed.replace(changed.find("serial:7"), 8, "serial:8");
  const std::pair<std::string, std::string> rows[] = {
      {cut, "the signature file is cut: it has 2 of four lines"},
      {"", "the signature file is empty"},
      {made(stranger, 7), "the key " + nameOf(stranger) +
                              ", by which the list is signed, is not among those of --signed-by"},
      {made(key_, 7, kNoon, kNoon + kMonth, "acme", kOtherList),
       by + " is not over this list; leave the list for signing again with --unsigned-for"},
      {changed, "the comment of " + by + " was changed"},
      {made(key_, 7, kNoon, kNoon + kMonth, "another"),
       "the signature by the key " + nameOf(key_) +
           " is for the customer \"another\", not for \"acme\""},
      {made(key_, 7, kNoon - kMonth, kNoon), by + " expired at 2026-11-22T12:00:00Z"},
      {made(key_, 7, kNoon + std::chrono::hours(1)),
       by + " was made at 2026-11-22T13:00:00Z, and the clock of this computer stands before that, "
            "at 2026-11-22T12:00:00Z"},
      {made(key_, 4), "the list is an older one: it has the serial 4 by the key " + nameOf(key_) +
                          ", and 5 was accepted before"},
      {made(key_, 5), "the list is another one under the same serial: it has 5 by the key " +
                          nameOf(key_) + ", and 5 was accepted before"},
  };
  for (const auto& [text, why] : rows) {
    EXPECT_EQ(sign(elsewhere({text}), kList, kNoon), "refused: " + why);
  }
  constexpr std::uint64_t kLast = std::numeric_limits<std::uint64_t>::max();
  EXPECT_EQ(sign(elsewhere({made(key_, kLast)}), kList, kNoon),
            "refused: the key " + nameOf(key_) +
                " has signed the serial 18446744073709551615, which none can follow; publish with "
                "other keys alone");
  EXPECT_EQ(sign(elsewhere({made(key_, 7), made(key_, 8)}), kList, kNoon),
            "refused: two of the signatures are by the key " + nameOf(key_));
  EXPECT_EQ(sign(elsewhere({made(key_, 7), made(other_, 8)}), kList, kNoon),
            "refused: the signatures have different serials, 7 and 8; all are to be made with the "
            "same comment");
}

TEST_F(AttachedSignatures, MayFollowWithTheSameSerialOverTheSameList) {
  sign(elsewhere({made(key_, 7)}), kList, kNoon);
  EXPECT_EQ(sign(elsewhere({made(key_, 7, kNoon, kNoon + kMonth + kMonth)}), kList, kNoon),
            "by " + nameOf(key_) + " with the serial 7 until 2027-01-21T12:00:00Z");
}

TEST_F(AttachedSignatures, ThatAreMissingAreNamed) {
  const std::string by = "the key " + nameOf(other_) +
                         " has not signed the list; computers that need its signature refuse it";
  sign(elsewhere({made(key_, 7)}), kList, kNoon);
  EXPECT_EQ(missing_, std::vector{by});
  sign(elsewhere({made(key_, 7), made(other_, 7)}), kList, kNoon);
  EXPECT_EQ(missing_, std::vector<std::string>());
  // What the tree has of before counts, and is named.
  EXPECT_EQ(sign(elsewhere({made(key_, 7)}), kList, kNoon),
            "by " + nameOf(key_) + " and " + nameOf(other_) +
                " with the serial 7 until 2026-12-22T12:00:00Z");
  EXPECT_EQ(missing_, std::vector<std::string>());
  // But for one with another serial, or one that has expired.
  sign(elsewhere({made(key_, 8)}), kList, kNoon);
  EXPECT_EQ(missing_, std::vector{by});
  const UTCTime later = kNoon + kMonth;
  sign(elsewhere({made(key_, 8, later, later + kMonth)}), kList, later);
  EXPECT_EQ(missing_, std::vector{by});
}

TEST_F(AttachedSignatures, MakeNoTimeShorter) {
  sign(elsewhere({made(key_, 7)}), kList, kNoon);
  EXPECT_EQ(sign(elsewhere({made(key_, 7, kNoon, kNoon + std::chrono::hours(1))}), kList, kNoon),
            "refused: the signature by the key " + nameOf(key_) +
                " counts until 2026-12-22T12:00:00Z already, and would for less long; have it "
                "signed for longer");
}

TEST_F(AttachedSignatures, AreAskedForWithTheSerialOfAPublicationHere) {
  const auto asked = [this](const std::string& list) {
    Signing signing(elsewhere({}), "acme", kMonth);
    std::error_code error;
    signing.look(files_, error);
    EXPECT_FALSE(error);
    return signedCommentText(std::get<SignedComment>(signing.commentFor(list, kNoon)));
  };
  const std::string times = "\tpublished:2026-11-22T12:00:00Z\texpires:2026-12-22T12:00:00Z";
  EXPECT_EQ(asked(kList), "customer:acme\tserial:1795348800" + times);
  signedBefore(key_, kOtherList, 1795348805);
  EXPECT_EQ(asked(kList), "customer:acme\tserial:1795348806" + times);
  EXPECT_EQ(asked(kOtherList), "customer:acme\tserial:1795348805" + times);
}

}  // namespace
}  // namespace VarnScripts::publishing
