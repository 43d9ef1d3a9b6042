// The turn of a script ID: where its locks lie, what it creates, and who waits for whom, between
// processes and between the threads of one.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <future>
#include <string>
#include <system_error>
#include <thread>
#include <vector>

#include "AgentFixture.h"
#include "ScriptTurn.h"
#include "VarnScriptRepository/ScriptRepositoryHost.h"

namespace VarnScriptRepository {
namespace {

class ScriptTurnTest : public doubles::AgentFixture {
 protected:
  static std::error_code take(ScriptTurn& turn, const std::string& scriptID) {
    std::error_code error;
    turn.take({scriptID}, error);
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

  const std::string base_ = directory / "agent";
  std::error_code error_;
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

TEST_F(ScriptTurnTest, OneIdIsTakenUntilTheTurnIsDestroyed) {
  {
    ScriptTurn turn;
    ASSERT_EQ(take(turn, "42"), std::error_code());
    EXPECT_TRUE(isTakenForOthers("42"));
    EXPECT_FALSE(isTakenForOthers("43"));
  }
  EXPECT_FALSE(isTakenForOthers("42"));
}

TEST_F(ScriptTurnTest, ManyIdsAreTakenTogether) {
  ScriptTurn turn;
  std::error_code error;
  turn.take({"42", "43", "42"}, error);
  ASSERT_EQ(error, std::error_code());
  EXPECT_TRUE(isTakenForOthers("42"));
  EXPECT_TRUE(isTakenForOthers("43"));
  EXPECT_FALSE(isTakenForOthers("44"));
}

TEST_F(ScriptTurnTest, AFileIsTakenUntilItIsReleased) {
  ScriptTurn turn;
  ASSERT_EQ(take(turn, "42"), std::error_code());
  EXPECT_TRUE(turn.tryTakeFile("job.sh"));
  EXPECT_TRUE(isTakenForOthers(fileLockOffset("./JOB.sh")));
  turn.leaveFile("job.sh");
  EXPECT_FALSE(isTakenForOthers(fileLockOffset("job.sh")));
  EXPECT_TRUE(isTakenForOthers("42"));
}

TEST_F(ScriptTurnTest, AFileThatAnotherProcessHoldsIsNotTaken) {
  ScriptTurn turn;
  ASSERT_EQ(take(turn, "42"), std::error_code());
  int ready[2];
  int go[2];
  ASSERT_EQ(::pipe(ready), 0);
  ASSERT_EQ(::pipe(go), 0);
  const pid_t child = ::fork();
  if (child == 0) {
    ::close(go[1]);
    ScriptTurn other;
    const bool held = take(other, "43") == std::error_code() && other.tryTakeFile("job.sh");
    char byte = held ? 'y' : 'n';
    ::_exit(::write(ready[1], &byte, 1) == 1 && ::read(go[0], &byte, 1) == 0 ? 0 : 1);
  }
  char byte = 0;
  ASSERT_EQ(::read(ready[0], &byte, 1), 1);
  EXPECT_EQ(byte, 'y');
  EXPECT_FALSE(turn.tryTakeFile("job.sh"));
  EXPECT_EQ(turn.holder(), child);
  ::close(go[1]);
  int status = 0;
  EXPECT_EQ(::waitpid(child, &status, 0), child);
  EXPECT_EQ(status, 0);
  EXPECT_TRUE(turn.tryTakeFile("job.sh"));
}

TEST_F(ScriptTurnTest, WhoHasOneIsToldWithoutTakingIt) {
  const std::string path = requestLockPath(base_, "7");
  EXPECT_EQ(path, base_ + "/client-data/7/varn-scripts.lock");
  EXPECT_EQ(turnHolder(path, "42"), std::nullopt);
  EXPECT_FALSE(std::filesystem::exists(path));
  ScriptTurn turn;
  ASSERT_EQ(take(turn, "42"), std::error_code());
  const pid_t child = ::fork();
  if (child == 0) {
    const bool told = turnHolder(path, "42") == ::getppid() && !turnHolder(path, "43");
    ::_exit(told ? 0 : 1);
  }
  int status = 0;
  EXPECT_EQ(::waitpid(child, &status, 0), child);
  EXPECT_EQ(status, 0);
}

TEST_F(ScriptTurnTest, TheFileIsForTheOwnerAloneWhateverTheUmask) {
  for (const mode_t mask : {0000U, 0022U, 0277U}) {
    std::filesystem::remove_all(base_ + "/client-data");
    const mode_t before = ::umask(mask);
    ScriptTurn turn;
    const std::error_code error = take(turn, "42");
    ::umask(before);
    ASSERT_EQ(error, std::error_code());
    EXPECT_EQ(requestLockPath(), base_ + "/client-data/7/varn-scripts.lock");
    EXPECT_EQ(modeOf(requestLockPath()), 0600U);
  }
}

TEST_F(ScriptTurnTest, ASymbolicLinkIsNotFollowed) {
  std::filesystem::create_directories(base_ + "/client-data/7");
  std::filesystem::create_symlink(base_ + "/target", base_ + "/client-data/7/varn-scripts.lock");
  ScriptTurn turn;
  EXPECT_EQ(take(turn, "42"), std::errc::too_many_symbolic_link_levels);
  EXPECT_FALSE(std::filesystem::exists(base_ + "/target"));
}

TEST_F(ScriptTurnTest, AFileInTheWayIsTheReason) {
  doubles::writeFile(base_ + "/client-data", "x");
  ScriptTurn turn;
  EXPECT_EQ(take(turn, "42"), std::errc::not_a_directory);
}

TEST_F(ScriptTurnTest, AnAgentThatDoesNotSayWhyItMakesNoDirectoryIsAnError) {
  doubles::refusesDirectories() = true;
  ScriptTurn turn;
  EXPECT_EQ(take(turn, "42"), std::errc::io_error);
  EXPECT_FALSE(turn.tryTakeFile("job.sh"));
}

// ---- Threads of one process ------------------------------------------------------------------

TEST_F(ScriptTurnTest, AThreadOfThisProcessKeepsOthersOut) {
  ScriptTurn turn;
  ASSERT_EQ(take(turn, "42"), std::error_code());
  ScriptTurn other({.mayWait = false});
  EXPECT_EQ(take(other, "42"), std::errc::resource_unavailable_try_again);
  EXPECT_EQ(other.holder(), ::getpid());
  EXPECT_EQ(take(other, "43"), std::error_code());
  turn.take({}, error_);
  EXPECT_EQ(take(other, "42"), std::error_code());
  EXPECT_FALSE(isTakenForOthers("43"));
}

TEST_F(ScriptTurnTest, AFileIsOneThreadsToo) {
  ScriptTurn turn;
  ScriptTurn other({.mayWait = false});
  ASSERT_EQ(take(turn, "42"), std::error_code());
  ASSERT_EQ(take(other, "43"), std::error_code());
  turn.takeFile("job.sh", error_);
  EXPECT_EQ(error_, std::error_code());
  // Again, as a download and the test of its checksum do.
  turn.takeFile("./job.sh", error_);
  EXPECT_EQ(error_, std::error_code());
  EXPECT_FALSE(other.tryTakeFile("JOB.sh"));
  other.takeFile("job.sh", error_);
  EXPECT_EQ(error_, std::errc::resource_unavailable_try_again);
  turn.leaveFile("job.sh");
  EXPECT_TRUE(other.tryTakeFile("job.sh"));
}

TEST_F(ScriptTurnTest, TheEndOfOneEndsNoOther) {
  // The system gives all locks of a process up when it closes any descriptor of the file.
  ScriptTurn turn;
  ASSERT_EQ(take(turn, "42"), std::error_code());
  {
    ScriptTurn other;
    ASSERT_EQ(take(other, "43"), std::error_code());
  }
  EXPECT_TRUE(isTakenForOthers("42"));
  EXPECT_FALSE(isTakenForOthers("43"));
}

TEST_F(ScriptTurnTest, TheLastOneClosesTheLockFile) {
  // The lowest that is free, so that it shows whether one was left open.
  const auto freeDescriptor = [] {
    const int lowest = ::dup(STDERR_FILENO);
    ::close(lowest);
    return lowest;
  };
  const int before = freeDescriptor();
  {
    ScriptTurn turn;
    ScriptTurn other;
    ASSERT_EQ(take(turn, "42"), std::error_code());
    ASSERT_EQ(take(other, "43"), std::error_code());
    EXPECT_EQ(freeDescriptor(), before + 1);
  }
  EXPECT_EQ(freeDescriptor(), before);
}

TEST_F(ScriptTurnTest, AFileInThePlaceOfTheLockFileIsTheOneThatIsTaken) {
  ScriptTurn turn;
  ASSERT_EQ(take(turn, "42"), std::error_code());
  std::filesystem::remove(requestLockPath());
  ScriptTurn other({.mayWait = false});
  EXPECT_EQ(take(other, "42"), std::errc::resource_unavailable_try_again);
  ASSERT_EQ(take(other, "43"), std::error_code());
  EXPECT_TRUE(isTakenForOthers("43"));
}

TEST_F(ScriptTurnTest, WhoeverWaitsIsToldForWhomAndGetsItsTurn) {
  ScriptTurn turn;
  ASSERT_EQ(take(turn, "42"), std::error_code());
  std::promise<int> reported;
  std::thread waiting([&] {
    ScriptTurn other({.reported = [&](int processID) { reported.set_value(processID); }});
    std::error_code error;
    other.take({"42"}, error);
    EXPECT_EQ(error, std::error_code());
    EXPECT_TRUE(isTakenForOthers("42"));
  });
  EXPECT_EQ(reported.get_future().get(), ::getpid());
  turn.take({}, error_);
  waiting.join();
}

TEST_F(ScriptTurnTest, ThreadsHaveOneIdOneAfterAnother) {
  int number = 0;  // Of whoever has the turn: unguarded, so that a thread sanitizer sees a second.
  constexpr int kThreads = 4;
  constexpr int kRounds = 50;
  {
    std::vector<std::jthread> threads;
    for (int thread = 0; thread < kThreads; ++thread) {
      threads.emplace_back([&number, thread] {
        for (int round = 0; round < kRounds; ++round) {
          ScriptTurn turn;
          std::error_code error;
          turn.take({"42", std::to_string(thread)}, error);
          EXPECT_EQ(error, std::error_code());
          const int before = number;
          std::this_thread::yield();
          number = before + 1;
        }
      });
    }
  }
  EXPECT_EQ(number, kThreads * kRounds);
}

TEST_F(ScriptTurnTest, NothingIsTakenWithoutIds) {
  ScriptTurn turn;
  turn.takeFile("job.sh", error_);
  EXPECT_EQ(error_, std::errc::operation_not_permitted);
  EXPECT_FALSE(turn.tryTakeFile("job.sh"));
}

}  // namespace
}  // namespace VarnScriptRepository
