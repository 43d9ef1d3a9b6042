// Files in the server's tree: whole, readable, never through a link, and one publishing at a time.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#ifdef __linux__
#include <sys/syscall.h>
#endif
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <utility>

#include "publish/ServerFiles.h"
#include "support/TemporaryDirectory.h"

namespace VarnScripts::publishing {
namespace {

namespace fs = std::filesystem;

// Done to the next directory that is made, once it is there.
std::function<void(const std::string& path)> afterMkdir;

const std::string kScript = "files/" + std::string(64, 'a') + ".sh";
const std::string kOtherScript = "files/" + std::string(64, 'b') + ".sh";

class ServerFilesTest : public testing::Test {
 protected:
  void open(ServerFiles& files) const {
    std::error_code error;
    files.open(output_, "client-data/7/scriptrepo", error);
    ASSERT_FALSE(error) << files.failedPath() << ": " << error.message();
  }

  void put(ServerFiles& files, const std::string& name, const std::string& bytes) const {
    std::error_code error;
    files.add(name, bytes, error);
    ASSERT_FALSE(error) << error.message();
    files.commit(error);
    ASSERT_FALSE(error) << error.message();
  }

  [[nodiscard]] std::string bytesOf(const std::string& name) const {
    std::ifstream file(root_ + "/" + name, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
  }

  [[nodiscard]] unsigned modeOf(const std::string& path) const {
    return static_cast<unsigned>(fs::symlink_status(path).permissions());
  }

  [[nodiscard]] std::set<std::string> names() const {
    std::set<std::string> found;
    for (const auto& item : fs::recursive_directory_iterator(root_)) {
      found.insert(fs::relative(item.path(), root_).string());
    }
    EXPECT_EQ(found.erase(".publishing.lock"), 1U);
    return found;
  }

  const TemporaryDirectory directory_;
  const std::string& output_ = directory_.path();
  const std::string root_ = output_ + "/client-data/7/scriptrepo";
};

TEST_F(ServerFilesTest, AreReadableForAWebServerWhateverTheMask) {
  const mode_t mask = ::umask(0777);
  ServerFiles files;
  open(files);
  put(files, kScript, "echo a\n");
  ::umask(mask);
  for (const std::string& directory :
       {output_ + "/client-data", output_ + "/client-data/7", root_, root_ + "/files"}) {
    EXPECT_EQ(modeOf(directory), 0755U) << directory;
  }
  EXPECT_EQ(modeOf(root_ + "/" + kScript), 0644U);
  EXPECT_EQ(bytesOf(kScript), "echo a\n");
  EXPECT_EQ(files.written(), 1U);
}

TEST_F(ServerFilesTest, ThatHoldTheBytesAlreadyStayAsTheyAre) {
  {
    ServerFiles files;
    open(files);
    put(files, kScript, "echo a\n");
  }
  struct stat before {};
  ASSERT_EQ(::stat((root_ + "/" + kScript).c_str(), &before), 0);
  ServerFiles files;
  open(files);
  put(files, kScript, "echo a\n");
  struct stat after {};
  ASSERT_EQ(::stat((root_ + "/" + kScript).c_str(), &after), 0);
  EXPECT_EQ(after.st_ino, before.st_ino);
  EXPECT_EQ(files.written(), 0U);
}

TEST_F(ServerFilesTest, ThatWereDamagedAreReplaced) {
  ServerFiles files;
  open(files);
  std::ofstream(root_ + "/" + kScript) << "echo";
  put(files, kScript, "echo a\n");
  EXPECT_EQ(bytesOf(kScript), "echo a\n");
  EXPECT_EQ(files.written(), 1U);
}

TEST_F(ServerFilesTest, ThatNobodyElseMayReadAreReplaced) {
  ServerFiles files;
  open(files);
  std::ofstream(root_ + "/" + kScript) << "echo a\n";
  fs::permissions(root_ + "/" + kScript, fs::perms::owner_all);
  put(files, kScript, "echo a\n");
  EXPECT_EQ(modeOf(root_ + "/" + kScript), 0644U);
  EXPECT_EQ(files.written(), 1U);
}

TEST_F(ServerFilesTest, ReplaceALinkAndLeaveItsTargetAlone) {
  std::ofstream(output_ + "/elsewhere") << "echo a\n";
  ServerFiles files;
  open(files);
  fs::create_symlink(output_ + "/elsewhere", root_ + "/" + kScript);
  fs::create_symlink(output_ + "/elsewhere", root_ + "/files/.publishing-0");
  put(files, kScript, "echo b\n");
  EXPECT_TRUE(fs::is_regular_file(fs::symlink_status(root_ + "/" + kScript)));
  EXPECT_EQ(bytesOf(kScript), "echo b\n");
  std::ifstream elsewhere(output_ + "/elsewhere");
  EXPECT_EQ(std::string(std::istreambuf_iterator<char>(elsewhere), {}), "echo a\n");
}

TEST_F(ServerFilesTest, AreNotSeenBeforeTheyAreCommitted) {
  {
    ServerFiles files;
    open(files);
    std::error_code error;
    files.add(kScript, "echo a\n", error);
    ASSERT_FALSE(error);
    EXPECT_FALSE(fs::exists(root_ + "/" + kScript));
  }
  EXPECT_EQ(names(), (std::set<std::string>{"data", "files"}));
}

TEST_F(ServerFilesTest, GoWhenNothingNamesThemAndForeignOnesStay) {
  ServerFiles files;
  open(files);
  put(files, kScript, "echo a\n");
  put(files, kOtherScript, "echo b\n");
  for (const char* const name : {"files/.publishing-7", "data/.publishing-1", ".publishing-0",
                                 "files/readme.sh", "scripts-meta.xml", "data/42.xml"}) {
    std::ofstream(root_ + "/" + name) << "x";
  }
  std::error_code error;
  files.removeContentBut({kScript}, std::chrono::seconds(0), error);
  EXPECT_FALSE(error);
  EXPECT_EQ(files.removed(), 4U);
  EXPECT_EQ(names(), (std::set<std::string>{"data", "data/42.xml", "files", "files/readme.sh",
                                            kScript, "scripts-meta.xml"}));
}

TEST_F(ServerFilesTest, StayForTheTimeAfterTheyHaveDroppedOut) {
  ServerFiles files;
  open(files);
  put(files, kScript, "echo a\n");
  put(files, kOtherScript, "echo b\n");
  const auto longAgo = fs::file_time_type::clock::now() - std::chrono::hours(100);
  for (const std::string& name : {kScript, kOtherScript}) {
    fs::last_write_time(root_ + "/" + name, longAgo);
  }
  std::error_code error;
  files.noteDropped({kScript, "files/missing.sh"}, error);
  EXPECT_FALSE(error);
  files.removeContentBut({}, std::chrono::hours(1), error);
  EXPECT_FALSE(error);
  EXPECT_EQ(names(), (std::set<std::string>{"data", "files", kScript}));
  files.removeLeftovers(error);
  EXPECT_FALSE(error);
  EXPECT_EQ(files.removed(), 1U);
}

TEST_F(ServerFilesTest, AreSignaturesWhenTheirNamesSaySo) {
  const std::string signature = "signatures/" + std::string(64, 'a') + ".minisig";
  const std::string other = "signatures/" + std::string(64, 'b') + ".293CBC668E52E64C.minisig";
  ServerFiles files;
  open(files);
  std::error_code error;
  EXPECT_EQ(files.signatures(error), std::vector<std::string>{});
  EXPECT_FALSE(error);
  files.makePlaceForSignatures(error);
  EXPECT_FALSE(error);
  EXPECT_EQ(modeOf(root_ + "/signatures"), 0755U);
  for (const std::string& name : {other, signature, std::string("signatures/readme"),
                                  std::string("signatures/.publishing-3")}) {
    std::ofstream(root_ + "/" + name) << "x";
  }
  EXPECT_EQ(files.signatures(error), (std::vector{signature, other}));
  files.removeContentBut({signature}, std::chrono::seconds(0), error);
  EXPECT_FALSE(error);
  EXPECT_EQ(names(),
            (std::set<std::string>{"data", "files", "signatures", "signatures/readme", signature}));
  std::ofstream(root_ + "/" + signature) << "more than four";
  EXPECT_EQ(files.read(signature, error, 4), std::nullopt);
  EXPECT_EQ(error, std::errc::file_too_large);
}

TEST_F(ServerFilesTest, LoseTheirCompressedCopiesAndNothingElse) {
  ServerFiles files;
  open(files);
  put(files, "scripts-meta.xml", "list");
  for (const char* const name : {"scripts-meta.xml.gz", "scripts-meta.xml.br",
                                 "scripts-meta.xml.zst", "scripts-meta.xml.old", "other.gz"}) {
    std::ofstream(root_ + "/" + name) << "copy";
  }
  std::error_code error;
  files.removeCompressedCopies("scripts-meta.xml", error);
  EXPECT_FALSE(error) << error.message();
  EXPECT_EQ(files.copiesRemoved(), 3U);
  EXPECT_EQ(names(), (std::set<std::string>{"data", "files", "other.gz", "scripts-meta.xml",
                                            "scripts-meta.xml.old"}));
}

#ifdef __linux__
// Between the making of a directory and the setting of its mode, its name may come to mean
// something else.
TEST_F(ServerFilesTest, SetNoModeThroughALinkThatWasPutInTheirPlace) {
  const std::string elsewhere = output_ + "/elsewhere";
  fs::create_directory(elsewhere);
  fs::permissions(elsewhere, fs::perms::owner_all);
  afterMkdir = [&](const std::string& path) {
    fs::rename(path, path + ".away");
    fs::create_directory_symlink(elsewhere, path);
  };
  ServerFiles files;
  std::error_code error;
  files.open(output_, "client-data/7/scriptrepo", error);
  EXPECT_EQ(error.message(), "Not a directory");
  EXPECT_EQ(files.failedPath(), output_ + "/client-data");
  EXPECT_EQ(modeOf(elsewhere), 0700U);
}
#endif

TEST_F(ServerFilesTest, TellWhichPathCouldNotBeMade) {
  std::ofstream(output_ + "/client-data") << "a file";
  ServerFiles files;
  std::error_code error;
  files.open(output_, "client-data/7/scriptrepo", error);
  EXPECT_TRUE(error);
  EXPECT_EQ(files.failedPath(), output_ + "/client-data/7");
  EXPECT_EQ(error.message(), "Not a directory");
}

TEST_F(ServerFilesTest, AreTakenWithoutMakingAnythingWhereSomebodyHasPublished) {
  const auto openPublished = [this] {
    ServerFiles files;
    std::error_code error;
    files.openPublished(output_, "client-data/7/scriptrepo", error);
    EXPECT_FALSE(error) << error.message();
    return files.isOpen();
  };
  EXPECT_FALSE(openPublished());
  EXPECT_FALSE(fs::exists(output_ + "/client-data"));
  std::ofstream(output_ + "/client-data") << "a file";
  EXPECT_FALSE(openPublished());
  fs::remove(output_ + "/client-data");
  {
    ServerFiles files;
    open(files);
    EXPECT_TRUE(files.isOpen());
  }
  fs::remove(root_ + "/data");
  EXPECT_TRUE(openPublished());
  EXPECT_FALSE(fs::exists(root_ + "/data"));
  fs::remove(root_ + "/.publishing.lock");
  EXPECT_FALSE(openPublished());
}

TEST_F(ServerFilesTest, AreReadWhenTheyAreThereAndNoLinks) {
  ServerFiles files;
  open(files);
  std::error_code error;
  EXPECT_EQ(files.read("list", error), std::nullopt);
  EXPECT_FALSE(error);
  std::ofstream(root_ + "/list") << "bytes";
  std::ofstream(root_ + "/empty");
  EXPECT_EQ(files.read("list", error), "bytes");
  EXPECT_EQ(files.read("empty", error), "");
  EXPECT_FALSE(error);
  fs::create_symlink("list", root_ + "/link");
  EXPECT_EQ(files.read("link", error), std::nullopt);
  EXPECT_EQ(error, std::errc::too_many_symbolic_link_levels);
  EXPECT_EQ(files.failedPath(), root_ + "/link");
  EXPECT_EQ(files.read("data", error), std::nullopt);
  EXPECT_EQ(error, std::errc::invalid_argument);
}

TEST_F(ServerFilesTest, HoldWhatTheirNamesTellOrDoNot) {
  const std::string name =
      "files/914cefaded94d45f313fa21b0af05991c33df3566f4ca6814c3652f4b92b7c8c.sh";
  ServerFiles files;
  open(files);
  EXPECT_FALSE(files.holds(name));
  put(files, name, "echo a\n");
  EXPECT_TRUE(files.holds(name));
  fs::permissions(root_ + "/" + name, fs::perms::owner_all);
  EXPECT_FALSE(files.holds(name));
  fs::permissions(root_ + "/" + name, static_cast<fs::perms>(0644));
  EXPECT_TRUE(files.holds(name));
  std::ofstream(root_ + "/" + name) << "echo b\n";
  EXPECT_FALSE(files.holds(name));
  fs::remove(root_ + "/" + name);
  std::ofstream(root_ + "/real") << "echo a\n";
  fs::create_symlink("../real", root_ + "/" + name);
  EXPECT_FALSE(files.holds(name));
}

TEST_F(ServerFilesTest, BelongToOnePublishingAtATime) {
  const auto isFree = [this] {
    // A process does not wait for its own locks.
    const pid_t child = ::fork();
    if (child == 0) {
      const int file = ::open((root_ + "/.publishing.lock").c_str(), O_RDWR | O_CLOEXEC);
      struct flock all {};
      all.l_type = F_WRLCK;
      all.l_whence = SEEK_SET;
      ::_exit(::fcntl(file, F_SETLK, &all) == 0 ? 0 : 1);
    }
    int status = -1;
    ::waitpid(child, &status, 0);
    return status == 0;
  };
  {
    ServerFiles files;
    open(files);
    EXPECT_FALSE(isFree());
  }
  EXPECT_TRUE(isFree());
}

TEST_F(ServerFilesTest, AreLockedWithAFileThatNobodyElseMayOpen) {
  const std::string lock = root_ + "/.publishing.lock";
  const mode_t mask = ::umask(0);
  for (const unsigned mode : {0600U, 0644U}) {
    ServerFiles files;
    open(files);
    EXPECT_EQ(modeOf(lock), 0600U);
    EXPECT_EQ(fs::file_size(lock), 0U);
    std::error_code error;
    files.removeContentBut({}, std::chrono::seconds(0), error);
    EXPECT_FALSE(error);
    // As a copy of the tree may have it.
    fs::permissions(lock, static_cast<fs::perms>(mode));
  }
  ServerFiles files;
  open(files);
  EXPECT_EQ(modeOf(lock), 0600U);
  ::umask(mask);
}

TEST_F(ServerFilesTest, AreNotLockedWithWhatIsNoFileOfOurOwn) {
  {
    ServerFiles files;
    open(files);
  }
  const std::string lock = root_ + "/.publishing.lock";
  const auto refusal = [&] {
    ServerFiles files;
    std::error_code error;
    files.open(output_, "client-data/7/scriptrepo", error);
    EXPECT_EQ(files.failedPath(), lock);
    return error.message();
  };
  std::ofstream(output_ + "/elsewhere") << "x";
  fs::permissions(output_ + "/elsewhere", static_cast<fs::perms>(0644));
  fs::remove(lock);
  fs::create_symlink(output_ + "/elsewhere", lock);
  EXPECT_EQ(refusal(), "Too many levels of symbolic links");
  fs::remove(lock);
  fs::create_hard_link(output_ + "/elsewhere", lock);
  EXPECT_EQ(refusal(), "Operation not permitted");
  fs::remove(lock);
  ASSERT_EQ(::mkfifo(lock.c_str(), S_IRWXU), 0);
  EXPECT_EQ(refusal(), "Operation not permitted");
  fs::remove(lock);
  fs::create_directory(lock);
  EXPECT_EQ(refusal(), "Is a directory");
  EXPECT_EQ(modeOf(output_ + "/elsewhere"), 0644U);
}

}  // namespace
}  // namespace VarnScripts::publishing

#ifdef __linux__
// In the place of the C library's.
extern "C" int mkdir(const char* path, mode_t mode) noexcept {
  const auto result = ::syscall(SYS_mkdirat, AT_FDCWD, path, mode);
  using VarnScripts::publishing::afterMkdir;
  if (result == 0 && afterMkdir) std::exchange(afterMkdir, nullptr)(path);
  return static_cast<int>(result);
}
#endif
