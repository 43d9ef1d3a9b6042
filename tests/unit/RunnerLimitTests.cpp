// The time limit: due before the launch, reached while the child runs, never reached.

#include <gmock/gmock.h>
#include <signal.h>
#include <sys/wait.h>

#include <cerrno>
#include <cstdlib>
#include <limits>
#include <string>
#include <thread>

#include "RunnerFixture.h"

namespace {

using namespace runnertests;
using testing::ElementsAre;

const std::string kKilling = line("shell: Killing process due to 1s time-out");

class ShellLimit : public RunnerFixture {
 protected:
  /// Makes the file "reached" when the line of a reached limit was logged.
  void tellWhenReached() {
    journal.onLog([reached = path("reached")](const doubles::LogRecord& record) {
      if (record.message == "shell: Killing process due to 1s time-out") {
        doubles::writeFile(reached, "");
      }
    });
  }

  /// The signal that ended the process named in the file "subtask", which is ours to wait for now
  /// that its parent is gone; 0 when none did.
  int endOfSubtask() const {
    const int subtask = std::atoi(doubles::readFile(path("subtask")).value_or("0").c_str());
    int status = 0;
    const auto ended = [&] { return ::waitpid(subtask, &status, WNOHANG) == subtask; };
    return subtask > 0 && eventually(ended) && WIFSIGNALED(status) ? WTERMSIG(status) : 0;
  }
};

TEST_F(ShellLimit, OfZeroOrLessIsALineAndNoLimit) {
  struct Row {
    std::int64_t limit;
    const char* shown;
  };
  for (const Row& row : {Row{0, "0"}, Row{-1, "-1"}, Row{-600, "-600"},
                         Row{std::numeric_limits<std::int64_t>::min(), "-9223372036854775808"}}) {
    SCOPED_TRACE(row.shown);
    journal.reset();

    EXPECT_EQ(runCommand("sleep 0.1; echo ran; exit 3", row.limit), Result(3, "ran\n"));

    EXPECT_THAT(journal.log(), ElementsAre(entryLine("sleep 0.1; echo ran; exit 3", row.limit),
                                           line("shell: task is not running, not waiting due to " +
                                                std::string(row.shown) + "s time out"),
                                           line("availableOutput")));
  }
}

TEST_F(ShellLimit, HoweverLargeIsNeverReachedByAShortRun) {
  struct Row {
    std::int64_t limit;
  };
  for (const Row& row : {Row{600}, Row{std::numeric_limits<std::int32_t>::max()}, Row{9223372036},
                         Row{9223372037}, Row{std::numeric_limits<std::int64_t>::max()}}) {
    SCOPED_TRACE(row.limit);
    journal.reset();

    EXPECT_EQ(runCommand("sleep 0.1; echo ran", row.limit), Result(0, "ran\n"));

    EXPECT_THAT(journal.log(),
                ElementsAre(entryLine("sleep 0.1; echo ran", row.limit), line("availableOutput")));
  }
}

TEST_F(ShellLimit, EndsTheChildWithSIGTERM) {
  EXPECT_EQ(runCommand("exec sleep 1000", 1), Result(SIGTERM, ""));

  EXPECT_THAT(journal.log(), ElementsAre(entryLine("exec sleep 1000", 1), kKilling));
  EXPECT_THAT(journal.threads(), ElementsAre(std::this_thread::get_id()));
}

TEST_F(ShellLimit, KeepsWhatWasWrittenBefore) {
  EXPECT_EQ(runCommand("echo before; exec sleep 1000", 1), Result(SIGTERM, "before\n"));

  EXPECT_THAT(journal.log(), ElementsAre(entryLine("echo before; exec sleep 1000", 1),
                                         line("availableOutput"), kKilling));
}

TEST_F(ShellLimit, LetsAChildEndInItsOwnWay) {
  const std::string command = "trap 'echo ending; exit 7' TERM; while :; do :; done";
  EXPECT_EQ(runCommand(command, 1), Result(7, "ending\n"));

  EXPECT_THAT(journal.log(), ElementsAre(entryLine(command, 1), kKilling, line("availableOutput")));
}

TEST_F(ShellLimit, IsFollowedByTheWaitForAChildThatIgnoresSIGTERM) {
  tellWhenReached();
  const std::string command =
      "trap '' TERM; while [ ! -e reached ]; do sleep 0.05; done; echo survived; exit 7";

  EXPECT_EQ(runCommand(command, 1), Result(7, "survived\n"));

  // One line and one signal, although the child ran on.
  EXPECT_THAT(journal.log(), ElementsAre(entryLine(command, 1), kKilling, line("availableOutput")));
}

TEST_F(ShellLimit, AsksOnceAlsoWhenTheChildGoesOnForLong) {
  // The child goes on for a while after the first signal and counts.
  const std::string command =
      "count=0; trap 'count=$((count+1))' TERM; while [ $count = 0 ]; do :; done; "
      "i=0; while [ $i -lt 300000 ]; do i=$((i+1)); done; echo $count";

  EXPECT_EQ(runCommand(command, 1), Result(0, "1\n"));
}

TEST_F(ShellLimit, EndsAChildThatWritesForEver) {
  const auto [status, output] = runCommand("while :; do echo flood; done", 1);

  EXPECT_EQ(status, SIGTERM);
  ASSERT_TRUE(output);
  EXPECT_TRUE(output->starts_with("flood\nflood\n"));
  EXPECT_THAT(journal.log(), testing::Contains(kKilling));
}

TEST_F(ShellLimit, EndsAChildThatWritesLeadBytesForEver) {
  EXPECT_EQ(runCommand(R"(exec tr '\000' '\303' </dev/zero)", 1), Result(SIGTERM, ""));
}

TEST_F(ShellLimit, EndsAChildThatClosedItsOutput) {
  EXPECT_EQ(runCommand("exec >&- 2>&-; exec sleep 1000", 1), Result(SIGTERM, ""));
}

TEST_F(ShellLimit, EndsWhatTheChildStartedInItsGroup) {
  EXPECT_EQ(runCommand("sleep 1000 & echo $! > subtask; wait", 1), Result(SIGTERM, ""));

  EXPECT_EQ(endOfSubtask(), SIGTERM);
}

/// Moves itself to the group of its parent, this test, and ends by itself some time after the
/// limit.
const std::string kMovesAway =
    "exec perl -e 'setpgrp(0, getpgrp(getppid())) or die; "
    "select(undef, undef, undef, 0.05) until -e \"reached\"; sleep(10); exit 7'";

TEST_F(ShellLimit, EndsAChildThatHasMovedToAnotherGroup) {
  tellWhenReached();
  EXPECT_EQ(runCommand(kMovesAway, 1), Result(SIGTERM, ""));
}

TEST_F(ShellLimit, EndsWhatAChildThatHasMovedAwayLeftInItsGroup) {
  tellWhenReached();
  EXPECT_EQ(runCommand("sleep 1000 & echo $! > subtask; " + kMovesAway, 1), Result(SIGTERM, ""));

  EXPECT_EQ(endOfSubtask(), SIGTERM);
}

TEST_F(ShellLimit, EndsAChildThatIsStopped) {
  EXPECT_EQ(runCommand("kill -STOP $$; exit 7", 1), Result(SIGTERM, ""));
  EXPECT_EQ(runCommand("trap 'echo ending; exit 7' TERM; kill -STOP $$; exit 8", 1),
            Result(7, "ending\n"));
}

TEST_F(ShellLimit, EndsAChildThatIsStoppedInAnotherGroup) {
  EXPECT_EQ(runCommand("exec perl -e 'setpgrp(0, getpgrp(getppid())) or die; kill STOP => $$; "
                       "exit 7'",
                       1),
            Result(SIGTERM, ""));
}

TEST_F(ShellLimit, LeavesWhatAnEndedChildStartedRunning) {
  EXPECT_EQ(runCommand("while [ ! -e stop ]; do sleep 0.05; done & echo $!", 600).first, 0);

  // Still there: nothing was signalled.
  EXPECT_EQ(::waitpid(-1, nullptr, WNOHANG), 0);
  doubles::writeFile(path("stop"), "");
  int status = 0;
  EXPECT_TRUE(eventually([&] { return ::waitpid(-1, &status, WNOHANG) > 0; }));
  EXPECT_TRUE(WIFEXITED(status));
}

TEST_F(ShellLimit, DoesNotReachTheHost) {
  // The host's own group gets no signal: it would end this test.
  EXPECT_EQ(runCommand("exec sleep 1000", 1), Result(SIGTERM, ""));
  EXPECT_NE(::getpgrp(), 0);
}

}  // namespace
