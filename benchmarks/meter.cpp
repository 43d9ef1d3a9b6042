// Runs a whole program, call after call, and answers with what the program took, not with what this
// process did: `meter PROGRAM ARGUMENT...`. The third number is the most memory that one of them
// had, in bytes. A small process does this, because what a child counts as its most memory includes
// that of the process it was started from.

#include <fcntl.h>
#include <spawn.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>

#include "Contestant.h"

namespace {

std::int64_t nanosecondsOf(const timeval& time) {
  return (std::int64_t{time.tv_sec} * 1'000'000 + time.tv_usec) * 1000;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 2) bench::fail("usage: meter PROGRAM ARGUMENT...");
  posix_spawn_file_actions_t actions;
  ::posix_spawn_file_actions_init(&actions);
  ::posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
  ::posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
  ::posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, "/dev/null", O_WRONLY, 0);
  long long count = 0;
  while (std::scanf("%lld", &count) == 1) {
    std::int64_t wall = 0;
    std::int64_t processor = 0;
    long long memory = 0;
    for (long long call = 0; call < count; ++call) {
      const std::int64_t before = bench::nanoseconds(CLOCK_MONOTONIC);
      pid_t child = 0;
      if (::posix_spawnp(&child, argv[1], &actions, nullptr, argv + 1, environ) != 0) {
        bench::fail("posix_spawnp");
      }
      int status = 0;
      rusage usage{};
      if (wait4(child, &status, 0, &usage) != child || status != 0) bench::fail("it failed");
      wall += bench::nanoseconds(CLOCK_MONOTONIC) - before;
      processor += nanosecondsOf(usage.ru_utime) + nanosecondsOf(usage.ru_stime);
      memory = std::max<long long>(memory, usage.ru_maxrss * 1024L);
    }
    std::printf("%lld %lld %lld\n", static_cast<long long>(wall), static_cast<long long>(processor),
                memory);
    std::fflush(stdout);
  }
  return 0;
}
