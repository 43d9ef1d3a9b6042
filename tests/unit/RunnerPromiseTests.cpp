// What a host may rely on when it runs scripts of any kind, with the figures printed: output
// without a gap, a return that nothing delays, no harm from too much output, nothing left behind.

#include <gmock/gmock.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <iostream>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "RunnerFixture.h"
#include "Sanitizers.h"

namespace {

using namespace runnertests;
using VarnScriptRepository::shell;
using Clock = std::chrono::steady_clock;

constexpr std::size_t kMiB = std::size_t{1} << 20;

class RunnerPromise : public RunnerFixture {
 protected:
  /// Runs the program that writes a long text.
  Result writeText(const std::string& kind, std::size_t bytes, std::size_t perWrite,
                   int status = 0) const {
    return shell(program("write-text"), kind,
                 {std::to_string(bytes), std::to_string(perWrite), std::to_string(status)},
                 directory.path(), 600);
  }

  /// A figure of this test, on standard output and in the test's report.
  static void print(const std::string& name, const std::string& value) {
    std::cout << "figure: " << name << ": " << value << std::endl;
    RecordProperty(name, value);
  }

  static std::string millisecondsSince(Clock::time_point begin) {
    return std::to_string(
        std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - begin).count());
  }

  /// The process that the command has named in the file "descendant".
  int descendant() const {
    return std::atoi(doubles::readFile(path("descendant")).value_or("0").c_str());
  }

  static bool isAlive(int process) {
    return process > 0 && ::waitpid(process, nullptr, WNOHANG) == 0;
  }

  static void expectNoChildren() {
    errno = 0;
    EXPECT_EQ(::waitpid(-1, nullptr, WNOHANG), -1);
    EXPECT_EQ(errno, ECHILD);
  }
};

// ---- Output without a gap --------------------------------------------------------------------

TEST_F(RunnerPromise, OutputOfShortRunsIsComplete) {
  const char* const ordered = std::getenv("VARN_RUNS");
  const int runs = ordered == nullptr ? 500 : std::atoi(ordered);
  ASSERT_GT(runs, 0);
  // The program writes all that the pipe holds but a little in one go, and ends at once.
  constexpr std::size_t sixtyKiB = 60 * 1024;
  const Clock::time_point begin = Clock::now();
  std::size_t missing = 0;
  for (int run = 0; run < runs; ++run) {
    const auto [status, output] = writeText("ascii", sixtyKiB, sixtyKiB);
    ASSERT_EQ(status, 0);
    ASSERT_TRUE(output);
    missing += sixtyKiB - output->size();
    journal.reset();
  }
  print("short_runs", std::to_string(runs));
  print("short_runs_ms", millisecondsSince(begin));
  print("short_runs_bytes_missing", std::to_string(missing));
  EXPECT_EQ(missing, 0U);
}

TEST_F(RunnerPromise, OutputOfAnUnalignedWriterLosesNoCharacter) {
  // The lines have 31 bytes, with characters of one to four, so that writes and chunks end in the
  // middle of characters all the time. A writer that the machine holds up for long just there has
  // paused, and loses what it has to; so the text may take more than one try.
  constexpr std::string_view line = "Gr\u00fc\u00dfe, caf\u00e9 \u20ac \U0001F600 \u65e5\u672c\n";
  constexpr std::size_t length = 64 * kMiB - 64 * kMiB % line.size();
  std::size_t missing = length;
  int tries = 0;
  std::string text;
  while (missing > 0 && tries < 5) {
    ++tries;
    journal.reset();
    const Clock::time_point begin = Clock::now();
    const auto [status, output] = writeText("characters", 64 * kMiB, 4093);
    print("unaligned_writer_ms", millisecondsSince(begin));
    ASSERT_EQ(status, 0);
    ASSERT_TRUE(output);
    text = *output;
    missing = length - text.size();
    print("unaligned_writer_bytes_missing", std::to_string(missing));
  }
  print("unaligned_writer_tries", std::to_string(tries));
  ASSERT_EQ(missing, 0U);
  for (std::size_t at = 0; at < length; at += line.size()) {
    ASSERT_EQ(std::string_view(text).substr(at, line.size()), line) << at;
  }
}

// ---- A return that nothing delays ------------------------------------------------------------

TEST_F(RunnerPromise, AQuietDescendantDoesNotDelayTheReturn) {
  const Clock::time_point begin = Clock::now();
  const Result result = runCommand("sleep 1000 & echo $! > descendant; echo done");
  print("quiet_descendant_return_ms", millisecondsSince(begin));

  EXPECT_EQ(result, Result(0, "done\n"));
  // A call that waits for it would return after the thousand seconds, when it is gone.
  EXPECT_TRUE(isAlive(descendant()));
  ::kill(descendant(), SIGKILL);
}

TEST_F(RunnerPromise, ADescendantThatWritesForEverDoesNotDelayTheReturn) {
  const Clock::time_point begin = Clock::now();
  const auto [status, output] = runCommand("echo first; yes flood & echo $! > descendant; exit 4");
  print("writing_descendant_return_ms", millisecondsSince(begin));

  EXPECT_EQ(status, 4);
  ASSERT_TRUE(output);
  EXPECT_TRUE(output->starts_with("first\n")) << output->substr(0, 40);
  // With its pipe gone it ends by itself; nobody else tells it to.
  int ended = 0;
  EXPECT_TRUE(eventually([&] { return ::waitpid(descendant(), &ended, WNOHANG) == descendant(); }));
  EXPECT_TRUE(WIFSIGNALED(ended) && WTERMSIG(ended) == SIGPIPE);
}

