#include "RunnerFixture.h"

#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/utsname.h>
#include <sys/wait.h>

#include <cerrno>
#include <cstdio>
#include <thread>

namespace runnertests {

std::string program(const std::string& name) {
  return std::string(VARN_TEST_PROGRAMS) + "/varn-" + name;
}

std::string line(const std::string& message) {
  return "info ScriptRepositoryUtil "
         "shell(launchPath:commandPath:arguments:executeInDirectory:timeoutIn:): " +
         message;
}

bool eventually(const std::function<bool()>& condition) {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
  while (!condition()) {
    if (std::chrono::steady_clock::now() > deadline) return false;
    std::this_thread::yield();
  }
  return true;
}

int openDescriptors() {
  int open = 0;
  for (int fd = 0; fd < 1024; ++fd) open += ::fcntl(fd, F_GETFD, 0) >= 0 ? 1 : 0;
  return open;
}

bool kernelKeepsStatuses() {
  utsname system{};
  int major = 0;
  int minor = 0;
  EXPECT_EQ(::uname(&system), 0);
  EXPECT_EQ(std::sscanf(system.release, "%d.%d", &major, &minor), 2);
  return std::pair(major, minor) >= std::pair(6, 15);
}

RunnerFixture::RunnerFixture() {
  ::prctl(PR_SET_CHILD_SUBREAPER, 1);
  journal.reset();
  journal.abbreviate(directory.path(), "<directory>");
}

RunnerFixture::~RunnerFixture() {
  EXPECT_TRUE(eventually([] {
    while (::waitpid(-1, nullptr, WNOHANG) > 0) continue;
    return ::waitpid(-1, nullptr, WNOHANG) < 0 && errno == ECHILD;
  })) << "a descendant is still running";
}

Result RunnerFixture::runCommand(const std::string& command, std::int64_t timeoutIn) const {
  return VarnScriptRepository::shell("/bin/sh", "-c", {command}, directory.path(), timeoutIn);
}

std::string RunnerFixture::entryLine(const std::string& escapedCommand,
                                     std::int64_t timeoutIn) const {
  return line("Execute /bin/sh command: -c, arguments: [\"" + escapedCommand +
              "\"], in directory <directory>, timeoutIn " + std::to_string(timeoutIn));
}

}  // namespace runnertests
