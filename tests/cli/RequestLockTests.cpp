// The advisory lock of one script ID: where it lies, what it creates, and who waits for whom.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <string>
#include <system_error>

#include "RequestLock.h"
#include "support/TemporaryDirectory.h"

namespace VarnScripts {
namespace {

class RequestLockTest : public testing::Test {
 protected:
  std::error_code acquire(RequestLock& lock, const std::string& scriptID) const {
    std::error_code error;
    lock.acquire(base_, "7", {scriptID}, error);
    return error;
  }

  // Whether another process finds the lock of `scriptID` taken.
  bool isTakenForOthers(const std::string& scriptID) const {
    return isTakenForOthers(lockOffset(scriptID));
  }

  bool isTakenForOthers(std::int64_t offset) const {
    const pid_t child = ::fork();
    if (child == 0) {
      const std::string path = base_ + "/client-data/7/varn-scripts.lock";
      const int descriptor = ::open(path.c_str(), O_RDWR | O_CLOEXEC);
      struct flock range {};
      range.l_type = F_WRLCK;
      range.l_whence = SEEK_SET;
      range.l_start = static_cast<off_t>(offset);
      range.l_len = 1;
      ::_exit(::fcntl(descriptor, F_SETLK, &range) == 0 ? 0 : 1);
    }
    int status = 0;
    EXPECT_EQ(::waitpid(child, &status, 0), child);
    return WEXITSTATUS(status) == 1;
  }

  mode_t modeOf(const std::string& path) const {
    struct stat status {};
    EXPECT_EQ(::lstat(path.c_str(), &status), 0) << path;
    return status.st_mode & 07777;
  }

