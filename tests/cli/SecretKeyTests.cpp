// Secret keys: those of minisign are taken and used, those that are made here are minisign's in
// form, and a file that others could have read is no file for one.

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <type_traits>

#include "key/KeyFiles.h"
#include "key/Passphrase.h"
#include "key/SecretKey.h"
#include "signing/TrustDecision.h"
#include "support/TemporaryDirectory.h"

namespace VarnScripts::keys {
namespace {

namespace signing = AgentUtils::signing;

/// So little work that the tests do not wait for it.
constexpr PassphraseCost kLittle{524288, 16777216};

std::string contentOf(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), {}};
}

std::string vectorFile(const std::string& name) {
  return contentOf(VARN_SIGNING_VECTORS "/" + name);
}

AskPassphrase answering(const std::string& words) {
  return [words]() -> std::variant<Passphrase, Refusal> {
    Passphrase passphrase;
    passphrase.add(words);
    return passphrase;
  };
}

std::variant<Passphrase, Refusal> neverAsked() {
  ADD_FAILURE() << "asked for a passphrase";
  return Refusal{"none"};
}

std::string refusalOf(const std::string& text, const AskPassphrase& ask = neverAsked) {
  const auto parsed = parseSecretKey(text, ask);
  const auto* const refusal = std::get_if<Refusal>(&parsed);
  return refusal == nullptr ? "(taken)" : refusal->sentence;
}

SecretKey keyIn(const std::string& text, const AskPassphrase& ask = neverAsked) {
  auto parsed = parseSecretKey(text, ask);
  if (auto* const key = std::get_if<SecretKey>(&parsed)) return std::move(*key);
  ADD_FAILURE() << std::get<Refusal>(parsed).sentence;
  return {};
}

SignedComment comment() {
  return {"acme", 7, signing::utcTimeFrom("2026-11-22T11:30:00Z").value(),
          signing::utcTimeFrom("2026-12-22T11:30:00Z").value()};
}

TEST(SecretKeyText, OfMinisignWithoutAPassphraseIsTaken) {
  EXPECT_EQ(publicKeyFile(keyIn(vectorFile("first.key")).publicKey()), vectorFile("first.pub"));
  EXPECT_EQ(publicKeyFile(keyIn(vectorFile("second.key")).publicKey()), vectorFile("second.pub"));
}

TEST(SecretKeyText, OfMinisignWithAPassphraseIsTaken) {
  const SecretKey key = keyIn(vectorFile("locked.key"), answering("correct horse battery staple"));
  EXPECT_EQ(publicKeyFile(key.publicKey()), vectorFile("locked.pub"));
}

TEST(SecretKeyText, SignsAsMinisignDoesByteForByte) {
  // Ed25519 has one signature for a key and what is signed.
  EXPECT_EQ(signedWith(keyIn(vectorFile("first.key")), vectorFile("list.xml"), comment()),
            vectorFile("first.minisig"));
}

TEST(SecretKeyText, ThatIsNewSignsWhatItsPublicKeyAccepts) {
  const SecretKey key = makeSecretKey();
  EXPECT_NE(key.publicKey(), makeSecretKey().publicKey());
  const auto judgement =
      signing::judgeList("a list", {signedWith(key, "a list", comment())},
                         {{key.publicKey()}, 1, "acme"}, {"acme", {}}, comment().published);
  EXPECT_TRUE(std::holds_alternative<signing::Acceptance>(judgement));
}

TEST(SecretKeyText, WithoutProtectionIsReadAsItWasWritten) {
  const SecretKey key = makeSecretKey();
  EXPECT_EQ(keyIn(std::string(plainKeyText(key).text())).publicKey(), key.publicKey());
  // As minisign has it, but for the comment.
  const std::string text(plainKeyText(keyIn(vectorFile("first.key"))).text());
  EXPECT_EQ(text.substr(text.find('\n')),
            vectorFile("first.key").substr(vectorFile("first.key").find('\n')));
}