TEST_F(RunnerPromise, AChildThatClosesItsOutputCostsNoProcessorTime) {
  const auto used = [] {
    rusage usage{};
    ::getrusage(RUSAGE_THREAD, &usage);
    return usage;
  };
  const auto microseconds = [](const rusage& usage) {
    return (usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) * 1000000L + usage.ru_utime.tv_usec +
           usage.ru_stime.tv_usec;
  };
  const rusage before = used();

  EXPECT_EQ(runCommand("exec >&- 2>&-; sleep 2; exit 5"), Result(5, ""));

  const rusage after = used();
  const long spent = microseconds(after) - microseconds(before);
  const long waits = after.ru_nvcsw - before.ru_nvcsw;
  print("closed_output_processor_us", std::to_string(spent));
  print("closed_output_waits", std::to_string(waits));
  // A busy loop uses up the two seconds; one that looks every few milliseconds waits hundreds of
  // times.
  EXPECT_LT(spent, 500000);
  EXPECT_LT(waits, 100);
}

// ---- Limits ----------------------------------------------------------------------------------

TEST_F(RunnerPromise, ALimitEndsTheScriptAndWhatItStarted) {
  const Clock::time_point begin = Clock::now();
  EXPECT_EQ(runCommand("sleep 1000 & echo $! > descendant; wait", 1), Result(SIGTERM, ""));
  print("limit_of_one_second_ms", millisecondsSince(begin));

  int status = 0;
  EXPECT_TRUE(
      eventually([&] { return ::waitpid(descendant(), &status, WNOHANG) == descendant(); }));
  EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGTERM);
}

TEST_F(RunnerPromise, AScriptThatIgnoresTheLimitIsWaitedFor) {
  // The script ends when it has seen the limit's line, not before.
  journal.onLog([reached = path("reached")](const doubles::LogRecord& record) {
    if (record.message == "shell: Killing process due to 1s time-out") {
      doubles::writeFile(reached, "");
    }
  });
  const Clock::time_point begin = Clock::now();
  EXPECT_EQ(runCommand("trap '' TERM; while [ ! -e reached ]; do sleep 0.05; done; sleep 0.5; "
                       "echo survived; exit 7",
                       1),
            Result(7, "survived\n"));
  print("ignored_limit_of_one_second_ms", millisecondsSince(begin));
}

// ---- Too much --------------------------------------------------------------------------------

TEST_F(RunnerPromise, FourGiBOfOutputWithinOneGiBOfMemoryKeepTheStatus) {
  if (kSanitized) GTEST_SKIP() << "no sanitizer runs within so little memory";
  const Clock::time_point begin = Clock::now();
  const int host = ::fork();
  ASSERT_GE(host, 0);
  if (host == 0) {
    const rlimit oneGiB{1024 * kMiB, 1024 * kMiB};
    if (::setrlimit(RLIMIT_AS, &oneGiB) != 0) ::_exit(100);
    const auto [status, output] = writeText("ascii", 4096 * kMiB, kMiB, 42);
    if (status != 42) ::_exit(101);
    if (!output || !output->starts_with("sixty-four characters to a line")) ::_exit(102);
    // Whole MiB of it were kept; the exit status tells how many, in units of 16.
    ::_exit(static_cast<int>(output->size() / (16 * kMiB)));
  }
  int status = 0;
  ASSERT_EQ(::waitpid(host, &status, 0), host);
  ASSERT_TRUE(WIFEXITED(status));
  print("four_gib_ms", millisecondsSince(begin));
  print("four_gib_mib_kept", std::to_string(16 * WEXITSTATUS(status)));
  EXPECT_GE(WEXITSTATUS(status), 8);
  EXPECT_LT(WEXITSTATUS(status), 64);
}

TEST_F(RunnerPromise, FiveHundredChildrenAtTheSameTimeLeaveNothingBehind) {
  constexpr std::size_t kChildren = 500;
  const int descriptors = openDescriptors();
  std::array<Result, kChildren> results;
  const Clock::time_point begin = Clock::now();
  {
    std::vector<std::jthread> threads;
    for (std::size_t index = 0; index < kChildren; ++index) {
      threads.emplace_back([this, &results, index] {
        results[index] =
            runCommand("echo " + std::to_string(index) + "; exit " + std::to_string(index % 256));
      });
    }
  }
  print("five_hundred_together_ms", millisecondsSince(begin));
  for (std::size_t index = 0; index < kChildren; ++index) {
    EXPECT_EQ(results[index],
              Result(static_cast<std::int32_t>(index % 256), std::to_string(index) + "\n"));
  }
  EXPECT_EQ(openDescriptors(), descriptors);
  expectNoChildren();
}

TEST_F(RunnerPromise, FiveHundredChildrenOneAfterTheOtherLeaveNothingBehind) {
  constexpr int kChildren = 500;
  const int descriptors = openDescriptors();
  const Clock::time_point begin = Clock::now();
  for (int index = 0; index < kChildren; ++index) {
    ASSERT_EQ(runCommand("exit " + std::to_string(index % 256)), Result(index % 256, ""));
  }
  print("five_hundred_in_turn_ms", millisecondsSince(begin));
  EXPECT_EQ(openDescriptors(), descriptors);
  expectNoChildren();
}

}  // namespace
