// What every measured program has in common: it is told on standard input how many calls of its
// work to make, makes them, and answers with what they took. bench.py starts the programs and lets
// them take turns.

#pragma once

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <string>
#include <vector>

namespace bench {

inline std::int64_t nanoseconds(clockid_t clock) {
  timespec now{};
  ::clock_gettime(clock, &now);
  return std::int64_t{now.tv_sec} * 1'000'000'000 + now.tv_nsec;
}

/// Answers each line "COUNT" with "WALL PROCESSOR RESULT": the nanoseconds that COUNT calls of
/// `work` took, those that this process had a processor for, and what the last call returned.
/// `prepare` is called before each call of `work` and not counted.
template <class Work, class Prepare>
int serve(Work work, Prepare prepare) {
  long long count = 0;
  while (std::scanf("%lld", &count) == 1) {
    std::int64_t wall = 0;
    std::int64_t processor = 0;
    long long result = 0;
    for (long long call = 0; call < count; ++call) {
      prepare();
      const std::int64_t processorBefore = nanoseconds(CLOCK_PROCESS_CPUTIME_ID);
      const std::int64_t wallBefore = nanoseconds(CLOCK_MONOTONIC);
      result = static_cast<long long>(work());
      wall += nanoseconds(CLOCK_MONOTONIC) - wallBefore;
      processor += nanoseconds(CLOCK_PROCESS_CPUTIME_ID) - processorBefore;
    }
    std::printf("%lld %lld %lld\n", static_cast<long long>(wall), static_cast<long long>(processor),
                result);
    std::fflush(stdout);
  }
  return 0;
}

template <class Work>
int serve(Work work) {
  return serve(work, [] {});
}

[[noreturn]] inline void fail(const std::string& what) {
  std::fprintf(stderr, "%s\n", what.c_str());
  std::exit(2);
}

/// The arguments of a program that runs another one: TOUCH DIRECTORY PROGRAM ARGUMENT...
struct RunnerArguments {
  std::vector<char> touched;  ///< memory of this process, TOUCH bytes, every page in use
  std::string directory;
  std::string program;
  std::vector<std::string> arguments;
};

inline RunnerArguments runnerArguments(int argc, char** argv) {
  if (argc < 5) fail("usage: TOUCH DIRECTORY PROGRAM ARGUMENT...");
  return {std::vector<char>(std::strtoull(argv[1], nullptr, 10), 1),
          argv[2],
          argv[3],
          {argv + 4, argv + argc}};
}

}  // namespace bench