TEST(SecretKeyText, WithAPassphraseIsReadWithThatOneOnlyAndNeverTwiceTheSame) {
  const SecretKey key = makeSecretKey();
  const auto words = std::get<Passphrase>(answering("one two")());
  const auto written = protectedKeyText(key, words, kLittle);
  const std::string text(std::get<ProtectedKey>(written).text.text());
  EXPECT_EQ(std::get<ProtectedKey>(written).cost.memory, kLittle.memory);
  EXPECT_EQ(keyIn(text, answering("one two")).publicKey(), key.publicKey());
  EXPECT_EQ(refusalOf(text, answering("one  two")),
            "the secret key can't be unlocked: the passphrase is wrong, or the file is damaged");
  EXPECT_EQ(refusalOf(text, [] { return Refusal{"no passphrase today"}; }), "no passphrase today");
  EXPECT_NE(text, std::get<ProtectedKey>(protectedKeyText(key, words, kLittle)).text.text());
}

TEST(SecretKeyText, CutAnywhereIsRefused) {
  const std::string whole = vectorFile("first.key");
  for (std::size_t length = 0; length + 1 < whole.size(); ++length) {
    EXPECT_NE(refusalOf(whole.substr(0, length)), "(taken)") << length;
  }
}

TEST(SecretKeyText, IsRefusedBySentencesThatNameWhatIsWrong) {
  const std::string text = vectorFile("first.key");
  const auto changed = [&text](const std::string& what, const std::string& with) {
    std::string copy = text;
    return copy.replace(copy.find(what), what.size(), with);
  };
  const struct {
    std::string text;
    const char* refusal;
  } rows[] = {
      {"", "the secret key is empty"},
      {"x", "the secret key is none: it has no comment line"},
      {"untrusted comment: x", "the secret key is cut: its second line is missing"},
      {text + "x", "the secret key is none: its second line is not one of 212 letters"},
      {vectorFile("first.pub"), "the secret key is a public key, with which nothing can be signed"},
      {changed("RWQAAEIy", "RWUAAEIy"), "the secret key is of an unknown algorithm"},
      {changed("RWQAAEIy", "RWQAAEIz"), "the secret key has a checksum of an unknown kind"},
      {changed("RWQAAEIy", "RWRBcjIy"), "the secret key has a checksum of an unknown kind"},
      {changed("RWQAAEIy", "RWRBckIy"), "the secret key is protected in an unknown way"},
      // Scrypt, with numbers that ask for everything there is.
      {"untrusted comment: x\nRWRTY0Iy" + std::string(43, 'A') + "//////////8AAAAAAAAAAA" +
           std::string(138, 'A') + "=",
       "the secret key asks for more work to unlock it than any key has"},
  };
  for (const auto& row : rows) EXPECT_EQ(refusalOf(row.text), row.refusal) << row.text;
}

TEST(SecretKeyText, WhoseHalvesDoNotBelongTogetherIsRefused) {
  // A letter of the public half: what is signed with that gives the secret away.
  std::string text = vectorFile("first.key");
  const std::size_t place = text.find('\n') + 1 + 150;
  text[place] = text[place] == 'A' ? 'B' : 'A';
  EXPECT_EQ(refusalOf(text), "the secret key is damaged: its two halves do not belong together");
}

TEST(SecretMemory, IsWipedWhenItGoes) {
  alignas(Passphrase) std::array<unsigned char, sizeof(Passphrase)> room{};
  auto* const passphrase = new (room.data()) Passphrase;
  passphrase->add("one two");
  EXPECT_NE(std::string(room.begin(), room.end()).find("one two"), std::string::npos);
  Passphrase moved = std::move(*passphrase);
  EXPECT_EQ(std::string(room.begin(), room.end()).find("one two"), std::string::npos);
  passphrase->add("three");
  passphrase->~Passphrase();
  EXPECT_EQ(std::string(room.begin(), room.end()).find("three"), std::string::npos);
  EXPECT_EQ(moved.text(), "one two");
  static_assert(!std::is_copy_constructible_v<SecretKey> && !std::is_copy_assignable_v<SecretKey>);
}

