// What is remembered of accepted lists: its one text, and its file, which nobody else may have
// touched and which no interruption leaves with less in it.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <filesystem>
#include <functional>
#include <stdexcept>
#include <string>
#include <vector>

#include "Digest.h"
#include "FileDescriptor.h"
#include "signing/TrustState.h"
#include "signing/TrustStateFile.h"
#include "support/Files.h"
#include "support/Signer.h"
#include "support/TemporaryDirectory.h"

using namespace AgentUtils::signing;

namespace {

constexpr char kList[] = "0123456789abcdef0123456789abcdef0123456789abcdef0123456789abcdef";

TrustState stateOfTwo() {
  const UTCTime published = at("2026-11-22T11:30:00Z");
  const UTCTime expires = at("2026-12-22T11:30:00Z");
  return {"acme",
          {{vectorKey("first"), {7, kList, published, expires}},
           {vectorKey("second"), {18446744073709551615U, kList, published, expires}}}};
}

constexpr char kText[] =
    "varn-scripts: accepted lists, form 1\n"
    "customer: acme\n"
    "key: RWR0lqCbsTPMw5ZIU4VMCEYYg5TWRwjVI8Hsw+NsgkRZHwKr/zAWCEg9 18446744073709551615 "
    "0123456789abcdef0123456789abcdef0123456789abcdef0123456789abcdef 2026-11-22T11:30:00Z "
    "2026-12-22T11:30:00Z\n"
    "key: RWSjCFOuRsSMgAerzYexOa11ibsYAFttoRSPg+xxOs74Kr5YXF8XQtKl 7 "
    "0123456789abcdef0123456789abcdef0123456789abcdef0123456789abcdef 2026-11-22T11:30:00Z "
    "2026-12-22T11:30:00Z\n";

/// The text with the line that its last one must be.
std::string sealed(const std::string& text) {
  return text + "sha256: " + AgentUtils::hexDigest(AgentUtils::usualDigest(), text) + "\n";
}

std::string refusalOf(const std::string& text, const std::string& customer = "acme") {
  const auto parsed = parseTrustState(text, customer);
  const auto* const refusal = std::get_if<Refusal>(&parsed);
  return refusal == nullptr ? "(taken)" : refusal->sentence;
}

TEST(TrustStateText, IsWrittenAndReadInOneForm) {
  EXPECT_EQ(trustStateText(stateOfTwo()), sealed(kText));
  EXPECT_EQ(std::get<TrustState>(parseTrustState(sealed(kText), "acme")), stateOfTwo());
  const TrustState none{"acme", {}};
  EXPECT_EQ(std::get<TrustState>(parseTrustState(trustStateText(none), "acme")), none);
}

TEST(TrustStateText, CutOrChangedAnywhereIsRefused) {
  const std::string whole = sealed(kText);
  for (std::size_t length = 0; length < whole.size(); ++length) {
    EXPECT_NE(refusalOf(whole.substr(0, length)), "(taken)") << length;
  }
  for (std::size_t place = 0; place < whole.size(); ++place) {
    std::string changed = whole;
    changed[place] = static_cast<char>(changed[place] ^ 1);
    EXPECT_NE(refusalOf(changed), "(taken)") << place;
  }
  EXPECT_NE(refusalOf(whole + '\n'), "(taken)");
  EXPECT_NE(refusalOf(whole + whole), "(taken)");
}

TEST(TrustStateText, IsRefusedBySentencesThatNameWhatIsWrong) {
  const std::string text = kText;
  const auto changed = [&text](const std::string& what, const std::string& with) {
    std::string copy = text;
    return sealed(copy.replace(copy.find(what), what.size(), with));
  };
  const std::size_t secondKey = text.rfind("key: ");
  const std::string swapped = text.substr(0, text.find("key: ")) + text.substr(secondKey) +
                              text.substr(text.find("key: "), secondKey - text.find("key: "));
  const struct {
    std::string text;
    const char* refusal;
  } rows[] = {
      {"", "the record of accepted lists is none: it holds something else"},
      {"SQLite format 3", "the record of accepted lists is none: it holds something else"},
      {changed("form 1", "form 2"),
       "the record of accepted lists is none: it holds something else"},
      {text, "the record of accepted lists is cut or damaged"},
      {sealed("varn-scripts: accepted lists, form 1\n"),
       "the record of accepted lists is damaged: it names no customer"},
      {changed("acme", "other"),
       "the record of accepted lists is of the customer \"other\", not of \"acme\""},
      {changed(" 7 ", " -7 "),
       "the record of accepted lists is damaged: it has a line that is no "
       "key's"},
      {changed("key: RWS", "key: RXS"),
       "the record of accepted lists is damaged: it has a line that is no key's"},
      {changed("2026-12-22", "2026-12-32"),
       "the record of accepted lists is damaged: it has a line that is no key's"},
      {changed("abcdef 2026", "ABCDEF 2026"),
       "the record of accepted lists is damaged: it has a line that is no key's"},
      {sealed(text + "key: more\n"),
       "the record of accepted lists is damaged: it has a line that is no key's"},
      {sealed(text + text.substr(secondKey)),
       "the record of accepted lists is damaged: it is not as it was written"},
      {sealed(swapped), "the record of accepted lists is damaged: it is not as it was written"},
      {sealed(text + "more"),
       "the record of accepted lists is damaged: it is not as it was written"},
  };
  for (const auto& row : rows) EXPECT_EQ(refusalOf(row.text), row.refusal) << row.text;
}

/// A state's file in a directory of its own.
class TrustStateFileTest : public testing::Test {
 protected:
  [[nodiscard]] TrustStateFile file() const { return {path_, "acme"}; }

