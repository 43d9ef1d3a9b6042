// What the child is born with, how its end is reported, and what a call leaves behind: nothing.

#include <fcntl.h>
#include <gmock/gmock.h>
#include <pthread.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <string>
#include <system_error>
#include <thread>
#include <vector>

#include "RunnerFixture.h"
#include "platform/Child.h"

namespace {

using namespace runnertests;
using VarnScriptRepository::shell;

constexpr const char* kCleanProcess =
    "descriptors 0 1 2\nblocked\nignored\ngroup leader yes\nsame pipe yes\n";

class ShellProcess : public RunnerFixture {
 protected:
  Result printProcess() const {
    return shell(program("print-process"), "x", {}, directory.path(), 600);
  }
};

TEST_F(ShellProcess, SeesThreeDescriptorsAndNoSignalSettings) {
  EXPECT_EQ(printProcess(), Result(0, kCleanProcess));
}

TEST_F(ShellProcess, SeesNoDescriptorThatTheHostHolds) {
  std::vector<int> held;
  for (int count = 0; count < 20; ++count) held.push_back(::open("/dev/null", O_RDONLY));
  const int high = ::fcntl(held.front(), F_DUPFD, 500);
  ASSERT_GE(high, 500);

  EXPECT_EQ(printProcess(), Result(0, kCleanProcess));

  // They are still the host's.
  EXPECT_GE(::fcntl(high, F_GETFD), 0);
}

TEST_F(ShellProcess, StartsWithAnEmptySignalMaskWhateverTheHostBlocks) {
  sigset_t all;
  sigset_t before;
  sigset_t after;
  sigfillset(&all);
  ASSERT_EQ(::pthread_sigmask(SIG_SETMASK, &all, &before), 0);

  EXPECT_EQ(printProcess(), Result(0, kCleanProcess));

  // The host's own mask is as it was.
  ASSERT_EQ(::pthread_sigmask(SIG_SETMASK, &before, &after), 0);
  EXPECT_EQ(sigismember(&after, SIGUSR1), 1);
  EXPECT_EQ(sigismember(&after, SIGTERM), 1);
}

TEST_F(ShellProcess, StartsWithDefaultDispositionsWhateverTheHostIgnores) {
  for (const int signal : {SIGPIPE, SIGTERM, SIGINT, SIGHUP, SIGUSR1, SIGQUIT}) {
    ::signal(signal, SIG_IGN);
  }

  EXPECT_EQ(printProcess(), Result(0, kCleanProcess));

  struct sigaction action {};
  ASSERT_EQ(::sigaction(SIGUSR1, nullptr, &action), 0);
  EXPECT_EQ(action.sa_handler, SIG_IGN);
}

TEST_F(ShellProcess, RunsWhenTheHostHasNoStandardDescriptors) {
  const int saved = ::dup(STDERR_FILENO);
  const int savedOut = ::dup(STDOUT_FILENO);
  ASSERT_EQ(::fcntl(saved, F_SETFD, FD_CLOEXEC), 0);
  ASSERT_EQ(::fcntl(savedOut, F_SETFD, FD_CLOEXEC), 0);
  ::close(STDOUT_FILENO);
  ::close(STDERR_FILENO);

  const Result result = runCommand("echo out; echo err >&2; exit 3");

  ::dup2(savedOut, STDOUT_FILENO);
  ::dup2(saved, STDERR_FILENO);
  EXPECT_EQ(result, Result(3, "out\nerr\n"));
}

// ---- Status ----------------------------------------------------------------------------------

TEST_F(ShellProcess, ReportsItsExitStatus) {
  for (const std::int32_t status : {0, 1, 2, 42, 127, 128, 143, 255}) {
    EXPECT_EQ(runCommand("exit " + std::to_string(status)), Result(status, ""));
  }
}

TEST_F(ShellProcess, ReportsTheNumberOfTheSignalThatEndedIt) {
  for (const std::int32_t signal : {SIGHUP, SIGINT, SIGKILL, SIGUSR1, SIGTERM}) {
    SCOPED_TRACE(signal);
    EXPECT_EQ(runCommand("echo before; kill -" + std::to_string(signal) + " $$"),
              Result(signal, "before\n"));
  }
}

TEST_F(ShellProcess, ReportsNoRawWaitStatusWhenTheHostIgnoresSIGCHLD) {
  ::signal(SIGCHLD, SIG_IGN);

  const auto [status, output] = runCommand("echo ran; exit 3");

  EXPECT_EQ(output, "ran\n");
  // The system may have thrown the status away; then it is -1, which no accepted code stands for.
  EXPECT_THAT(status, testing::Optional(testing::AnyOf(3, -1)));
  struct sigaction action {};
  ASSERT_EQ(::sigaction(SIGCHLD, nullptr, &action), 0);
  EXPECT_EQ(action.sa_handler, SIG_IGN);
}

TEST_F(ShellProcess, IsWaitedForWhileSignalsInterruptTheHost) {
  struct sigaction action {};
  action.sa_handler = [](int) {};
  ASSERT_EQ(::sigaction(SIGUSR1, &action, nullptr), 0);

  // The child interrupts its host again and again, while that waits and while it reads.
  EXPECT_EQ(runCommand("for i in 1 2 3 4 5; do kill -USR1 $PPID; echo $i; kill -USR1 $PPID; "
                       "sleep 0.02; kill -USR1 $PPID; sleep 0.02; done; exit 3"),
            Result(3, "1\n2\n3\n4\n5\n"));
}

// ---- What is left ----------------------------------------------------------------------------

TEST_F(ShellProcess, LeavesNoZombie) {
  EXPECT_EQ(runCommand("exit 3"), Result(3, ""));
  EXPECT_EQ(shell(directory.path(), "x", {}, directory.path(), 600), Result());

  errno = 0;
  EXPECT_EQ(::waitpid(-1, nullptr, WNOHANG), -1);
  EXPECT_EQ(errno, ECHILD);
}

TEST_F(ShellProcess, LeavesNoDescriptorOpen) {
  const auto everyOutcome = [this] {
    static_cast<void>(runCommand("echo x"));
    static_cast<void>(runCommand("exec >&- 2>&-"));
    static_cast<void>(runCommand("kill -9 $$"));
    static_cast<void>(shell(path("missing"), "x", {}, directory.path(), 600));
    static_cast<void>(shell("/bin/true", "x", {}, path("nowhere"), 600));
    static_cast<void>(shell(directory.path(), "x", {}, directory.path(), 0));
  };
  everyOutcome();
  const int before = openDescriptors();
  for (int round = 0; round < 10; ++round) everyOutcome();

  EXPECT_EQ(openDescriptors(), before);
}

TEST_F(ShellProcess, OfAHostWithoutFreeDescriptorsIsNotStarted) {
  rlimit before{};
  ASSERT_EQ(::getrlimit(RLIMIT_NOFILE, &before), 0);
  const int firstFree = ::open("/dev/null", O_RDONLY);
  ::close(firstFree);
  const int held = openDescriptors();
  // None for the pipe, one, and two but none for the descriptor that tells the end.
  for (const rlim_t free : {0U, 1U, 2U}) {
    SCOPED_TRACE(free);
    journal.reset();
    rlimit lowered = before;
    lowered.rlim_cur = static_cast<rlim_t>(firstFree) + free;
    ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &lowered), 0);
    const Result result = runCommand(": > ran");
    ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &before), 0);

    EXPECT_EQ(result, Result());
    EXPECT_EQ(journal.log().back(), line("Launch failed: Too many open files"));
    EXPECT_FALSE(doubles::exists(path("ran")));
    EXPECT_EQ(openDescriptors(), held);
  }
  EXPECT_EQ(runCommand("exit 3"), Result(3, ""));
}