/// Keys in a directory.
class KeyFilesTest : public testing::Test {
 protected:
  std::string refusalOfSecret() const {
    const auto key = secretKeyIn(path_, neverAsked);
    const auto* const refusal = std::get_if<Refusal>(&key);
    return refusal == nullptr ? "(taken)" : refusal->sentence;
  }

  std::string refusalOfPublic(const std::string& given) const {
    const auto key = publicKeyGiven(given);
    const auto* const refusal = std::get_if<Refusal>(&key);
    return refusal == nullptr ? "(taken)" : refusal->sentence;
  }

  void write(const std::string& path, const std::string& content, mode_t mode = 0600) const {
    std::ofstream(path, std::ios::binary) << content;
    ASSERT_EQ(::chmod(path.c_str(), mode), 0);
  }

  [[nodiscard]] mode_t modeOf(const std::string& path) const {
    struct stat status {};
    return ::stat(path.c_str(), &status) == 0 ? status.st_mode & 07777 : 0;
  }

  const TemporaryDirectory directory_;
  const std::string path_ = directory_ / "varn.key";
};

TEST_F(KeyFilesTest, AreWrittenOnceForTheOwnerAndForAll) {
  const mode_t before = ::umask(0);
  const SecretKey key = makeSecretKey();
  EXPECT_EQ(writeKeyFiles(path_, plainKeyText(key), path_ + ".pub", key.publicKey()), std::nullopt);
  ::umask(before);
  EXPECT_EQ(modeOf(path_), 0600U);
  EXPECT_EQ(modeOf(path_ + ".pub"), 0644U);
  EXPECT_EQ(std::get<SecretKey>(secretKeyIn(path_, neverAsked)).publicKey(), key.publicKey());
  EXPECT_EQ(std::get<PublicKey>(publicKeyGiven(path_ + ".pub")), key.publicKey());
  EXPECT_EQ(std::get<PublicKey>(publicKeyGiven(publicKeyLine(key.publicKey()))), key.publicKey());
}

TEST_F(KeyFilesTest, AreNotOverwritten) {
  const SecretKey key = makeSecretKey();
  write(path_ + ".pub", "mine");
  const std::string sentence =
      "the key " + path_ + ".pub can't be written: it is there already, and no key is overwritten";
  EXPECT_EQ(complaintAboutNewKey(path_, path_ + ".pub").value().sentence, sentence);
  EXPECT_EQ(
      writeKeyFiles(path_, plainKeyText(key), path_ + ".pub", key.publicKey()).value().sentence,
      sentence);
  // The secret one is not left behind either.
  EXPECT_EQ(directory_.names(), std::vector<std::string>{"varn.key.pub"});
  EXPECT_EQ(contentOf(path_ + ".pub"), "mine");
  std::filesystem::create_symlink(directory_ / "elsewhere", path_);
  EXPECT_EQ(
      writeKeyFiles(path_, plainKeyText(key), path_ + ".pub", key.publicKey()).value().sentence,
      "the key " + path_ + " can't be written: it is there already, and no key is overwritten");
  EXPECT_FALSE(std::filesystem::exists(directory_ / "elsewhere"));
}

TEST_F(KeyFilesTest, OfSecretKeysAreRefusedWhenOthersMayUseThem) {
  write(path_, vectorFile("first.key"));
  for (const mode_t mode : {0600U, 0400U}) {
    ASSERT_EQ(::chmod(path_.c_str(), mode), 0);
    EXPECT_EQ(refusalOfSecret(), "(taken)") << mode;
  }
  for (const mode_t mode : {0640U, 0604U, 0620U, 0602U, 0610U, 0601U, 0644U}) {
    ASSERT_EQ(::chmod(path_.c_str(), mode), 0);
    EXPECT_NE(refusalOfSecret(), "(taken)") << mode;
  }
  EXPECT_EQ(refusalOfSecret(), "the secret key " + path_ +
                                   " is not used: others than its owner may use it (mode 0644); "
                                   "chmod 600 mends that");
  if (::geteuid() == 0) {
    ASSERT_EQ(::chmod(path_.c_str(), 0600), 0);
    ASSERT_EQ(::chown(path_.c_str(), 4242, 4242), 0);
    EXPECT_EQ(refusalOfSecret(),
              "the secret key " + path_ + " is not used: it belongs to user 4242");
  }
}