  std::string accept(int serial) const {
    const std::string text = std::to_string(serial);
    return outcome(file().accept(ListInHand(text), {Signer("first").sign(text, commentWith(text))},
                                 policy_, at(kMeanwhile)));
  }

  [[nodiscard]] std::string refusal() const {
    const auto read = file().read();
    const auto* const refusal = std::get_if<Refusal>(&read);
    return refusal == nullptr ? "(taken)" : refusal->sentence;
  }

  [[nodiscard]] std::uint64_t serial() const {
    return std::get<TrustState>(file().read()).keys.at(vectorKey("first")).serial;
  }

  const TemporaryDirectory directory_;
  const std::string path_ = trustStatePath(directory_.path());
  const TrustPolicy policy_{{vectorKey("first")}, 1, "acme"};
};

TEST_F(TrustStateFileTest, RemembersWhatWasAccepted) {
  EXPECT_EQ(path_, directory_ / "Configuration-Framework/AcceptedLists");
  EXPECT_EQ(std::get<TrustState>(file().read()), (TrustState{"acme", {}}));
  EXPECT_EQ(accept(7), "(accepted)");
  EXPECT_EQ(serial(), 7U);
  EXPECT_EQ(accept(6),
            "the list is an older one: it has the serial 6 by the key 808CC446AE5308A3, and 7 was "
            "accepted before");
  EXPECT_EQ(serial(), 7U);
  EXPECT_EQ(accept(8), "(accepted)");
  EXPECT_EQ(serial(), 8U);
}

TEST_F(TrustStateFileTest, IsForTheOwnerAloneWhateverTheUmask) {
  const Umask open(0);
  EXPECT_EQ(accept(7), "(accepted)");
  EXPECT_EQ(modeOf(path_), 0600U);
  EXPECT_EQ(modeOf(path_ + ".lock"), 0600U);
  EXPECT_EQ(modeOf(directory_ / "Configuration-Framework"), 0700U);
}

TEST_F(TrustStateFileTest, ItsLockGoesAlsoWhenACopyOfItsDescriptorStays) {
  const std::string lockPath = path_ + ".lock";
  const std::string list = "7";
  int copy = -1;
  const auto copyIt = [&] {
    std::error_code none;
    for (int fd = 0; fd < 256 && copy < 0; ++fd) {
      const auto name = std::filesystem::read_symlink("/dev/fd/" + std::to_string(fd), none);
      if (name == lockPath) copy = ::dup(fd);
    }
  };
  EXPECT_EQ(outcome(file().accept(ListInHand(list), {Signer("first").sign(list, commentWith(list))},
                                  policy_, at(kMeanwhile), copyIt)),
            "(accepted)");
  if (copy < 0) GTEST_SKIP() << "this system does not name the files of descriptors";
  const posix::FileDescriptor other(::open(lockPath.c_str(), O_RDWR | O_CLOEXEC));
  EXPECT_EQ(::flock(other.get(), LOCK_EX | LOCK_NB), 0);
  ::close(copy);
}

TEST_F(TrustStateFileTest, IsNotWrittenWhenThereIsNothingNew) {
  EXPECT_EQ(accept(7), "(accepted)");
  struct stat before {};
  ASSERT_EQ(::stat(path_.c_str(), &before), 0);
  EXPECT_EQ(accept(7), "(accepted)");
  struct stat after {};
  ASSERT_EQ(::stat(path_.c_str(), &after), 0);
  EXPECT_EQ(before.st_ino, after.st_ino);
}

TEST_F(TrustStateFileTest, ThatOthersMayWriteToIsRefused) {
  EXPECT_EQ(accept(7), "(accepted)");
  const std::string start = "the record of accepted lists " + path_ + " is not used: ";
  for (const mode_t mode : {0620U, 0602U, 0666U}) {
    ASSERT_EQ(::chmod(path_.c_str(), mode), 0);
    EXPECT_EQ(refusal(), start + "others may write to it");
    EXPECT_EQ(accept(8), start + "others may write to it");
  }
  ASSERT_EQ(::chmod(path_.c_str(), 0600), 0);
  if (::geteuid() == 0) {
    ASSERT_EQ(::chown(path_.c_str(), 4242, 4242), 0);
    EXPECT_EQ(refusal(), start + "it belongs to user 4242");
    ASSERT_EQ(::chown(path_.c_str(), 0, 0), 0);
  }
  std::filesystem::create_hard_link(path_, directory_ / "second");
  EXPECT_EQ(refusal(), start + "it has a second name");
}

TEST_F(TrustStateFileTest, ThatIsNoFileOfItsOwnIsRefused) {
  EXPECT_EQ(accept(7), "(accepted)");
  const std::string start = "the record of accepted lists " + path_;
  std::filesystem::rename(path_, directory_ / "moved");
  std::filesystem::create_symlink(directory_ / "moved", path_);
  EXPECT_EQ(accept(8), start + " can't be read: it is a symbolic link");
  std::filesystem::remove(path_);
  ASSERT_EQ(::mkfifo(path_.c_str(), 0600), 0);
  EXPECT_EQ(accept(8), start + " is not used: it is not a regular file");
  std::filesystem::remove(path_);
  std::filesystem::create_directory(path_);
  EXPECT_EQ(accept(8), start + " is not used: it is not a regular file");
}

TEST_F(TrustStateFileTest, ThatIsCutForeignOrOfAnotherCustomerIsRefused) {
  EXPECT_EQ(accept(7), "(accepted)");
  const std::string whole = readFile(path_);
  writeFile(path_, whole.substr(0, whole.size() / 2));
  EXPECT_EQ(accept(8), "the record of accepted lists is cut or damaged (" + path_ + ")");
  writeFile(path_, "");
  EXPECT_EQ(accept(8),
            "the record of accepted lists is none: it holds something else (" + path_ + ")");
  writeFile(path_, whole);
  const auto other = TrustStateFile(path_, "other").read();
  EXPECT_EQ(
      std::get<Refusal>(other).sentence,
      "the record of accepted lists is of the customer \"acme\", not of \"other\" (" + path_ + ")");
  writeFile(path_, std::string(kLargestTrustState + 1, 'x'));
  EXPECT_EQ(accept(8), "the record of accepted lists " + path_ + " can't be read: File too large");
}

TEST_F(TrustStateFileTest, ThatCantBeWrittenLetsNothingBeAccepted) {
  EXPECT_EQ(accept(7), "(accepted)");
  const std::string whole = readFile(path_);
  // Where the new one would be made, something stands that can't be removed as a file is.
  std::filesystem::create_directory(path_ + ".new");
  EXPECT_EQ(accept(8), "the record of accepted lists " + path_ + " can't be written: File exists");
  EXPECT_EQ(readFile(path_), whole);
  std::filesystem::remove(path_ + ".new");
  EXPECT_EQ(accept(8), "(accepted)");
}

TEST_F(TrustStateFileTest, IsNotHeldUpByWhatAnInterruptedRequestHasLeft) {
  EXPECT_EQ(accept(7), "(accepted)");
  writeFile(path_ + ".new", "half a sta");
  EXPECT_EQ(accept(8), "(accepted)");
  EXPECT_FALSE(std::filesystem::exists(path_ + ".new"));
}

TEST_F(TrustStateFileTest, WhoseLockOthersMayHoldIsRefused) {
  std::filesystem::create_directories(directory_ / "Configuration-Framework");
  writeFile(path_ + ".lock", "");
  ASSERT_EQ(::chmod((path_ + ".lock").c_str(), 0666), 0);
  EXPECT_EQ(accept(7), "the record of accepted lists " + path_ + " can't be locked: " + path_ +
                           ".lock: others may write to it");
}

TEST_F(TrustStateFileTest, HasRememberedAListBeforeItIsUsedAndKeepsTheTurnMeanwhile) {
  int uses = 0;
  const auto acceptFor = [&](int serial, const std::function<void()>& use) {
    const std::string text = std::to_string(serial);
    return outcome(file().accept(ListInHand(text), {Signer("first").sign(text, commentWith(text))},
                                 policy_, at(kMeanwhile), use));
  };
  const auto look = [&] {
    ++uses;
    EXPECT_EQ(serial(), 7U);
    const posix::FileDescriptor lock(::open((path_ + ".lock").c_str(), O_RDWR | O_CLOEXEC));
    EXPECT_EQ(::flock(lock.get(), LOCK_EX | LOCK_NB), -1);
    EXPECT_EQ(errno, EWOULDBLOCK);
  };
  EXPECT_EQ(acceptFor(7, look), "(accepted)");
  // Also when there is nothing new to remember; never when it is refused.
  EXPECT_EQ(acceptFor(7, look), "(accepted)");
  EXPECT_NE(acceptFor(6, look), "(accepted)");
  EXPECT_EQ(uses, 2);
  EXPECT_EQ(outcome(file().acceptKept(ListInHand("7").digest, policy_, at(kMeanwhile), look)),
            "(accepted)");
  EXPECT_EQ(outcome(file().acceptKept(ListInHand("6").digest, policy_, at(kMeanwhile), look)),
            "the list is not the one that was accepted last");
  EXPECT_EQ(uses, 3);
  EXPECT_THROW(static_cast<void>(acceptFor(8, [] { throw std::runtime_error("no room"); })),
               std::runtime_error);
  EXPECT_EQ(serial(), 8U);
  EXPECT_EQ(accept(9), "(accepted)");
}

TEST_F(TrustStateFileTest, KeepsTheHighestOfAllProcesses) {
  constexpr int kProcesses = 8;
  std::vector<pid_t> children;
  for (int process = 0; process < kProcesses; ++process) {
    const pid_t child = ::fork();
    if (child == 0) {
      bool consistent = true;
      for (int serial = process; serial < 80; serial += kProcesses) {
        const std::string seen = accept(serial);
        consistent =
            consistent && (seen == "(accepted)" || seen.starts_with("the list is an older"));
      }
      ::_exit(consistent ? 0 : 1);
    }
    children.push_back(child);
  }
  for (const pid_t child : children) {
    int status = -1;
    ::waitpid(child, &status, 0);
    EXPECT_EQ(status, 0);
  }
  EXPECT_EQ(serial(), 79U);
}

TEST_F(TrustStateFileTest, KilledAtAnyMomentHoldsTheOldStateOrTheNew) {
  EXPECT_EQ(accept(1), "(accepted)");
  std::uint64_t before = 1;
  for (std::size_t round = 0; round < 40; ++round) {
    std::array<int, 2> ends{};
    ASSERT_EQ(::pipe(ends.data()), 0);
    const pid_t child = ::fork();
    if (child == 0) {
      for (int serial = static_cast<int>(before) + 1;; ++serial) {
        if (accept(serial) != "(accepted)" || ::write(ends[1], "x", 1) != 1) ::_exit(1);
      }
    }
    ::close(ends[1]);
    // After some whole states, and in the middle of one.
    std::array<char, 40> told{};
    for (std::size_t count = 0; count < round; ++count) {
      ASSERT_EQ(::read(ends[0], told.data(), 1), 1);
    }
    ::kill(child, SIGKILL);
    ::waitpid(child, nullptr, 0);
    ::close(ends[0]);
    ASSERT_EQ(refusal(), "(taken)");
    ASSERT_GE(serial(), before);
    before = serial();
    ASSERT_EQ(accept(static_cast<int>(before) + 1), "(accepted)");
    before = serial();
  }
}

}  // namespace
