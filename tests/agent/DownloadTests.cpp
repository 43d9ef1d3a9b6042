// The local end of a download, through a server that is a directory.

#include <fcntl.h>
#include <sys/file.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <csignal>
#include <filesystem>

#include "support/DownloadFixture.h"

namespace {

// What was asked to be on the disk; whether it is there is at stake in none of these tests.
int syncs = 0;

}  // namespace

extern "C" int fsync(int /*file*/) {
  ++syncs;
  return 0;
}

namespace {

using namespace std::string_literals;
using Names = std::vector<std::string>;

class Download : public DownloadFixture {
 protected:
  void SetUp() override {
    writeFile(repository / "a", "new");
    useServer("file://" + repository.path());
  }

  TemporaryDirectory repository;
};

TEST_F(Download, IsForTheOwnerAloneWhateverTheUmaskAndTheOldMode) {
  for (const mode_t mask : {0000u, 0022u, 0377u}) {
    const Umask umask(mask);
    writeFile(base / "target", "old");
    ASSERT_EQ(::chmod((base / "target").c_str(), 0777), 0);
    EXPECT_TRUE(download("a", base / "target"));
    EXPECT_EQ(modeOf(base / "target"), 0600u);
    ASSERT_EQ(::unlink((base / "target").c_str()), 0);
  }
}

TEST_F(Download, IsOnTheDiskUnlessItNeedNotLast) {
  EXPECT_TRUE(download("a", base / "target"));
  EXPECT_EQ(syncs, 2);  // the file, then the name in its directory
  settings.syncsDownloads = false;
  useServer("file://" + repository.path());
  EXPECT_TRUE(download("a", base / "other"));
  EXPECT_EQ(syncs, 2);
  EXPECT_EQ(readFile(base / "other"), "new");
  EXPECT_EQ(modeOf(base / "other"), 0600u);
}

TEST_F(Download, ReplacesALinkAndDoesNotFollowIt) {
  writeFile(base / "elsewhere", "kept");
  ASSERT_EQ(::symlink("elsewhere", (base / "target").c_str()), 0);
  EXPECT_TRUE(download("a", base / "target"));
  EXPECT_TRUE(std::filesystem::is_regular_file(std::filesystem::symlink_status(base / "target")));
  EXPECT_EQ(readFile(base / "target"), "new");
  EXPECT_EQ(readFile(base / "elsewhere"), "kept");
}

TEST_F(Download, DoesNotChangeAFileThatIsOpen) {
  // Whoever runs the old script goes on reading the old script.
  writeFile(base / "target", "old");
  const int fd = ::open((base / "target").c_str(), O_RDONLY);
  EXPECT_TRUE(download("a", base / "target"));
  char content[4] = "";
  EXPECT_EQ(::read(fd, content, 3), 3);
  ::close(fd);
  EXPECT_STREQ(content, "old");
}

TEST_F(Download, ReplacesNothingButFiles) {
  ASSERT_EQ(::mkdir((base / "directory").c_str(), 0700), 0);
  ASSERT_EQ(::mkfifo((base / "fifo").c_str(), 0600), 0);
  for (const char* const name : {"directory", "fifo"}) {
    EXPECT_FALSE(download("a", base / name));
    EXPECT_EQ(log.lines().back(),
              kFailed + "a failed: " + (base / name) + " is not a file and stays");
  }
  EXPECT_TRUE(std::filesystem::is_directory(base / "directory"));
  EXPECT_TRUE(std::filesystem::is_fifo(base / "fifo"));
  EXPECT_EQ(base.names(), (Names{"directory", "fifo"}));
}

TEST_F(Download, CreatesNoDirectory) {
  EXPECT_FALSE(download("a", base / "missing/target"));
  EXPECT_EQ(log.lines(), Names{kFailed + "a failed: can't create a file in " + (base / "missing") +
                               ": No such file or directory"});
  EXPECT_EQ(base.names(), Names{});
}

TEST_F(Download, RefusesATargetThatLeadsOutOfTheBasePath) {
  ASSERT_EQ(::mkdir((base / "inside").c_str(), 0700), 0);
  settings.basePath = base / "inside";
  AgentUtils::configure(settings);
  ASSERT_EQ(::mkdir((base / "inside/sub").c_str(), 0700), 0);
  const std::string targets[] = {base / "inside/../target", base / "inside/sub/../../target",
                                 base / "inside/sub/../target", base / "inside/.."};
  for (const std::string& target : targets) {
    EXPECT_FALSE(download("a", target));
    EXPECT_EQ(log.lines().back(),
              kFailed + "a failed: the target leads out of its directory: " + target);
  }
  EXPECT_EQ(base.names(), Names{"inside"});
  EXPECT_TRUE(download("a", base / "inside/sub/..target"));
}

TEST_F(Download, RefusesATargetWhoseNameHoldsANul) {
  EXPECT_FALSE(download("a", base / "target\0.sh"s));
  EXPECT_EQ(log.lines(), Names{kFailed + "a failed: the target's name holds a NUL"});
  EXPECT_EQ(base.names(), Names{});
}

TEST_F(Download, ThatCannotBeWrittenFails) {
  // A file size limit stands for a full disk.
  struct sigaction ignore {};
  ignore.sa_handler = SIG_IGN;
  ::sigaction(SIGXFSZ, &ignore, nullptr);
  writeFile(base / "target", "old");
  rlimit limit{};
  ASSERT_EQ(::getrlimit(RLIMIT_FSIZE, &limit), 0);
  const rlimit none{1, limit.rlim_max};
  ASSERT_EQ(::setrlimit(RLIMIT_FSIZE, &none), 0);
  const bool result = download("a", base / "target");
  ASSERT_EQ(::setrlimit(RLIMIT_FSIZE, &limit), 0);
  EXPECT_FALSE(result);
  ASSERT_EQ(log.lines().size(), 1u);
  EXPECT_TRUE(log.lines().front().ends_with(": File too large")) << log.lines().front();
  EXPECT_EQ(readFile(base / "target"), "old");
  EXPECT_EQ(base.names(), Names{"target"});
}

TEST_F(Download, SweepsWhatKilledOnesLeftEachTime) {
  for (int time = 0; time < 2; ++time) {
    writeFile(base / ".varn-download-abc123", "left");
    EXPECT_TRUE(download("a", base / "target"));
    EXPECT_EQ(base.names(), Names{"target"});
  }
}

TEST_F(Download, SweepsNothingThatIsAliveOrNotItsOwn) {
  writeFile(base / ".varn-download-live00", "being written");
  writeFile(base / ".varn-other", "kept");
  writeFile(base / "elsewhere", "kept");
  ASSERT_EQ(::symlink("elsewhere", (base / ".varn-download-link00").c_str()), 0);
  ASSERT_EQ(::mkdir((base / ".varn-download-dir000").c_str(), 0700), 0);
  ASSERT_EQ(::mkfifo((base / ".varn-download-fifo00").c_str(), 0600), 0);
  const int live = ::open((base / ".varn-download-live00").c_str(), O_RDWR);
  ASSERT_EQ(::flock(live, LOCK_EX), 0);
  EXPECT_TRUE(download("a", base / "target"));
  EXPECT_EQ(base.names(),
            (Names{".varn-download-dir000", ".varn-download-fifo00", ".varn-download-link00",
                   ".varn-download-live00", ".varn-other", "elsewhere", "target"}));
  ::close(live);
}

TEST_F(Download, AFailedOneSweepsNothing) {
  writeFile(base / ".varn-download-abc123", "left");
  EXPECT_FALSE(download("missing", base / "target"));
  EXPECT_EQ(base.names(), Names{".varn-download-abc123"});
}

TEST_F(Download, ReportsADirectoryThatOthersMayWriteOnce) {
  ASSERT_EQ(::mkdir((base / "open").c_str(), 0700), 0);
  ASSERT_EQ(::chmod((base / "open").c_str(), 0777), 0);
  EXPECT_TRUE(download("a", base / "open/target"));
  EXPECT_TRUE(download("a", base / "open/target"));
  EXPECT_EQ(log.lines(), Names{"info HttpHandlermac "
                               "downloadFileWithRootPermission(fromURL:toPath:): "
                               "Writable by others than its owner: " +
                               (base / "open")});
}

}  // namespace
