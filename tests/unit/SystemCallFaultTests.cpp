// What the runner and the reading of files do when the operating system refuses a call, interrupts
// it, or lacks it; and what the runner does at moments that come rarely.

#include <fcntl.h>
#include <gmock/gmock.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <functional>
#include <new>
#include <optional>
#include <string>
#include <system_error>
#include <utility>
#include <vector>

#include "Directories.h"
#include "RunnerFixture.h"
#include "SystemCalls.h"
#include "VarnScriptRepository/ScriptRepositoryHost.h"
#include "VarnScriptRepository/ScriptRepositoryProcessor.h"
#include "VarnScriptRepository/ScriptRunObserver.h"
#include "platform/Child.h"
#include "platform/Memory.h"
#include "support/Files.h"
#include "support/LongText.h"
#include "support/Text.h"

namespace {

using namespace runnertests;
using doubles::ClockAhead;
using doubles::NoMemory;
using doubles::NoPidfd;
using doubles::SystemCallFault;
using testing::Contains;
using testing::Not;
using VarnScriptRepository::LongText;
using VarnScriptRepository::shell;
namespace platform = VarnScriptRepository::platform;

constexpr long kPidfdGetInfo = _IOWR(0xFF, 11, char[64]);

/// Whether one of this process's pipes holds that many bytes.
bool anyDescriptorHolds(int bytes) {
  for (int fd = 0; fd < 256; ++fd) {
    int held = 0;
    if (::ioctl(fd, FIONREAD, &held) == 0 && held == bytes) return true;
  }
  return false;
}

/// Waits until a child of this process has ended, and leaves it to whoever reaps it.
void untilAChildHasEnded() {
  siginfo_t info{};
  EXPECT_EQ(::waitid(P_ALL, 0, &info, WEXITED | WNOWAIT), 0);
}

class SystemCallFaults : public RunnerFixture {
 protected:
  /// Runs a command that goes on after its first line when the runner has taken that, while the
  /// runner is held up by `meanwhile`.
  Result runInTwoParts(const std::string& secondPart, const std::function<void()>& meanwhile) {
    bool first = true;
    journal.onLog([&](const doubles::LogRecord& record) {
      if (record.message != "availableOutput" || !std::exchange(first, false)) return;
      doubles::writeFile(path("go"), "");
      meanwhile();
    });
    Result result =
        runCommand("echo one; while [ ! -e go ]; do sleep 0.01; done; " + secondPart, kLimit);
    journal.onLog({});
    return result;
  }

  static constexpr std::int64_t kLimit = 600;

