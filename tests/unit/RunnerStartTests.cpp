// How the runner starts a program, and what becomes of one that can't be started.

#include <gmock/gmock.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <string>

#include "RunnerFixture.h"

namespace {

using namespace runnertests;
using testing::ElementsAre;
using VarnScriptRepository::shell;

class ShellStart : public RunnerFixture {
 protected:
  /// Makes a file with this content that may or may not be executed.
  std::string file(const std::string& name, const std::string& content, mode_t mode) const {
    doubles::writeFile(path(name), content);
    EXPECT_EQ(::chmod(path(name).c_str(), mode), 0);
    return path(name);
  }
};

TEST_F(ShellStart, HandsEveryArgumentOnUnchanged) {
  const Texts arguments{"two words",   "",   "say \"hi\"", "'single'",    "back\\slash",
                        "$HOME `x` *", "-n", "caf\u00e9",  "line\nbreak", "\xff"};

  const auto [status, output] =
      shell(program("print-arguments"), "/scripts/a b.sh", arguments, directory.path(), 600);

  EXPECT_EQ(status, 0);
  // The last argument is no UTF-8, so the output that shows it is dropped.
  EXPECT_EQ(output, "");

  const auto [again, shown] =
      shell(program("print-arguments"), "/scripts/a b.sh", {arguments.begin(), arguments.end() - 1},
            directory.path(), 600);
  EXPECT_EQ(again, 0);
  EXPECT_EQ(shown, "[" + program("print-arguments") +
                       "]\n[/scripts/a b.sh]\n[two words]\n[]\n[say \"hi\"]\n['single']\n"
                       "[back\\slash]\n[$HOME `x` *]\n[-n]\n[caf\u00e9]\n[line\nbreak]\n");
}

TEST_F(ShellStart, WritesItsEntryLineWithTheListOfArguments) {
  struct Row {
    Texts arguments;
    const char* list;
  };
  for (const Row& row : {Row{{}, "[]"}, Row{{"a"}, R"(["a"])"}, Row{{"a b", ""}, R"(["a b", ""])"},
                         Row{{R"(say "hi"\)"}, R"(["say \"hi\"\\"])"}}) {
    SCOPED_TRACE(row.list);
    journal.reset();
    EXPECT_EQ(shell("/bin/true", "/scripts/a b.sh", row.arguments, directory.path(), 600),
              Result(0, ""));
    EXPECT_THAT(
        journal.log(),
        ElementsAre(line("Execute /bin/true command: /scripts/a b.sh, arguments: " +
                         std::string(row.list) + ", in directory <directory>, timeoutIn 600")));
  }
}

TEST_F(ShellStart, RunsInTheGivenDirectory) {
  EXPECT_EQ(runCommand("/bin/pwd"), Result(0, directory.path() + "\n"));
}

TEST_F(ShellStart, LeavesTheHostsOwnDirectoryAlone) {
  char before[4096];
  char after[4096];
  ASSERT_NE(::getcwd(before, sizeof before), nullptr);
  EXPECT_EQ(runCommand("cd /"), Result(0, ""));
  ASSERT_NE(::getcwd(after, sizeof after), nullptr);
  EXPECT_STREQ(before, after);
}

TEST_F(ShellStart, HandsEnvironmentAndStandardInputOn) {
  ASSERT_EQ(::setenv("VARN_TEST_VARIABLE", "from the host", 1), 0);
  int ends[2];
  ASSERT_EQ(::pipe(ends), 0);
  ASSERT_EQ(::write(ends[1], "input", 5), 5);
  ASSERT_EQ(::dup2(ends[0], STDIN_FILENO), STDIN_FILENO);
  ::close(ends[0]);
  ::close(ends[1]);

  EXPECT_EQ(runCommand("echo \"$VARN_TEST_VARIABLE\"; cat"), Result(0, "from the host\ninput"));
}

// ---- Programs that can't be started ----------------------------------------------------------

TEST_F(ShellStart, OfAMissingLaunchPathIsTwoLinesAndAbsent) {
  EXPECT_EQ(shell(path("missing"), "/a.sh", {"x"}, directory.path(), 600), Result());

  EXPECT_THAT(journal.log(),
              ElementsAre(line("Execute <directory>/missing command: /a.sh, arguments: [\"x\"], "
                               "in directory <directory>, timeoutIn 600"),
                          line("Launch path not available: <directory>/missing")));
}

TEST_F(ShellStart, OfAMissingLaunchPathLooksAtNothingElse) {
  // No limit is looked at, so there is no line of one that is due.
  EXPECT_EQ(shell(path("missing"), "/a.sh", {}, path("no directory"), 0), Result());

  EXPECT_THAT(journal.log(),
              ElementsAre(line("Execute <directory>/missing command: /a.sh, arguments: [], in "
                               "directory <directory>/no directory, timeoutIn 0"),
                          line("Launch path not available: <directory>/missing")));
}

TEST_F(ShellStart, OfADanglingLinkIsAMissingLaunchPath) {
  ASSERT_EQ(::symlink("missing", path("link").c_str()), 0);

  EXPECT_EQ(shell(path("link"), "/a.sh", {}, directory.path(), 600), Result());
  EXPECT_EQ(journal.log().back(), line("Launch path not available: <directory>/link"));
}

TEST_F(ShellStart, OfAnEmptyLaunchPathIsAMissingOne) {
  EXPECT_EQ(shell("", "/a.sh", {}, directory.path(), 600), Result());
  EXPECT_EQ(journal.log().back(), line("Launch path not available: "));
}

TEST_F(ShellStart, ThatFailsIsOneLineWithTheReason) {
  struct Row {
    const char* name;
    std::string launchPath;
    std::string directory;
    const char* reason;
  };
  const std::string here = directory.path();
  for (const Row& row :
       {Row{"not executable", file("text", "echo\n", 0644), here, "Permission denied"},
        Row{"a directory", here, here, "Permission denied"},
        Row{"no program", file("garbage", "neither", 0755), here, "Exec format error"},
        Row{"interpreter missing", file("script", "#!/no/such/interpreter\n", 0755), here,
            "No such file or directory"},
        Row{"missing directory", "/bin/true", path("nowhere"), "No such file or directory"},
        Row{"a file as directory", "/bin/true", file("plain", "", 0644), "Not a directory"}}) {
    SCOPED_TRACE(row.name);
    journal.reset();
    EXPECT_EQ(shell(row.launchPath, "/a.sh", {}, row.directory, 600), Result());
    ASSERT_EQ(journal.log().size(), 2U);
    EXPECT_EQ(journal.log()[1], line("Launch failed: " + std::string(row.reason)));
  }
}

TEST_F(ShellStart, OfTextsWithANulByteFails) {
  const std::string nul("a\0b", 3);
  for (const auto& run : {shell("/bin/echo", nul, {}, directory.path(), 600),
                          shell("/bin/echo", "a", {nul}, directory.path(), 600),
                          shell("/bin/echo", "a", {}, directory.path() + nul, 600)}) {
    EXPECT_EQ(run, Result());
    EXPECT_EQ(journal.log().back(), line("Launch failed: Invalid argument"));
  }
}

TEST_F(ShellStart, ThatFailsUnderADueLimitWritesBothLines) {
  EXPECT_EQ(shell("/bin/true", "a", {}, path("nowhere"), 0), Result());

  EXPECT_THAT(journal.log(),
              ElementsAre(line("Execute /bin/true command: a, arguments: [], in directory "
                               "<directory>/nowhere, timeoutIn 0"),
                          line("shell: task is not running, not waiting due to 0s time out"),
                          line("Launch failed: No such file or directory")));
}

}  // namespace
