// Checksum names, checksum values, and files against them.

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <thread>
#include <vector>

#include "AgentUtils.h"
#include "Digest.h"
#include "support/Files.h"
#include "support/TemporaryDirectory.h"

using AgentUtils::digestKind;
using AgentUtils::hexDigest;
using AgentUtils::isDigest;
using AgentUtils::VyCryptography;

namespace {

using namespace std::string_literals;

constexpr char kSHA256OfAbc[] = "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad";

TEST(DigestName, KnowsEachAlgorithmInItsUsualSpellings) {
  const struct {
    const char* name;
    const char* kind;
  } rows[] = {
      {"md5", "md5"},
      {"MD5", "md5"},
      {"MD-5", "md5"},
      {"sha", "sha1"},
      {"SHA", "sha1"},
      {"sha1", "sha1"},
      {"SHA-1", "sha1"},
      {"sha224", "sha224"},
      {"SHA_224", "sha224"},
      {"sha256", "sha256"},
      {"SHA-256", "sha256"},
      {"Sha 256", "sha256"},
      {" s-h_a 256 ", "sha256"},
      {"SHA-384", "sha384"},
      {"sha512", "sha512"},
  };
  for (const auto& row : rows) {
    ASSERT_NE(digestKind(row.name), nullptr) << row.name;
    EXPECT_EQ(digestKind(row.name)->name, row.kind);
  }
}

TEST(DigestName, KnowsNoOtherName) {
  for (const char* const name : {"", " ", "-", "sha2", "sha-512/256", "md4", "sha256x", "xsha256",
                                 "sha\t256", "sha.256", "crc32", "sha25", "\xC2\xA0sha256"}) {
    EXPECT_EQ(digestKind(name), nullptr) << name;
  }
  EXPECT_EQ(digestKind("md5\0"s), nullptr);
}

TEST(DigestName, TellsWhatCanBeForged) {
  EXPECT_TRUE(digestKind("md5")->forgeable);
  EXPECT_TRUE(digestKind("sha1")->forgeable);
  EXPECT_FALSE(digestKind("sha256")->forgeable);
  EXPECT_EQ(&AgentUtils::usualDigest(), digestKind("sha256"));
}

TEST(DigestValue, IsLowerCaseHexadecimal) {
  EXPECT_EQ(hexDigest(AgentUtils::usualDigest(), "abc"), kSHA256OfAbc);
  EXPECT_EQ(hexDigest(*digestKind("md5"), ""), "d41d8cd98f00b204e9800998ecf8427e");
}

TEST(DigestValue, IsMatchedInEitherCaseAndInItsExactLength) {
  const std::string digest = "000102030405060708090a0b0c0d0e0f";
  EXPECT_TRUE(isDigest(digest, digest));
  EXPECT_TRUE(isDigest("000102030405060708090A0b0c0D0E0F", digest));
  for (const char* const value :
       {"", "0", "000102030405060708090a0b0c0d0e0", "000102030405060708090a0b0c0d0e0f0",
        "000102030405060708090a0b0c0d0e0g", " 00102030405060708090a0b0c0d0e0f",
        "0x0102030405060708090a0b0c0d0e0f", "+00102030405060708090a0b0c0d0e0f"}) {
    EXPECT_FALSE(isDigest(value, digest)) << value;
  }
}

class ChecksumOfFile : public testing::Test {
 protected:
  void SetUp() override { writeFile(abc, "abc"); }