  /// Expects that nothing could be started, that the log names `words`, and that nothing is left.
  void expectLaunchFails(const SystemCallFault& fault, const std::string& words) {
    const int before = openDescriptors();
    EXPECT_EQ(runCommand("echo ran >ran"), Result());
    EXPECT_GE(fault.met(), 1);
    EXPECT_THAT(journal.log(), Contains(line("Launch failed: " + words)));
    EXPECT_FALSE(doubles::exists(path("ran")));
    EXPECT_EQ(openDescriptors(), before);
    EXPECT_EQ(::waitpid(-1, nullptr, WNOHANG), -1) << "a child is left";
  }
};

// ---- Starts that fail ------------------------------------------------------------------------

TEST_F(SystemCallFaults, WithoutAPipeNothingIsStarted) {
  const SystemCallFault fault("pipe2", EMFILE);
  expectLaunchFails(fault, "Too many open files");
}

TEST_F(SystemCallFaults, WithoutANonBlockingPipeNothingIsStarted) {
  const SystemCallFault fault("fcntl", EPERM, F_SETFL);
  expectLaunchFails(fault, "Operation not permitted");
}

TEST_F(SystemCallFaults, WithoutADescriptorBeyondTheStandardOnesNothingIsStarted) {
  // The pipe gets the number of the closed standard input and has to be moved.
  const int input = ::dup(STDIN_FILENO);
  const int errors = ::dup(STDERR_FILENO);
  ASSERT_GT(input, STDERR_FILENO);
  ASSERT_GT(errors, STDERR_FILENO);
  ASSERT_EQ(::close(STDIN_FILENO), 0);
  {
    const SystemCallFault fault("fcntl", EMFILE, F_DUPFD_CLOEXEC);
    expectLaunchFails(fault, "Too many open files");
  }
  ASSERT_EQ(::close(STDERR_FILENO), 0);
  journal.reset();
  {
    // Both ends have to be moved, and the second one can't be.
    const SystemCallFault fault("fcntl", EMFILE, F_DUPFD_CLOEXEC, 1, 1);
    expectLaunchFails(fault, "Too many open files");
  }
  ASSERT_EQ(::dup2(input, STDIN_FILENO), STDIN_FILENO);
  ASSERT_EQ(::dup2(errors, STDERR_FILENO), STDERR_FILENO);
  ::close(input);
  ::close(errors);
}

TEST_F(SystemCallFaults, WithoutAStackForTheChildNothingIsStarted) {
  const SystemCallFault fault("mmap", ENOMEM);
  static_cast<void>(runCommand("exit 0"));
  if (fault.met() == 0) GTEST_SKIP() << "an earlier test of this process left its stack";
  expectLaunchFails(fault, "Cannot allocate memory");
}

TEST_F(SystemCallFaults, WithoutAProcessNothingIsStarted) {
  const SystemCallFault fault("__clone", EAGAIN);
  expectLaunchFails(fault, "Resource temporarily unavailable");
}

TEST_F(SystemCallFaults, WhatIsNotStartedHasNoProcess) {
  std::error_code error;
  const platform::Program program{"/bin/true", {"/bin/true"}, directory.path(), STDOUT_FILENO};
  for (const char* const call : {"mmap", "__clone"}) {
    const SystemCallFault fault(call, ENOMEM);
    EXPECT_EQ(platform::Child::launch(program, error).processID(), 0) << call;
    EXPECT_EQ(error, std::errc::not_enough_memory) << call;
  }
  const platform::Program withNUL{
      "/bin/true", {std::string(1, '\0')}, directory.path(), STDOUT_FILENO};
  EXPECT_EQ(platform::Child::launch(withNUL, error).processID(), 0);
  EXPECT_EQ(error, std::errc::invalid_argument);
}

TEST_F(SystemCallFaults, AChildThatGetsNoGroupStartsNothing) {
  const SystemCallFault fault("syscall", EPERM, SYS_setpgid);
  expectLaunchFails(fault, "Operation not permitted");
}

TEST_F(SystemCallFaults, AChildThatGetsNoStandardOutputStartsNothing) {
  const SystemCallFault fault("syscall", EBUSY, SYS_dup3, 1);
  expectLaunchFails(fault, "Device or resource busy");
}

TEST_F(SystemCallFaults, AChildThatGetsNoStandardErrorStartsNothing) {
  const SystemCallFault fault("syscall", EBUSY, SYS_dup3, 1, 1);
  expectLaunchFails(fault, "Device or resource busy");
}

TEST_F(SystemCallFaults, ADirectoryWithANULIsNoDirectoryAndALaunchPathNone) {
  EXPECT_EQ(shell("/bin/true", "a", {}, directory.path() + std::string("\0x", 2), 600), Result());
  EXPECT_EQ(shell(std::string("/bin/true\0x", 11), "a", {}, directory.path(), 600), Result());
  EXPECT_EQ(journal.log().size(), 4U);
  EXPECT_EQ(journal.log()[1], line("Launch failed: Invalid argument"));
  EXPECT_EQ(journal.log()[3], line(std::string("Launch path not available: /bin/true\0x", 38)));
}

// ---- Interrupted and refused calls of the wait -----------------------------------------------

TEST_F(SystemCallFaults, AnInterruptedWaitGoesOn) {
  const SystemCallFault fault("poll", EINTR, SystemCallFault::kEveryKind, 3);
  EXPECT_EQ(runCommand("echo text; exit 4"), Result(4, "text\n"));
  EXPECT_GE(fault.met(), 1);
}

TEST_F(SystemCallFaults, AWaitThatIsRefusedIsReplacedByAsking) {
  const SystemCallFault fault("poll", ENOMEM);
  EXPECT_EQ(runCommand("echo text; sleep 0.2; echo more; exit 4"), Result(4, "text\nmore\n"));
  EXPECT_GE(fault.met(), 2);
  // With a pause between two questions: a busy loop would ask many thousand times.
  EXPECT_LE(fault.met(), 2000);
}

TEST_F(SystemCallFaults, AnInterruptedReadIsRepeated) {
  const SystemCallFault fault("read", EINTR, SystemCallFault::kEveryKind, 3);
  EXPECT_EQ(runCommand("echo text"), Result(0, "text\n"));
  EXPECT_EQ(fault.met(), 3);
}

TEST_F(SystemCallFaults, AReadThatFindsNothingIsMadeAgain) {
  // The child goes on when its first line was taken.
  const SystemCallFault fault("read", EAGAIN, SystemCallFault::kEveryKind, 1);
  EXPECT_EQ(runInTwoParts("exit 4", untilAChildHasEnded), Result(4, "one\n"));
  EXPECT_EQ(fault.met(), 1);
}

TEST_F(SystemCallFaults, OutputThatCannotBeReadIsLeftAndTheStatusKept) {
  {
    const SystemCallFault fault("read", EAGAIN);
    EXPECT_EQ(runCommand("echo text; exit 4"), Result(4, ""));
    EXPECT_GE(fault.met(), 1);
  }
  const SystemCallFault fault("read", EIO);
  EXPECT_EQ(runCommand("echo text; exit 4"), Result(4, ""));
  EXPECT_EQ(fault.met(), 1) << "the pipe is given up at the first error";
}

TEST_F(SystemCallFaults, ACharacterThatCannotBeCompletedDropsItsChunk) {
  // The chunk ends inside a character, and the pipe can't be read further. The child ends when its
  // output is not taken any more.
  const SystemCallFault fault("read", EIO, SystemCallFault::kEveryKind, 1, 1);
  EXPECT_EQ(runCommand("trap '' PIPE; while printf 'caf\\303' 2>/dev/null; do sleep 0.01; done; "
                       "exit 4"),
            Result(4, ""));
  EXPECT_EQ(fault.met(), 1);
}

TEST_F(SystemCallFaults, WithoutACountOfHeldBytesWhatThePipeCanHoldIsTaken) {
  {
    const SystemCallFault fault("ioctl", EINVAL, FIONREAD);
    EXPECT_EQ(runInTwoParts("echo two; exit 4", untilAChildHasEnded), Result(4, "one\ntwo\n"));
    EXPECT_EQ(fault.met(), 1);
    // A descendant keeps the pipe open, so that its end does not show.
    EXPECT_EQ(runCommand("sleep 0.2 & exit 4"), Result(4, ""));
  }
  doubles::removeTree(path("go"));
  // A count that is none.
  const SystemCallFault fault("ioctl", 0, FIONREAD, SystemCallFault::kAlways, 0, -1);
  EXPECT_EQ(runInTwoParts("echo two; exit 4", untilAChildHasEnded), Result(4, "one\ntwo\n"));
  EXPECT_EQ(fault.met(), 1);
}

TEST_F(SystemCallFaults, WithoutThePipesSizeItsUsualOneIsTaken) {
  const SystemCallFault fault("fcntl", EINVAL, F_GETPIPE_SZ);
  const auto [status, output] = runCommand("head -c 300000 /dev/zero; exit 4");
  EXPECT_EQ(status, 4);
  EXPECT_EQ(output, std::string(300000, '\0'));
}

TEST_F(SystemCallFaults, AnInterruptedWaitForTheStatusIsRepeated) {
  {
    const SystemCallFault fault("waitpid", EINTR, SystemCallFault::kEveryKind, 3);
    EXPECT_EQ(runCommand("exit 4"), Result(4, ""));
    EXPECT_EQ(fault.met(), 3);
  }
  // Without a pidfd the end is asked for.
  const NoPidfd kernel;
  const SystemCallFault fault("waitid", EINTR, SystemCallFault::kEveryKind, 3);
  EXPECT_EQ(runCommand("exit 4"), Result(4, ""));
  EXPECT_EQ(fault.met(), 3);
}

TEST_F(SystemCallFaults, AWaitThatIsRefusedDoesNotNeedThePipe) {
  const SystemCallFault fault("poll", ENOMEM);
  EXPECT_EQ(runCommand("echo text; exec >&- 2>&-; sleep 0.2; exit 4"), Result(4, "text\n"));
  EXPECT_GE(fault.met(), 2);
}

// ---- Moments of the wait ---------------------------------------------------------------------

TEST_F(SystemCallFaults, APipeGrowsForAChildThatHasFilledItAndForNoOther) {
  const SystemCallFault fault("fcntl", EPERM, F_SETPIPE_SZ);
  EXPECT_EQ(runCommand("echo text; echo more; exit 4"), Result(4, "text\nmore\n"));
  EXPECT_EQ(fault.met(), 0);
  const auto [status, output] = runInTwoParts(
      "head -c 65536 /dev/zero; : >filled; head -c 1 /dev/zero; exit 4",
      [&] { EXPECT_TRUE(eventually([&] { return doubles::exists(path("filled")); })); });
  EXPECT_EQ(status, 4);
  EXPECT_EQ(output, "one\n" + std::string(65537, '\0'));
  EXPECT_EQ(fault.met(), 1);
}

TEST_F(SystemCallFaults, WhatThePipeStillHoldsWhenTheChildHasEndedIsTaken) {
  EXPECT_EQ(runInTwoParts("echo two; exit 4", untilAChildHasEnded), Result(4, "one\ntwo\n"));
}

TEST_F(SystemCallFaults, WhatComesAfterTheLookAtTheEndedChildsPipeIsNotTaken) {
  // Two bytes were there at the look, the others come while they are read.
  const SystemCallFault look("ioctl", 0, FIONREAD, 1, 0, 2);
  EXPECT_EQ(runInTwoParts("echo two; exit 4", untilAChildHasEnded), Result(4, "one\ntw"));
  EXPECT_EQ(look.met(), 1);
}

TEST_F(SystemCallFaults, NoMoreIsReadAfterTheEndThanThePipeHeldThen) {
  // The runner is held up at each chunk until the descendant has filled the pipe again.
  constexpr int full = 65536;
  journal.onLog([this](const doubles::LogRecord& record) {
    if (record.message != "availableOutput") return;
    doubles::writeFile(path("go"), "");
    untilAChildHasEnded();
    EXPECT_TRUE(eventually([] { return anyDescriptorHolds(full); }));
  });
  const auto [status, output] =
      runCommand("echo one; while [ ! -e go ]; do sleep 0.01; done; cat /dev/zero & exit 4");
  journal.onLog({});
  EXPECT_EQ(status, 4);
  ASSERT_TRUE(output);
  EXPECT_EQ(output->size(), 4U + full);
}

TEST_F(SystemCallFaults, AChildIsWaitedForByWhoeverHasItLast) {
  std::error_code error;
  const platform::Pipe pipe = platform::makePipe(error);
  ASSERT_FALSE(error);
  const std::string program = "/bin/true";
  const Texts arguments;
  const std::string root = "/";
  auto first = std::make_optional(
      platform::Child::launch({program, arguments, root, pipe.writingEnd.get()}, error));
  ASSERT_FALSE(error);
  platform::Child last(std::move(*first));
  {
    const SystemCallFault wait("waitpid", ECHILD);
    first.reset();
    EXPECT_EQ(wait.met(), 0);
  }
  EXPECT_EQ(last.reap(), platform::EndStatus{0});
}

TEST_F(SystemCallFaults, APipeThatDoesNotTellHasTheUsualCapacity) {
  EXPECT_EQ(platform::pipeCapacity(-1), 65536U);
}

TEST_F(SystemCallFaults, TheStackOfOneChildIsThatOfTheNext) {
  EXPECT_EQ(runCommand("exit 4"), Result(4, ""));
  const SystemCallFault fault("mmap", ENOMEM);
  EXPECT_EQ(runCommand("exit 5"), Result(5, ""));
  EXPECT_EQ(fault.met(), 0);
}

TEST_F(SystemCallFaults, AChildIsStartedWithEverySignalBlockedAndTheMaskComesBack) {
  // A handler of the host's would run in the child, in the host's memory.
  sigset_t before;
  sigemptyset(&before);
  sigaddset(&before, SIGUSR2);
  ASSERT_EQ(::pthread_sigmask(SIG_SETMASK, &before, nullptr), 0);
  EXPECT_EQ(runCommand("exit 4"), Result(4, ""));
  const sigset_t atStart = doubles::signalMaskAtLastStart();
  sigset_t after;
  ASSERT_EQ(::pthread_sigmask(SIG_SETMASK, nullptr, &after), 0);
  for (int signal = 1; signal <= SIGRTMAX; ++signal) {
    // The C library keeps some for itself and blocks them for nobody.
    if (signal >= 32 && signal < SIGRTMIN) continue;
    EXPECT_EQ(sigismember(&after, signal), signal == SIGUSR2 ? 1 : 0) << signal;
    if (signal == SIGKILL || signal == SIGSTOP) continue;
    EXPECT_EQ(sigismember(&atStart, signal), 1) << signal;
  }
}

TEST_F(SystemCallFaults, ACharacterThatAnEndedChildBeganIsNotWaitedFor) {
  // A descendant keeps the pipe open, so that its end does not show.
  EXPECT_EQ(runInTwoParts("while [ ! -e stop ]; do sleep 0.01; done & printf 'caf\\303'; exit 4",
                          untilAChildHasEnded),
            Result(4, "one\n"));
  doubles::writeFile(path("stop"), "");
}

TEST_F(SystemCallFaults, ALimitThatPassesIsFollowedByASIGTERM) {
  std::optional<ClockAhead> clock;
  EXPECT_EQ(runInTwoParts("sleep 100", [&] { clock.emplace(std::chrono::seconds(kLimit)); }),
            Result(SIGTERM, "one\n"));
  EXPECT_THAT(journal.log(), Contains(line("shell: Killing process due to 600s time-out")));
}

TEST_F(SystemCallFaults, ATimeInWhichTheComputerSleptDoesNotCount) {
  std::optional<ClockAhead> clock;
  EXPECT_EQ(
      runInTwoParts("sleep 0.1; echo two; exit 4",
                    [&] { clock.emplace(std::chrono::seconds(kLimit), ClockAhead::After::sleep); }),
      Result(4, "one\ntwo\n"));
  EXPECT_THAT(journal.log(), Not(Contains(line("shell: Killing process due to 600s time-out"))));
}

TEST_F(SystemCallFaults, ALimitThatPassesAfterTheChildHasEndedIsNoTimeOut) {
  std::optional<ClockAhead> clock;
  EXPECT_EQ(runInTwoParts("exit 4",
                          [&] {
                            untilAChildHasEnded();
                            clock.emplace(std::chrono::seconds(kLimit));
                          }),
            Result(4, "one\n"));
  EXPECT_THAT(journal.log(), Not(Contains(line("shell: Killing process due to 600s time-out"))));
}

TEST_F(SystemCallFaults, OutputThatIsReadAfterTheLimitIsJudgedAsEver) {
  const std::pair<const char*, const char*> rows[] = {{"two", "one\ntwo"}, {"caf\\303", "one\n"}};
  for (const auto& [bytes, output] : rows) {
    SCOPED_TRACE(bytes);
    std::optional<ClockAhead> clock;
    EXPECT_EQ(runInTwoParts(std::string("printf '") + bytes + "'; exit 4",
                            [&] {
                              untilAChildHasEnded();
                              clock.emplace(std::chrono::seconds(kLimit));
                            }),
              Result(4, output));
    doubles::removeTree(path("go"));
  }
}

class LimitOfARequest : public doubles::AgentFixture {};

TEST_F(LimitOfARequest, EndsTheScriptWhoseResultIsJudgedAsEver) {
  const std::string script = "echo before; exec sleep 1000";
  doubles::DataDocument document;
  document.checksumVal = std::to_string(script.size());
  downloads.serve("/client-data/7/scriptrepo/scripts-meta.xml",
                  doubles::metadataDocument(doubles::metadataEntry("42", "5")));
  downloads.serve("/client-data/7/scriptrepo/42.xml", document.text());
  downloads.serve("scripts/42/clean.sh", script);
  for (const bool accepted : {true, false}) {
    VarnScriptRepository::ScriptRepositoryProcessor processor("42");
    if (accepted) processor.overrideExpectedReturnCode = {std::to_string(SIGTERM)};
    std::optional<ClockAhead> clock;
    journal.reset();
    journal.onLog([&](const doubles::LogRecord& record) {
      if (record.message == "availableOutput") clock.emplace(std::chrono::seconds(600));
    });

    EXPECT_EQ(processor.processScript(),
              VarnScriptRepository::ProcessingResult(accepted, "before\n"));

    EXPECT_THAT(journal.log(), Contains(line("shell: Killing process due to 600s time-out")));
    EXPECT_THAT(journal.log(),
                Contains("info ScriptRepositoryProcessor executeScript(scriptData:): "
                         "Script Output: before\n Exit Code: 15"));
  }
}

// ---- Pipes -----------------------------------------------------------------------------------

TEST_F(SystemCallFaults, APipeThatHoldsMoreThanWantedIsLeftAlone) {
  std::error_code error;
  const platform::Pipe pipe = platform::makePipe(error);
  ASSERT_FALSE(error);
  constexpr int large = 1024 * 1024;
  if (::fcntl(pipe.readingEnd.get(), F_SETPIPE_SZ, large) != large) {
    GTEST_SKIP() << "this user has no such pipes";
  }
  platform::enlargePipe(pipe.readingEnd.get());
  EXPECT_EQ(platform::pipeCapacity(pipe.readingEnd.get()), std::size_t{large});
}

// ---- Kernels that lack something -------------------------------------------------------------

TEST_F(SystemCallFaults, WithoutAPidfdTheEndIsAskedFor) {
  const NoPidfd kernel;
  EXPECT_EQ(runCommand("echo text; sleep 0.1; echo more; exit 4"), Result(4, "text\nmore\n"));
  EXPECT_EQ(runCommand("exec >&- 2>&-; exit 4"), Result(4, ""));
  EXPECT_EQ(runCommand("kill -9 $$", 600), Result(9, ""));
  EXPECT_EQ(runCommand("sleep 100", 1), Result(15, ""));
}

TEST_F(SystemCallFaults, WithADescriptorThatIsNoneTheEndIsAskedFor) {
  constexpr int closed = 200;
  ASSERT_EQ(::fcntl(closed, F_GETFD, 0), -1);
  const NoPidfd kernel(closed);
  EXPECT_EQ(runCommand("echo text; sleep 0.1; echo more; exit 4"), Result(4, "text\nmore\n"));
  EXPECT_EQ(runCommand("exec >&- 2>&-; sleep 0.1; exit 4"), Result(4, ""));
  EXPECT_EQ(runCommand("sleep 100", 1), Result(15, ""));
}

TEST_F(SystemCallFaults, WithCloseRangeNothingElseIsTried) {
  const SystemCallFault list("syscall", EIO, SYS_getdents64);
  const SystemCallFault closing("syscall", 0, SYS_close);
  EXPECT_EQ(runCommand("exit 4"), Result(4, ""));
  EXPECT_EQ(list.met() + closing.met(), 0);
}

TEST_F(SystemCallFaults, WithoutCloseRangeWhatIsOpenIsClosedAndNothingElseIsTried) {
  const int inherited = ::fcntl(STDERR_FILENO, F_DUPFD, 40);
  ASSERT_GE(inherited, 40);
  const std::string look = "[ -e /proc/self/fd/" + std::to_string(inherited) + " ] || echo closed";
  const SystemCallFault fault("syscall", ENOSYS, SYS_close_range);
  EXPECT_EQ(runCommand(look), Result(0, "closed\n"));
  EXPECT_EQ(fault.met(), 1);

  // None of these is made, and all are counted.
  const int open = openDescriptors();
  const SystemCallFault closing("syscall", 0, SYS_close);
  EXPECT_EQ(runCommand("exit 4"), Result(4, ""));
  EXPECT_LE(closing.met(), open + 5);
  ::close(inherited);
}

TEST_F(SystemCallFaults, WithoutCloseRangeADescriptorIsClosedThoughTheTableIsFull) {
  rlimit before{};
  ASSERT_EQ(::getrlimit(RLIMIT_NOFILE, &before), 0);
  const rlimit few{64, before.rlim_max};
  ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &few), 0);
  std::vector<int> inherited;
  // All but the pipe's two and the pidfd.
  while (inherited.empty() || inherited.back() < 60) {
    inherited.push_back(::fcntl(STDERR_FILENO, F_DUPFD, 3));
    ASSERT_GE(inherited.back(), 0);
  }
  const SystemCallFault fault("syscall", ENOSYS, SYS_close_range);
  EXPECT_EQ(runCommand("cd /proc/self/fd && echo *").second, "0 1 2 3\n");
  EXPECT_EQ(fault.met(), 1);
  for (const int fd : inherited) ::close(fd);
  ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &before), 0);
}

