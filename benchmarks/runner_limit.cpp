// The limit of every process runner: posix_spawn, read and waitpid, and nothing else. What is read
// is counted and forgotten. With VARN_BENCH_PIPE the pipe and the buffer have that many bytes.

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>

#include "Contestant.h"

namespace {

pid_t start(const bench::RunnerArguments& run, char* const* arguments, int output) {
  posix_spawn_file_actions_t actions;
  ::posix_spawn_file_actions_init(&actions);
  ::posix_spawn_file_actions_addchdir_np(&actions, run.directory.c_str());
  ::posix_spawn_file_actions_adddup2(&actions, output, STDOUT_FILENO);
  ::posix_spawn_file_actions_adddup2(&actions, output, STDERR_FILENO);
  pid_t child = 0;
  if (::posix_spawn(&child, run.program.c_str(), &actions, nullptr, arguments, environ) != 0) {
    bench::fail("posix_spawn");
  }
  ::posix_spawn_file_actions_destroy(&actions);
  return child;
}

}  // namespace

int main(int argc, char** argv) {
  const auto run = bench::runnerArguments(argc, argv);
  const char* const size = std::getenv("VARN_BENCH_PIPE");
  std::vector<char> buffer(size != nullptr ? std::strtoull(size, nullptr, 10) : 65536);
  return bench::serve([&] {
    int ends[2];
    if (::pipe2(ends, O_CLOEXEC) != 0) bench::fail("pipe2");
    if (size != nullptr) ::fcntl(ends[0], F_SETPIPE_SZ, static_cast<int>(buffer.size()));
    // From the program's own name on, argv is what the program is started with.
    const pid_t child = start(run, argv + 3, ends[1]);
    ::close(ends[1]);
    std::size_t length = 0;
    while (true) {
      const ssize_t got = ::read(ends[0], buffer.data(), buffer.size());
      if (got <= 0) break;
      length += static_cast<std::size_t>(got);
    }
    ::close(ends[0]);
    int status = 0;
    if (::waitpid(child, &status, 0) != child || status != 0) bench::fail("the program failed");
    return length;
  });
}
