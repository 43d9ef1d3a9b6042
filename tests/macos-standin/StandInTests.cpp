// The child for macOS at the moments in which that system differs, over the stand-in for it.

#include <gmock/gmock.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <string>
#include <system_error>

#include "RunnerFixture.h"
#include "StandIn.h"
#include "platform/Child.h"

namespace {

using namespace runnertests;
using standin::Watch;
namespace platform = VarnScriptRepository::platform;

class MacOSChild : public RunnerFixture {
 protected:
  platform::Child launch(const std::string& command) const {
    const std::string shell = "/bin/sh";
    std::error_code error;
    const platform::Pipe pipe = platform::makePipe(error);
    EXPECT_FALSE(error);
    platform::Child child = platform::Child::launch(
        {shell, {"-c", command}, directory.path(), pipe.writingEnd.get()}, error);
    EXPECT_FALSE(error);
    return child;
  }
};

TEST_F(MacOSChild, ThatHasStoppedHasNotEnded) {
  platform::Child child = launch("kill -STOP $$; exit 4");
  siginfo_t info{};
  ASSERT_EQ(::waitid(P_ALL, 0, &info, WSTOPPED | WNOWAIT), 0);
  ASSERT_EQ(info.si_code, CLD_STOPPED);

  EXPECT_FALSE(child.hasEnded());

  ASSERT_EQ(::kill(info.si_pid, SIGCONT), 0);
  EXPECT_TRUE(eventually([&] { return child.hasEnded(); }));
  EXPECT_EQ(child.reap(), VarnScriptRepository::platform::EndStatus{4});
}

TEST_F(MacOSChild, WhoseWatchNeverTellsIsAskedFor) {
  standin::watchesAre(Watch::silent);
  {
    platform::Child child = launch("exit 4");
    // A wait on that descriptor would be one for ever.
    ASSERT_EQ(child.endDescriptor(), -1);
    EXPECT_EQ(child.reap(), VarnScriptRepository::platform::EndStatus{4});
  }
  EXPECT_EQ(runCommand("echo text; exit 4"), Result(4, "text\n"));
}

TEST_F(MacOSChild, ThatEndsBeforeItIsWatchedIsAskedFor) {
  standin::watchesAre(Watch::tooLate);
  EXPECT_EQ(runCommand("echo text; exit 4"), Result(4, "text\n"));
}

TEST_F(MacOSChild, OfAHostWithoutADescriptorForTheWatchIsAskedFor) {
  rlimit before{};
  ASSERT_EQ(::getrlimit(RLIMIT_NOFILE, &before), 0);
  const int firstFree = ::dup(STDIN_FILENO);
  ::close(firstFree);
  // Two for the pipe.
  const rlimit lowered{static_cast<rlim_t>(firstFree) + 2, before.rlim_max};
  ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &lowered), 0);
  EXPECT_EQ(runCommand("echo text; sleep 0.1; exit 4"), Result(4, "text\n"));
  ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &before), 0);
}

TEST_F(MacOSChild, WhoseEndIsToldBeforeItCanBeWaitedForLeavesNoZombie) {
  standin::endsAreLate(3);
  EXPECT_EQ(runCommand("exit 4"), Result(4, ""));
  errno = 0;
  EXPECT_EQ(::waitpid(-1, nullptr, WNOHANG), -1);
  EXPECT_EQ(errno, ECHILD);
}

TEST_F(MacOSChild, OfAHostThatIgnoresSIGCHLDIsNotWaitedForWithTheHostsOtherChildren) {
  ::signal(SIGCHLD, SIG_IGN);
  const int other = ::fork();
  ASSERT_GE(other, 0);
  if (other == 0) {
    ::alarm(10);
    while (true) ::pause();
  }

  // Not before it is watched.
  journal.onLog([this](const doubles::LogRecord& record) {
    if (record.message == "availableOutput") doubles::writeFile(path("go"), "");
  });
  const Result result = runCommand("echo text; while [ ! -e go ]; do sleep 0.01; done; exit 4");

  EXPECT_EQ(::kill(other, SIGKILL), 0) << "the host's child was waited for";
  EXPECT_EQ(result, Result(kernelKeepsStatuses() ? 4 : -1, "text\n"));
}

}  // namespace