TEST_F(SystemCallFaults, WithoutAListOfWhatIsOpenDescriptorsAreClosedOneByOne) {
  const int inherited = ::fcntl(STDERR_FILENO, F_DUPFD, 40);
  ASSERT_GE(inherited, 40);
  const std::string look = "[ -e /proc/self/fd/" + std::to_string(inherited) + " ] || echo closed";
  const SystemCallFault fault("syscall", ENOSYS, SYS_close_range);
  {
    const SystemCallFault list("syscall", ENOENT, SYS_openat);
    EXPECT_EQ(runCommand(look), Result(0, "closed\n"));
    EXPECT_EQ(list.met(), 1);
    // As many as there usually are where the limit is not known.
    const SystemCallFault limit("syscall", EINVAL, SYS_prlimit64);
    EXPECT_EQ(runCommand(look), Result(0, "closed\n"));
    EXPECT_EQ(limit.met(), 1);
  }
  // A list that can't be read.
  const SystemCallFault list("syscall", EIO, SYS_getdents64);
  EXPECT_EQ(runCommand(look), Result(0, "closed\n"));
  EXPECT_EQ(list.met(), 1);
  ::close(inherited);
}

/// SIGCHLD ignored, for as long as the object lives: ended children are gone at once.
class SIGCHLDIgnored {
 public:
  SIGCHLDIgnored() : before_(::signal(SIGCHLD, SIG_IGN)) {}
  SIGCHLDIgnored(const SIGCHLDIgnored&) = delete;
  SIGCHLDIgnored& operator=(const SIGCHLDIgnored&) = delete;
  ~SIGCHLDIgnored() { ::signal(SIGCHLD, before_); }

