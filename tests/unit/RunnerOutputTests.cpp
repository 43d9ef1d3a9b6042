// What the runner collects: both streams, chunk by chunk, strict UTF-8, nothing of what a
// background descendant writes later.

#include <gmock/gmock.h>
#include <sys/resource.h>

#include <string>

#include "RunnerFixture.h"

namespace {

using namespace runnertests;
using testing::ElementsAre;
using VarnScriptRepository::shell;

class ShellOutput : public RunnerFixture {
 protected:
  Result writeChunks(const Texts& chunks) const {
    return shell(program("write-chunks"), chunks.front(), {chunks.begin() + 1, chunks.end()},
                 directory.path(), 600);
  }

  /// How often the line of a decoded chunk stands in the log.
  std::size_t chunksTaken() const {
    std::size_t count = 0;
    for (const std::string& entry : journal.log()) {
      if (entry == line("availableOutput")) ++count;
    }
    return count;
  }
};

TEST_F(ShellOutput, IsReturnedWithTheStatus) {
  EXPECT_EQ(runCommand("echo all clean; exit 3"), Result(3, "all clean\n"));

  EXPECT_THAT(journal.log(),
              ElementsAre(entryLine("echo all clean; exit 3"), line("availableOutput")));
}

TEST_F(ShellOutput, OfAChildThatWritesNothingIsEmptyAndThere) {
  EXPECT_EQ(runCommand("exit 0"), Result(0, ""));

  EXPECT_THAT(journal.log(), ElementsAre(entryLine("exit 0")));
}

TEST_F(ShellOutput, HoldsStandardErrorAsIfItWereStandardOutput) {
  EXPECT_EQ(runCommand("echo trouble >&2"), Result(0, "trouble\n"));
  EXPECT_THAT(journal.log(), ElementsAre(entryLine("echo trouble >&2"), line("availableOutput")));
}

TEST_F(ShellOutput, HoldsBothStreamsInTheOrderWritten) {
  EXPECT_EQ(runCommand("echo 1; echo 2 >&2; echo 3; echo 4 >&2"), Result(0, "1\n2\n3\n4\n"));
}

TEST_F(ShellOutput, IsTakenInChunksWithALineForEach) {
  // "one", "two", "three", each read before the next is written.
  EXPECT_EQ(writeChunks({"6f6e65", "74776f", "7468726565"}), Result(0, "onetwothree"));
  EXPECT_EQ(chunksTaken(), 3U);
}

TEST_F(ShellOutput, LosesAChunkThatIsNoUTF8AndKeepsTheRest) {
  EXPECT_EQ(writeChunks({"6f6e65", "74ff6f", "7468726565"}), Result(0, "onethree"));
  EXPECT_EQ(chunksTaken(), 2U);
}

TEST_F(ShellOutput, IsStrictAboutUTF8) {
  struct Row {
    const char* bytes;
    std::string output;
  };
  for (const Row& row :
       {Row{"c3a9", "\u00e9"}, Row{"ed9fbf", "\ud7ff"}, Row{"ee8080", "\ue000"},
        Row{"f48fbfbf", "\U0010ffff"}, Row{"efbfbf", "\uffff"}, Row{"00", std::string(1, '\0')},
        // Overlong forms, surrogates, what lies beyond, what is no form at all.
        Row{"c080", ""}, Row{"e09fbf", ""}, Row{"f08fbfbf", ""}, Row{"eda080", ""},
        Row{"edbfbf", ""}, Row{"f4908080", ""}, Row{"f5808080", ""}, Row{"80", ""}, Row{"ff", ""},
        Row{"c341", ""}}) {
    SCOPED_TRACE(row.bytes);
    journal.reset();
    EXPECT_EQ(writeChunks({row.bytes}), Result(0, row.output));
    EXPECT_EQ(chunksTaken(), row.output.empty() ? 0U : 1U);
  }
}

TEST_F(ShellOutput, KeepsNulBytes) {
  EXPECT_EQ(runCommand(R"(printf 'a\000b')"), Result(0, std::string("a\0b", 3)));
}

TEST_F(ShellOutput, LosesTheLastChunkWhenItEndsInsideACharacter) {
  EXPECT_EQ(writeChunks({"6f6b", "e282"}), Result(0, "ok"));
  EXPECT_EQ(chunksTaken(), 1U);
}

TEST_F(ShellOutput, JoinsACharacterWhoseRestFollowsAtOnce) {
  // The rest is written as soon as the first part was read. A machine under load may hold the
  // writer up for longer than the runner waits, so one of several tries has to succeed.
  bool joined = false;
  for (int attempt = 0; attempt < 20 && !joined; ++attempt) {
    joined = writeChunks({"e2", "82", "ac"}) == Result(0, "\u20ac");
  }
  EXPECT_TRUE(joined);
}

TEST_F(ShellOutput, JoinsNoMoreThanThreeBytesToAChunk) {
  // Each byte but the last begins a character. As above, one try has to go without a pause.
  bool separate = false;
  for (int attempt = 0; attempt < 20 && !separate; ++attempt) {
    separate = writeChunks({"c3", "c3", "c3", "c3", "41"}) == Result(0, "A");
  }
  EXPECT_TRUE(separate);
}

TEST_F(ShellOutput, JoinsNoMoreAlsoWhenMoreComesAtOnce) {
  bool separate = false;
  for (int attempt = 0; attempt < 20 && !separate; ++attempt) {
    separate = writeChunks({"f0", "f0", "616162"}) == Result(0, "b");
  }
  EXPECT_TRUE(separate);
}

TEST_F(ShellOutput, LosesBothChunksOfAWriterThatPausesInsideACharacter) {
  EXPECT_EQ(writeChunks({"6f6b", "61e282", "pause", "ac62", "636f"}), Result(0, "okco"));
  EXPECT_EQ(chunksTaken(), 2U);
}

TEST_F(ShellOutput, LosesNoCharacterOfAWriterInFullFlow) {
  // Three bytes a character: the pipe fills up in the middle of one again and again.
  const std::string command =
      R"(i=0; s='€'; while [ $i -lt 18 ]; do s="$s$s"; i=$((i+1)); done; printf %s "$s")";
  const auto [status, output] = runCommand(command);

  EXPECT_EQ(status, 0);
  ASSERT_TRUE(output);
  EXPECT_EQ(output->size(), 3U * 262144U);
  EXPECT_EQ(output->find_first_not_of("\u20ac"), std::string::npos);
}

TEST_F(ShellOutput, OfLeadBytesAloneIsDroppedHoweverMuchItIs) {
  // Whatever follows such a byte begins a character anew: more of it never completes one.
  EXPECT_EQ(runCommand(R"(head -c 4000000 /dev/zero | tr '\000' '\303'; exit 4)"), Result(4, ""));
  EXPECT_EQ(chunksTaken(), 0U);
}

TEST_F(ShellOutput, IsCompleteHoweverShortTheRun) {
  const std::string sixtyKiB = "head -c 61440 /dev/zero | tr '\\0' x";
  for (int run = 0; run < 50; ++run) {
    const auto [status, output] = runCommand(sixtyKiB);
    ASSERT_EQ(status, 0);
    ASSERT_EQ(output->size(), 61440U);
  }
}

// ---- Descendants -----------------------------------------------------------------------------

TEST_F(ShellOutput, IsNotWaitedForFromABackgroundDescendant) {
  // The descendant ends when the call has returned: a call that waited for it would wait for ever.
  EXPECT_EQ(runCommand("while [ ! -e stop ]; do sleep 0.05; done & echo started"),
            Result(0, "started\n"));
  doubles::writeFile(path("stop"), "");
}

TEST_F(ShellOutput, IsNotDelayedByABackgroundDescendantThatWritesForEver) {
  const auto [status, output] =
      runCommand("echo first; while [ ! -e stop ]; do echo flood; done & exit 4");
  doubles::writeFile(path("stop"), "");

  EXPECT_EQ(status, 4);
  ASSERT_TRUE(output);
  EXPECT_TRUE(output->starts_with("first\n")) << output->substr(0, 40);
}

TEST_F(ShellOutput, OfAPipelineIsThatOfTheWholePipeline) {
  EXPECT_EQ(runCommand("echo abc | tr a-z A-Z"), Result(0, "ABC\n"));
}

// ---- A child that closes its output ----------------------------------------------------------

TEST_F(ShellOutput, ClosedByALivingChildIsNotTheEndOfTheWait) {
  EXPECT_EQ(runCommand("echo before; exec >&- 2>&-; sleep 0.2; : > ended; exit 5"),
            Result(5, "before\n"));
  EXPECT_TRUE(doubles::exists(path("ended")));
}

TEST_F(ShellOutput, ClosedByALivingChildCostsNoProcessorTime) {
  const auto usedByThisThread = [] {
    rusage usage{};
    ::getrusage(RUSAGE_THREAD, &usage);
    return static_cast<double>(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) +
           static_cast<double>(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1e6;
  };
  const double before = usedByThisThread();

  EXPECT_EQ(runCommand("exec >&- 2>&-; sleep 1"), Result(0, ""));

  // A busy loop would use up most of the second.
  EXPECT_LT(usedByThisThread() - before, 0.2);
}

}  // namespace