  const TemporaryDirectory directory_;
  const std::string& base_ = directory_.path();
};

TEST(LockOffset, IsTheSameInEveryBuild) {
  EXPECT_EQ(lockOffset(""), 3673995259836664009);
  EXPECT_EQ(lockOffset("a"), 3159546800138910499);
  EXPECT_NE(lockOffset("42"), lockOffset("43"));
}

TEST(FileLockOffset, IsOneForAllSpellingsOfAFile) {
  const std::int64_t offset = fileLockOffset("/base/scripts/job.sh");
  EXPECT_EQ(offset, 6889880847523014516);
  for (const char* const same :
       {"/base/scripts/./job.sh", "/base//scripts/.//./job.sh", "/base/scripts/JOB.sh",
        "/base/scripts/a/../job.sh", "/../base/other/./../scripts/job.sh"}) {
    EXPECT_EQ(fileLockOffset(same), offset) << same;
  }
  EXPECT_EQ(fileLockOffset("/base/\xC3\xA9.sh"), fileLockOffset("/base/e\xCC\x81.sh"));
  // A name that is no UTF-8 keeps no other name from being folded.
  EXPECT_EQ(fileLockOffset("/\xFF/A.sh"), fileLockOffset("/\xFF/a.sh"));
  EXPECT_NE(fileLockOffset("/\xFF/a.sh"), fileLockOffset("/\xFE/a.sh"));
  for (const char* const other :
       {"/base/scripts/job.sh.sh", "/base/scripts/job", "/base/scriptsjob.sh", "/base/job.sh",
        "/base/scripts/job/sh", "/base/scripts/.job.sh", ""}) {
    EXPECT_NE(fileLockOffset(other), offset) << other;
  }
  // No file is locked where an ID is.
  EXPECT_GE(fileLockOffset(""), std::int64_t{1} << 62);
  EXPECT_LT(lockOffset("42"), std::int64_t{1} << 62);
}

TEST_F(RequestLockTest, OneIdIsTakenUntilTheLockIsDestroyed) {
  {
    RequestLock lock;
    ASSERT_EQ(acquire(lock, "42"), std::error_code());
    EXPECT_TRUE(isTakenForOthers("42"));
    EXPECT_FALSE(isTakenForOthers("43"));
  }
  EXPECT_FALSE(isTakenForOthers("42"));
}

TEST_F(RequestLockTest, ManyIdsAreTakenTogether) {
  RequestLock lock;
  std::error_code error;
  lock.acquire(base_, "7", {"42", "43", "42"}, error);
  ASSERT_EQ(error, std::error_code());
  EXPECT_TRUE(isTakenForOthers("42"));
  EXPECT_TRUE(isTakenForOthers("43"));
  EXPECT_FALSE(isTakenForOthers("44"));
}

TEST_F(RequestLockTest, AFileIsTakenUntilItIsReleased) {
  RequestLock lock;
  ASSERT_EQ(acquire(lock, "42"), std::error_code());
  EXPECT_TRUE(lock.tryHoldFile("job.sh"));
  EXPECT_TRUE(isTakenForOthers(fileLockOffset("./JOB.sh")));
  lock.releaseFile("job.sh");
  EXPECT_FALSE(isTakenForOthers(fileLockOffset("job.sh")));
  EXPECT_TRUE(isTakenForOthers("42"));
}

TEST_F(RequestLockTest, AFileThatAnotherProcessHoldsIsNotTaken) {
  RequestLock lock;
  ASSERT_EQ(acquire(lock, "42"), std::error_code());
  int ready[2];
  int go[2];
  ASSERT_EQ(::pipe(ready), 0);
  ASSERT_EQ(::pipe(go), 0);
  const pid_t child = ::fork();
  if (child == 0) {
    ::close(go[1]);
    RequestLock other;
    const bool held = acquire(other, "43") == std::error_code() && other.tryHoldFile("job.sh");
    char byte = held ? 'y' : 'n';
    ::_exit(::write(ready[1], &byte, 1) == 1 && ::read(go[0], &byte, 1) == 0 ? 0 : 1);
  }
  char byte = 0;
  ASSERT_EQ(::read(ready[0], &byte, 1), 1);
  EXPECT_EQ(byte, 'y');
  EXPECT_FALSE(lock.tryHoldFile("job.sh"));
  ::close(go[1]);
  int status = 0;
  EXPECT_EQ(::waitpid(child, &status, 0), child);
  EXPECT_EQ(status, 0);
  EXPECT_TRUE(lock.tryHoldFile("job.sh"));
}

TEST_F(RequestLockTest, FileAndDirectoriesAreForTheOwnerAloneWhateverTheUmask) {
  for (const mode_t mask : {0000U, 0022U, 0277U}) {
    std::filesystem::remove_all(base_ + "/client-data");
    const mode_t before = ::umask(mask);
    RequestLock lock;
    const std::error_code error = acquire(lock, "42");
    ::umask(before);
    ASSERT_EQ(error, std::error_code());
    EXPECT_EQ(lock.path(), base_ + "/client-data/7/varn-scripts.lock");
    EXPECT_EQ(modeOf(base_ + "/client-data"), 0700U);
    EXPECT_EQ(modeOf(base_ + "/client-data/7"), 0700U);
    EXPECT_EQ(modeOf(lock.path()), 0600U);
  }
}

TEST_F(RequestLockTest, ASymbolicLinkIsNotFollowed) {
  std::filesystem::create_directories(base_ + "/client-data/7");
  std::filesystem::create_symlink(base_ + "/target", base_ + "/client-data/7/varn-scripts.lock");
  RequestLock lock;
  EXPECT_EQ(acquire(lock, "42"), std::errc::too_many_symbolic_link_levels);
  EXPECT_FALSE(std::filesystem::exists(base_ + "/target"));
}

TEST_F(RequestLockTest, AFileInTheWayIsTheReason) {
  std::ofstream(base_ + "/client-data") << "x";
  RequestLock lock;
  EXPECT_EQ(acquire(lock, "42"), std::errc::not_a_directory);
}

}  // namespace
}  // namespace VarnScripts