 private:
  void (*before_)(int);
};

TEST_F(SystemCallFaults, AStatusThatNobodyKeepsIsLost) {
  const SIGCHLDIgnored host;
  {
    const NoPidfd kernel;
    EXPECT_EQ(runCommand("echo text; exit 4"), Result(-1, "text\n"));
  }
  {
    const SystemCallFault fault("ioctl", ENOTTY, kPidfdGetInfo);
    EXPECT_EQ(runCommand("echo text; exit 4"), Result(-1, "text\n"));
    EXPECT_EQ(fault.met(), 1);
  }
  // Answered without the status, although it was asked for.
  const SystemCallFault fault("ioctl", 0, kPidfdGetInfo);
  EXPECT_EQ(runCommand("exit 4"), Result(-1, ""));
  EXPECT_EQ(fault.met(), 1);
}

TEST_F(SystemCallFaults, AStatusThatTheKernelKeepsIsTaken) {
  if (!kernelKeepsStatuses()) GTEST_SKIP() << "this kernel keeps none";

  const SIGCHLDIgnored host;
  EXPECT_EQ(runCommand("echo text; exit 4"), Result(4, "text\n"));
  EXPECT_EQ(runCommand("kill -9 $$"), Result(9, ""));
}

TEST_F(SystemCallFaults, AStatusThatTheKernelKeepsIsTakenWithStandardInputClosed) {
  if (!kernelKeepsStatuses()) GTEST_SKIP() << "this kernel keeps none";

  const SIGCHLDIgnored host;
  const int standardInput = ::dup(STDIN_FILENO);
  // The child's end is watched through descriptor 0 then.
  ::close(STDIN_FILENO);
  const Result result = runCommand("exit 4");
  ::dup2(standardInput, STDIN_FILENO);
  ::close(standardInput);
  EXPECT_EQ(result, Result(4, ""));
}