  TemporaryDirectory directory;
  const std::string abc = directory / "abc";
};

TEST_F(ChecksumOfFile, MatchesUnderEachAlgorithm) {
  const struct {
    const char* type;
    const char* value;
  } rows[] = {
      {"md5", "900150983cd24fb0d6963f7d28e17f72"},
      {"sha1", "a9993e364706816aba3e25717850c26c9cd0d89d"},
      {"sha224", "23097d223405d8228642a477bda255b32aadbce4bda0b3f7e36c9da7"},
      {"SHA-256", kSHA256OfAbc},
      {"SHA-256", "BA7816BF8F01CFEA414140DE5DAE2223B00361A396177A9CB410FF61F20015AD"},
      {"sha384",
       "cb00753f45a35e8bb5a03d699ac65007272c32ab0eded1631a8b605a43ff5bed"
       "8086072ba1e7cc2358baeca134c825a7"},
      {"sha512",
       "ddaf35a193617abacc417349ae20413112e6fa4e89a97ea20a9eeee64b55d39a"
       "2192992a274fc1a836ba3c23a3feebbd454d4423643ce80e2a9ac94fa54ca49f"},
  };
  for (const auto& row : rows) {
    EXPECT_TRUE(VyCryptography::validateCheckSumForFile(abc, row.type, row.value)) << row.type;
  }
}

TEST_F(ChecksumOfFile, FailsForOneWrongDigitAnotherAlgorithmOrAnUnknownOne) {
  std::string wrong = kSHA256OfAbc;
  wrong.back() = 'e';
  EXPECT_FALSE(VyCryptography::validateCheckSumForFile(abc, "sha256", wrong));
  EXPECT_FALSE(VyCryptography::validateCheckSumForFile(abc, "sha512", kSHA256OfAbc));
  EXPECT_FALSE(VyCryptography::validateCheckSumForFile(abc, "sha3", kSHA256OfAbc));
  EXPECT_FALSE(VyCryptography::validateCheckSumForFile(abc, "sha256", ""));
}

TEST_F(ChecksumOfFile, SeesEveryByteOfAFileOfManyPieces) {
  const std::string million(1000000, 'a');
  const std::string path = directory / "million";
  const char* const value = "cdc76e5c9914fb9281a1c7e284d73e67f1809a48a497200e046d39ccc7112cd0";
  writeFile(path, million);
  EXPECT_TRUE(VyCryptography::validateCheckSumForFile(path, "sha256", value));
  writeFile(path, million.substr(1) + 'b');
  EXPECT_FALSE(VyCryptography::validateCheckSumForFile(path, "sha256", value));
}

TEST_F(ChecksumOfFile, MatchesTheEmptyFile) {
  writeFile(directory / "empty", "");
  EXPECT_TRUE(VyCryptography::validateCheckSumForFile(directory / "empty", "md5",
                                                      "d41d8cd98f00b204e9800998ecf8427e"));
}

TEST_F(ChecksumOfFile, FailsForWhatIsNoRegularFileWithoutWaiting) {
  const char* const emptyMD5 = "d41d8cd98f00b204e9800998ecf8427e";
  ASSERT_EQ(::mkfifo((directory / "fifo").c_str(), 0600), 0);
  EXPECT_FALSE(VyCryptography::validateCheckSumForFile(directory / "fifo", "md5", emptyMD5));
  EXPECT_FALSE(VyCryptography::validateCheckSumForFile(directory.path(), "md5", emptyMD5));
  EXPECT_FALSE(VyCryptography::validateCheckSumForFile("/dev/null", "md5", emptyMD5));
  EXPECT_FALSE(VyCryptography::validateCheckSumForFile(directory / "missing", "md5", emptyMD5));
}

TEST_F(ChecksumOfFile, FailsForANameThatEndsAtANul) {
  EXPECT_FALSE(VyCryptography::validateCheckSumForFile(abc + "\0x"s, "sha256", kSHA256OfAbc));
}

TEST_F(ChecksumOfFile, IsRightFromManyThreadsAtOnce) {
  std::vector<std::thread> threads;
  std::vector<int> matches(8);
  for (int& count : matches) {
    threads.emplace_back([&] {
      for (int round = 0; round < 50; ++round) {
        count += VyCryptography::validateCheckSumForFile(abc, "sha256", kSHA256OfAbc) ? 1 : 0;
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(matches, std::vector<int>(8, 50));
}

}  // namespace