TEST_F(KeyFilesTest, ThatAreNoSecretKeysAreSaidToBeNoneWhateverTheirMode) {
  write(path_, vectorFile("first.pub"), 0644);
  EXPECT_EQ(refusalOfSecret(),
            path_ + ": the secret key is a public key, with which nothing can be signed");
  write(path_, "root:x:0:0\n", 0644);
  EXPECT_EQ(refusalOfSecret(), path_ + ": the secret key is none: it has no comment line");
  // One with a passphrase is not asked for it.
  write(path_, vectorFile("locked.key"), 0644);
  EXPECT_EQ(refusalOfSecret(), "the secret key " + path_ +
                                   " is not used: others than its owner may use it (mode 0644); "
                                   "chmod 600 mends that");
}

TEST_F(KeyFilesTest, ThatAreNoneAreRefused) {
  EXPECT_EQ(refusalOfSecret(), "the key " + path_ + " can't be read: No such file or directory");
  write(path_, std::string(2048, 'x'));
  EXPECT_EQ(refusalOfSecret(), "the key " + path_ + " can't be read: it is too long for a key");
  std::filesystem::remove(path_);
  ASSERT_EQ(::mkfifo(path_.c_str(), 0600), 0);
  EXPECT_EQ(refusalOfSecret(), "the key " + path_ + " can't be read: it is not a regular file");
  EXPECT_EQ(refusalOfPublic("RWabc"),
            "RWabc is neither the line of a public key nor a file that is there");
  EXPECT_EQ(refusalOfPublic(directory_ / "none"),
            "the key " + (directory_ / "none") + " can't be read: No such file or directory");
  write(directory_ / "secret", vectorFile("first.key"));
  EXPECT_EQ(refusalOfPublic(directory_ / "secret"),
            (directory_ / "secret") +
                ": the public key is a secret key, which belongs to whoever signs alone");
}

TEST_F(KeyFilesTest, OfPassphrasesHoldItInTheirFirstLine) {
  const auto refusal = [this] {
    const auto read = passphraseIn(path_);
    const auto* const why = std::get_if<Refusal>(&read);
    return why == nullptr ? "(" + std::string(std::get<Passphrase>(read).text()) + ")"
                          : why->sentence;
  };
  write(path_, "one two \nthree\n");
  EXPECT_EQ(refusal(), "(one two )");
  write(path_, "without a line break");
  EXPECT_EQ(refusal(), "(without a line break)");
  write(path_, "");
  EXPECT_EQ(refusal(), "the passphrase is empty");
  write(path_, std::string(1024, 'x') + "\n");
  EXPECT_EQ(refusal(), "(" + std::string(1024, 'x') + ")");
  write(path_, std::string(1025, 'x') + "\n");
  EXPECT_EQ(refusal(), "the passphrase is longer than 1024 bytes");
  write(path_, "one two\n", 0640);
  EXPECT_EQ(refusal(), "the passphrase file " + path_ +
                           " is not used: others than its owner may use it (mode 0640); chmod 600 "
                           "mends that");
  if (::geteuid() == 0) {
    write(path_, "one two\n");
    ASSERT_EQ(::chown(path_.c_str(), 4242, 4242), 0);
    EXPECT_EQ(refusal(), "the passphrase file " + path_ + " is not used: it belongs to user 4242");
  }
  std::filesystem::remove(path_);
  EXPECT_EQ(refusal(),
            "the passphrase file " + path_ + " can't be read: No such file or directory");
}

}  // namespace
}  // namespace VarnScripts::keys