// ---- Memory ----------------------------------------------------------------------------------

constexpr std::size_t kMiB = std::size_t{1} << 20;

TEST_F(SystemCallFaults, WithoutMemoryForChunksNothingIsStarted) {
  Result result(0, "");
  {
    const NoMemory memory(65536);
    result = runCommand("echo ran >ran");
  }
  EXPECT_EQ(result, Result());
  EXPECT_THAT(journal.log(), testing::ElementsAre(entryLine("echo ran >ran", 600),
                                                  line("Launch failed: Cannot allocate memory")));
  EXPECT_FALSE(doubles::exists(path("ran")));
}

TEST_F(SystemCallFaults, WithoutMemoryForLargerChunksOutputIsTakenInSmallOnes) {
  std::optional<NoMemory> memory;
  // What stands in the pipe when the runner goes on fills it, so that more is expected.
  const Result result =
      runInTwoParts("head -c 65536 /dev/zero; : >filled; head -c 134464 /dev/zero; exit 4", [&] {
        static_cast<void>(eventually([&] { return doubles::exists(path("filled")); }));
        memory.emplace(kMiB / 2);
      });
  memory.reset();
  EXPECT_EQ(result, Result(4, "one\n" + std::string(200000, '\0')));
  EXPECT_GE(std::ranges::count(journal.log(), line("availableOutput")), 1 + 4);
}