TEST_F(ShellProcess, IsWaitedForAlsoWhenNobodyAsksForItsStatus) {
  namespace platform = VarnScriptRepository::platform;
  std::error_code error;
  const platform::Pipe pipe = platform::makePipe(error);
  ASSERT_FALSE(error);
  const std::string launchPath = "/bin/sh";
  const Texts arguments{"-c", "sleep 0.1; : >ended"};
  {
    const platform::Child child = platform::Child::launch(
        {launchPath, arguments, directory.path(), pipe.writingEnd.get()}, error);
    ASSERT_FALSE(error);
  }
  EXPECT_TRUE(doubles::exists(path("ended")));
  EXPECT_EQ(::waitpid(-1, nullptr, WNOHANG), -1) << "a child is left";
}

TEST_F(ShellProcess, DoesNotReapAChildOfTheHost) {
  const int own = ::fork();
  ASSERT_GE(own, 0);
  if (own == 0) ::_exit(9);

  EXPECT_EQ(runCommand("exit 3"), Result(3, ""));

  int status = 0;
  EXPECT_EQ(::waitpid(own, &status, 0), own);
  EXPECT_EQ(WEXITSTATUS(status), 9);
}

TEST_F(ShellProcess, RunsTwoHundredAtTheSameTime) {
  constexpr std::size_t kRuns = 200;
  std::array<Result, kRuns> results;
  {
    std::vector<std::jthread> threads;
    for (std::size_t index = 0; index < kRuns; ++index) {
      threads.emplace_back([this, &results, index] {
        const std::string number = std::to_string(index);
        results[index] =
            runCommand("echo " + number + "; echo e" + number + " >&2; exit " + number);
      });
    }
  }
  for (std::size_t index = 0; index < kRuns; ++index) {
    const std::string number = std::to_string(index);
    EXPECT_EQ(results[index],
              Result(static_cast<std::int32_t>(index), number + "\ne" + number + "\n"));
  }
  errno = 0;
  EXPECT_EQ(::waitpid(-1, nullptr, WNOHANG), -1);
  EXPECT_EQ(errno, ECHILD);
}

TEST_F(ShellProcess, SurvivesALogThatThrows) {
  for (const auto what : {doubles::Thrown::exception, doubles::Thrown::somethingElse}) {
    journal.reset();
    journal.throwAlways("log", what);
    EXPECT_EQ(runCommand("echo x; exit 3"), Result(3, "x\n"));
    EXPECT_EQ(runCommand("echo x; exec sleep 1000", 1), Result(SIGTERM, "x\n"));
    EXPECT_EQ(shell(path("missing"), "x", {}, directory.path(), 600), Result());
  }
}

}  // namespace