TEST_F(SystemCallFaults, OutputThatThereIsNoMemoryForIsCountedAsLost) {
  using VarnScriptRepository::ScriptEnd;
  struct Watch : VarnScriptRepository::ScriptRunObserver {
    void processEnded() override { memory.reset(); }
    void scriptEnded(const ScriptEnd& end) override {
      bytes = {end.outputBytes, end.droppedBytes, end.lostBytes};
    }
    std::optional<NoMemory> memory;
    std::array<std::uint64_t, 3> bytes{};
  } watch;
  VarnScriptRepository::setScriptRunObserver(&watch);
  journal.onLog([&](const doubles::LogRecord& record) {
    if (record.message == "availableOutput") watch.memory.emplace(64);
  });
  const Result result = runCommand("head -c 4000 /dev/zero");
  journal.onLog({});
  VarnScriptRepository::setScriptRunObserver(nullptr);
  EXPECT_EQ(result, Result(0, ""));
  EXPECT_THAT(watch.bytes, testing::ElementsAre(0, 0, 4000));
}

TEST(LongTextFaults, LessRoomThanWantedIsEnough) {
  // Texts for which little room is wanted at first, and much.
  for (const auto& [size, refused] :
       {std::pair(2 * kMiB, 16 * kMiB), std::pair(20 * kMiB, 64 * kMiB)}) {
    const std::string piece(size, 'x');
    LongText text;
    bool taken = false;
    {
      const NoMemory memory(refused);
      taken = text.append(piece) && text.append(piece);
    }
    EXPECT_TRUE(taken);
    EXPECT_TRUE(text.take() == piece + piece);
  }
}

TEST(LongTextFaults, WithoutMemoryATextStaysAsItIsAndGoesOnLater) {
  for (const std::size_t size : {2 * kMiB, 20 * kMiB}) {
    const std::string piece(size, 'x');
    LongText text;
    ASSERT_TRUE(text.append("a"));
    bool refused = false;
    {
      const NoMemory memory(kMiB);
      refused = !text.append(piece) && !text.append(piece);
    }
    EXPECT_TRUE(refused);
    EXPECT_TRUE(text.append("b"));
    EXPECT_TRUE(text.append(piece));
    EXPECT_TRUE(text.take() == "ab" + piece);
  }
}

TEST(LargePages, AreAskedForWhereOneHasRoomAndDoNotMatter) {
  std::string memory(8 * kMiB, 'x');
  const SystemCallFault fault("madvise", EINVAL);
  errno = E2BIG;
  platform::useLargePages(memory.data(), 2 * kMiB - 1);
  EXPECT_EQ(fault.met(), 0);
  platform::useLargePages(memory.data(), memory.size());
  EXPECT_EQ(errno, E2BIG);
  EXPECT_EQ(fault.met(), 1);
  EXPECT_TRUE(memory == std::string(8 * kMiB, 'x'));
}

TEST(LargePages, AreAskedForByALongTextAndByALargeFile) {
  const SystemCallFault fault("madvise", EINVAL);
  LongText text;
  EXPECT_TRUE(text.append(std::string(2 * kMiB, 'x')));
  EXPECT_EQ(fault.met(), 1);
  const TemporaryDirectory directory;
  doubles::writeFile(directory.path() + "/large", text.take());
  std::error_code error;
  EXPECT_EQ(VarnScriptRepository::files::readWhole(directory.path() + "/large", error).size(),
            2 * kMiB);
  EXPECT_FALSE(error);
}

class MemoryFaults : public doubles::AgentFixture {};

TEST_F(MemoryFaults, AProcessorWithoutMemoryForItsRequestProcessesNothing) {
  std::optional<VarnScriptRepository::ScriptRepositoryProcessor> processor;
  const std::string id = "42";
  // The directories' texts are there from now on; the request alone has no memory.
  static_cast<void>(VarnScriptRepository::scriptRepoDataDirectory());
  static_cast<void>(VarnScriptRepository::scriptRepoScriptsDirectory());
  {
    const NoMemory memory;
    processor.emplace(id);
  }
  EXPECT_EQ(processor->processScript(), VarnScriptRepository::ProcessingResult());
  EXPECT_TRUE(journal.entries().empty());
}

TEST_F(MemoryFaults, AFileIsNotTakenWithoutMemoryAndNotHeldForTakenLater) {
  using VarnScriptRepository::ScriptTurn;
  ScriptTurn turn({.mayWait = false});
  ScriptTurn other({.mayWait = false});
  std::error_code error;
  turn.take({"42"}, error);
  ASSERT_EQ(error, std::error_code());
  other.take({"43"}, error);
  ASSERT_EQ(error, std::error_code());

  int failures = 0;
  for (; failures < 100; ++failures) {
    {
      const NoMemory memory(0, failures);
      turn.takeFile("job.sh", error);
    }
    if (!error) break;
    EXPECT_EQ(error, std::errc::not_enough_memory) << failures;
    EXPECT_TRUE(other.tryTakeFile("job.sh")) << failures;
    EXPECT_FALSE(turn.tryTakeFile("job.sh")) << failures;
    other.leaveFile("job.sh");
  }
  // The place of the thread and that of the process are the last ones.
  EXPECT_GE(failures, 2);
  EXPECT_FALSE(other.tryTakeFile("job.sh"));
}

TEST_F(MemoryFaults, AHostsRemovalWithoutMemoryForTheStoreRemovesNothingAndSaysSo) {
  using namespace VarnScriptRepository;
  downloads.serve("/client-data/7/scriptrepo/scripts-meta.xml", doubles::metadataDocument(""));
  ASSERT_TRUE(reloadServerList());
  ScriptTurn turn;
  // All that is made once is there from now on.
  ScriptRemoval removal = removeDroppedScripts(turn);
  ASSERT_EQ(removal.reason, "");
  store.rows["41"] = {{"version", "5"}};
  {
    // Its object is the first that is made.
    const NoMemory memory(0, 0, 1);
    removal = removeDroppedScripts(turn);
  }
  EXPECT_NE(removal.reason, "");
  EXPECT_TRUE(store.rows.contains("41"));
}

class TurnFaults : public doubles::AgentFixture {};

TEST_F(TurnFaults, WhoDoesNotWaitTriesOnce) {
  VarnScriptRepository::ScriptTurn turn({.mayWait = false});
  std::error_code error;
  const SystemCallFault taken("fcntl", EAGAIN, F_SETLK);
  turn.take({"42"}, error);
  EXPECT_EQ(error, std::errc::resource_unavailable_try_again);
  EXPECT_EQ(taken.met(), 1);
  // Whoever had it has given it up since.
  EXPECT_EQ(turn.holder(), 0);
}

TEST_F(TurnFaults, AShortWaitIsNotReported) {
  int reported = 0;
  VarnScriptRepository::ScriptTurn turn({.reported = [&](int) { ++reported; }});
  std::error_code error;
  const SystemCallFault taken("fcntl", EAGAIN, F_SETLK, 3);
  turn.take({"42"}, error);
  EXPECT_EQ(error, std::error_code());
  EXPECT_EQ(taken.met(), 3);
  EXPECT_EQ(reported, 0);
}

TEST_F(TurnFaults, ALongWaitIsReportedOnce) {
  int reported = 0;
  VarnScriptRepository::ScriptTurn turn({.reported = [&](int) { ++reported; }});
  std::error_code error;
  const SystemCallFault taken("fcntl", EAGAIN, F_SETLK, 30);
  const SystemCallFault waited("fcntl", EDEADLK, F_SETLKW, 1);
  turn.take({"42"}, error);
  EXPECT_EQ(error, std::error_code());
  EXPECT_EQ(taken.met(), 30);
  EXPECT_EQ(waited.met(), 1);
  EXPECT_EQ(reported, 1);
}

TEST_F(MemoryFaults, ADirectorysTextThrowsOnItsFirstUseAndIsThereTheNextTime) {
  using VarnScriptRepository::ScriptRepositoryProcessor;
  struct Row {
    const std::string& (*text)();
    std::string expected;
  };
  const Row rows[] = {{VarnScriptRepository::basePath, directory.path() + "/agent"},
                      {VarnScriptRepository::customerID, "7"},
                      {VarnScriptRepository::scriptRepoDataDirectory, dataDirectory},
                      {VarnScriptRepository::scriptRepoScriptsDirectory, scriptsDirectory}};
  for (const Row& row : rows) {
    {
      const NoMemory memory;
      EXPECT_THROW(static_cast<void>(row.text()), std::bad_alloc) << row.expected;
    }
    EXPECT_EQ(row.text(), row.expected);
  }
}

TEST_F(MemoryFaults, TextsThatCannotBeComparedForWantOfMemoryAreAnError) {
  namespace text = VarnScriptRepository::text;
  const SystemCallFault fault("utf8proc_map", 0);
  EXPECT_THROW(static_cast<void>(text::equal("caf\u00e9", "cafe\u0301")), std::bad_alloc);
  EXPECT_EQ(fault.met(), 1);
}

// ---- Files -----------------------------------------------------------------------------------

namespace files = VarnScriptRepository::files;

TEST_F(SystemCallFaults, AnInterruptedReadOfAFileIsRepeated) {
  doubles::writeFile(path("file"), "content");
  std::error_code error;
  for (const char* call : {"open", "read"}) {
    const SystemCallFault fault(call, EINTR, SystemCallFault::kEveryKind, 3);
    EXPECT_EQ(files::readWhole(path("file"), error), "content");
    EXPECT_FALSE(error);
    EXPECT_EQ(fault.met(), 3);
  }
}

TEST_F(SystemCallFaults, AFileThatCannotBeReadToItsEndIsAnError) {
  doubles::writeFile(path("file"), "content");
  const int before = openDescriptors();
  std::error_code error;
  for (const char* call : {"open", "fstat", "read"}) {
    const SystemCallFault fault(call, EIO);
    EXPECT_EQ(files::readWhole(path("file"), error), "");
    EXPECT_EQ(error, std::errc::io_error);
  }
  {
    // What came before the error counts as little as what did not come.
    const SystemCallFault fault("read", EIO, SystemCallFault::kEveryKind, 1, 1);
    EXPECT_EQ(files::readWhole(path("file"), error), "");
    EXPECT_EQ(error, std::errc::io_error);
  }
  EXPECT_EQ(openDescriptors(), before);
}

TEST_F(SystemCallFaults, AnInterruptedOpeningOfADirectoryIsRepeated) {
  doubles::writeFile(path("tree/file"), "");
  std::error_code error;
  const SystemCallFault fault("openat", EINTR, SystemCallFault::kEveryKind, 3);
  files::removeItem(path("tree"), error);
  EXPECT_FALSE(error);
  EXPECT_EQ(fault.met(), 3);
}

TEST_F(SystemCallFaults, ADirectoryGoesWhateverTheSystemAnswersForIt) {
  for (const int answer : {EISDIR, EPERM}) {
    const std::string name = path("directory");
    doubles::makeDirectories(name);
    const SystemCallFault fault("unlinkat", answer, 0);
    std::error_code error;
    files::removeItem(name, error);
    EXPECT_EQ(error, std::error_code()) << answer;
    EXPECT_GE(fault.met(), 1);
    EXPECT_FALSE(doubles::exists(name));
  }
  // Any other answer is why it stays.
  doubles::writeFile(path("file"), "");
  const SystemCallFault fault("unlinkat", EBUSY, 0);
  std::error_code error;
  files::removeItem(path("file"), error);
  EXPECT_EQ(error, std::errc::device_or_resource_busy);
}

TEST_F(SystemCallFaults, ADirectoryThatBecomesALinkDuringItsRemovalTakesNothingElseAway) {
  doubles::writeFile(path("kept/file"), "text");
  for (const char* const swapped : {"tree", "tree/inner", "tree/inner/last"}) {
    doubles::writeFile(path("tree/inner/last/file"), "");
    const doubles::BeforeOpenat swap([&](const std::string& name) {
      if (!path(swapped).ends_with(name)) return;
      ::rename(path(swapped).c_str(), path("aside").c_str());
      ASSERT_EQ(::symlink(path("kept").c_str(), path(swapped).c_str()), 0);
    });
    std::error_code error;
    files::removeItem(path("tree"), error);
    EXPECT_EQ(error, std::errc::not_a_directory) << swapped;
    EXPECT_EQ(doubles::readFile(path("kept/file")), "text");
    doubles::removeTree(path("tree"));
    doubles::removeTree(path("aside"));
  }
}

TEST_F(SystemCallFaults, ADirectoryThatIsMovedDuringItsRemovalTakesNothingElseAway) {
  doubles::writeFile(path("kept/file"), "text");
  doubles::writeFile(path("tree/inner/file"), "");
  const doubles::BeforeOpenat move([&](const std::string& name) {
    if (name == "..") ::rename(path("tree/inner").c_str(), path("kept/inner").c_str());
  });
  std::error_code error;
  files::removeItem(path("tree"), error);
  EXPECT_EQ(error, std::errc::no_such_file_or_directory);
  EXPECT_EQ(doubles::readFile(path("kept/file")), "text");
}

TEST_F(SystemCallFaults, ErrorsHaveTheirWordsInThePlainLocaleAndTheCallerHasItsOwnAgain) {
  const locale_t before = ::uselocale(nullptr);
  const doubles::LocalesSet set;
  EXPECT_EQ(files::description(std::make_error_code(std::errc::io_error)), "Input/output error");
  EXPECT_EQ(files::description(std::make_error_code(std::errc::no_such_file_or_directory)),
            "No such file or directory");
  const std::vector<locale_t> all = set.all();
  ASSERT_EQ(all.size(), 4U);
  EXPECT_NE(all[0], before);
  EXPECT_NE(all[0], nullptr);
  EXPECT_EQ(all[1], before);
  EXPECT_EQ(all[2], all[0]);
  EXPECT_EQ(all[3], before);
}

TEST_F(SystemCallFaults, WithoutAPlainLocaleErrorsHaveWordsStill) {
  const SystemCallFault fault("newlocale", ENOMEM);
  EXPECT_EQ(files::description(std::make_error_code(std::errc::io_error)), "Input/output error");
  if (fault.met() == 0) GTEST_SKIP() << "an earlier test of this process made it";
}

}  // namespace
