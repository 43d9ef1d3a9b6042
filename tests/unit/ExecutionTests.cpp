// Running one script and judging its exit code, over a runner that starts nothing.

#include <gmock/gmock.h>

#include <string>
#include <vector>

#include "AgentFixture.h"
#include "ScriptRepositoryProcessorRequest.h"
#include "ShellDouble.h"

namespace {

using namespace VarnScriptRepository;
using doubles::Runs;
using testing::ElementsAre;

class ExecuteScript : public doubles::AgentFixture {
 protected:
  ExecuteScript() : request("42", &overrideList) {
    request.scriptFilePath = scriptsDirectory + "/clean.sh";
    repo.scriptName = "clean.sh";
    repo.exitCode = "0";
    journal.reset();
  }

  std::optional<std::vector<std::string>> overrideList;
  ScriptRequest request;
  ScriptRepo repo;
};

TEST_F(ExecuteScript, RunsTheInterpreterOnTheScriptInTheScriptsDirectory) {
  repo.scriptArgs = R"(-a "two words" -b)";
  Runs::shared().answers = {{0, "all clean\n"}};

  EXPECT_EQ(request.executeScript(repo), ProcessingResult(true, "all clean\n"));

  EXPECT_THAT(
      journal.entries(),
      ElementsAre("info ScriptRepositoryProcessor executeScript(scriptData:): Script Name: "
                  "clean.sh Args: -a \"two words\" -b Expected Exit Code: 0",
                  "run /bin/sh <agent>/client-data/7/scripts-repository/clean.sh {-a} {two words} "
                  "{-b} in <agent>/client-data/7/scripts-repository limit 600",
                  "info ScriptRepositoryProcessor executeScript(scriptData:): Script Output: all "
                  "clean\n Exit Code: 0"));
}

TEST_F(ExecuteScript, TakesTheInterpreterFromTheScriptNameAndNotFromTheFile) {
  repo.scriptName = "tool.py";
  repo.scriptType = "sh";

  EXPECT_EQ(request.executeScript(repo), ProcessingResult(true, "done\n"));

  EXPECT_THAT(journal.effects(),
              ElementsAre("run /usr/bin/python3 <agent>/client-data/7/scripts-repository/clean.sh "
                          "in <agent>/client-data/7/scripts-repository limit 600"));
}

TEST_F(ExecuteScript, WithoutAPathIsOneLine) {
  request.scriptFilePath.reset();
  repo.scriptName = "tool.unknown";

  EXPECT_EQ(request.executeScript(repo), ProcessingResult());

  EXPECT_THAT(journal.entries(),
              ElementsAre("info ScriptRepositoryProcessor executeScript(scriptData:): Unable to "
                          "get script file path"));
}

TEST_F(ExecuteScript, WithoutAnInterpreterIsOneLineWhateverElseNamesOne) {
  repo.scriptName = "tool.SH";
  repo.scriptFile = "tool.sh";
  for (const char* const type : {"", "sh", ".sh", "tool.sh", "/bin/sh", "shell"}) {
    SCOPED_TRACE(type);
    journal.reset();
    repo.scriptType = type;

    EXPECT_EQ(request.executeScript(repo), ProcessingResult());

    EXPECT_THAT(journal.entries(),
                ElementsAre("info ScriptRepositoryProcessor executeScript(scriptData:): Unable to "
                            "get launch path for tool.SH"));
  }
}

TEST_F(ExecuteScript, OfARunnerWithoutResultSaysSo) {
  for (const Runs::Result& none :
       {Runs::Result{}, Runs::Result{0, std::nullopt}, Runs::Result{std::nullopt, "text"}}) {
    journal.reset();
    Runs::shared().answers = {none};
    EXPECT_EQ(request.executeScript(repo), ProcessingResult());
    EXPECT_EQ(journal.log().size(), 2U);
  }

  journal.reset();
  Runs::shared().answers = {Runs::Result{}};
  EXPECT_EQ(request.executeScript(repo), ProcessingResult());
  EXPECT_THAT(
      journal.log(),
      ElementsAre("info ScriptRepositoryProcessor executeScript(scriptData:): Script Name: "
                  "clean.sh Args:  Expected Exit Code: 0",
                  "info ScriptRepositoryProcessor executeScript(scriptData:): Script Output: No "
                  "Output Exit Code: nil"));
}

TEST_F(ExecuteScript, AnEmptyOutputIsAnOutput) {
  Runs::shared().answers = {{0, ""}};

  EXPECT_EQ(request.executeScript(repo), ProcessingResult(true, ""));
  EXPECT_EQ(journal.log().back(),
            "info ScriptRepositoryProcessor executeScript(scriptData:): Script Output:  Exit "
            "Code: 0");
}

TEST_F(ExecuteScript, LogsTheRawTextsOfTheRecord) {
  repo.scriptName = "dir/clean.sh ";
  repo.scriptArgs = " \"x";
  repo.exitCode = " 0 ,,";

  EXPECT_EQ(request.executeScript(repo), ProcessingResult(false, "done\n"));

  EXPECT_EQ(journal.log().front(),
            "info ScriptRepositoryProcessor executeScript(scriptData:): Script Name: dir/clean.sh "
            " Args:  \"x Expected Exit Code:  0 ,,");
}

// ---- Verdict ---------------------------------------------------------------------------------

TEST_F(ExecuteScript, JudgesTheExitCodeByTheServersList) {
  struct Row {
    const char* exitCodes;
    std::int32_t status;
    bool accepted;
  };
  for (const Row& row : {
           Row{"0", 0, true},
           Row{"0", 1, false},
           Row{"0,1", 0, true},
           Row{"0,1", 1, true},
           Row{"0, 1", 1, false},
           Row{"0, 1", 0, true},
           Row{"", 0, false},
           Row{",", 0, false},
           Row{"0,", 0, true},
           Row{",0", 0, true},
           Row{"00", 0, false},
           Row{"+0", 0, false},
           Row{" 0", 0, false},
           Row{"0 ", 0, false},
           Row{"1,2,3", 3, true},
           Row{"12", 1, false},
           Row{"12", 2, false},
           Row{"1;2", 1, false},
           Row{"-1", -1, true},
           Row{"1", -1, false},
           Row{"255", 255, true},
           Row{"2147483647", 2147483647, true},
           Row{"-2147483648", INT32_MIN, true},
           Row{"0\n", 0, false},
           Row{"\"0\"", 0, false},
           // Bytes decide: a digit of another script or with a mark is no digit.
           Row{"\uff10", 0, false},
           Row{"0\u0301", 0, false},
       }) {
    SCOPED_TRACE(std::string(row.exitCodes) + " for " + std::to_string(row.status));
    repo.exitCode = row.exitCodes;
    Runs::shared().answers = {{row.status, "out"}};
    EXPECT_EQ(request.executeScript(repo), ProcessingResult(row.accepted, "out"));
  }
}

TEST_F(ExecuteScript, ACodeThatEitherListAcceptsEndsWithTheOutputLine) {
  Runs::shared().answers = {{3, "out"}};
  const std::vector<std::string> accepting{"1", "3"};
  for (const auto& override : {std::optional<std::vector<std::string>>{}, {accepting}}) {
    journal.reset();
    repo.exitCode = override ? "0" : "1,3";
    overrideList = override;

    EXPECT_EQ(request.executeScript(repo), ProcessingResult(true, "out"));

    EXPECT_EQ(journal.log().back(),
              "info ScriptRepositoryProcessor executeScript(scriptData:): Script Output: out Exit "
              "Code: 3");
    EXPECT_EQ(journal.log().size(), 2U);
  }
}

TEST_F(ExecuteScript, ACodeThatIsNotAcceptedNamesTheServersList) {
  struct Row {
    const char* exitCodes;
    const char* list;
  };
  for (const Row& row :
       {Row{"0,1", R"(["0", "1"])"}, Row{"0, 1", R"(["0", " 1"])"}, Row{"", R"([""])"},
        Row{"0,", R"(["0", ""])"}, Row{",", R"(["", ""])"},
        Row{"1,0,1,,1", R"(["1", "0", "1", "", "1"])"}, Row{R"(a"b,c\d)", R"(["a\"b", "c\\d"])"}}) {
    SCOPED_TRACE(row.exitCodes);
    journal.reset();
    repo.exitCode = row.exitCodes;
    Runs::shared().answers = {{-7, "out"}};

    EXPECT_EQ(request.executeScript(repo), ProcessingResult(false, "out"));

    EXPECT_THAT(
        journal.log(),
        ElementsAre(testing::_,
                    "info ScriptRepositoryProcessor executeScript(scriptData:): Script Output: "
                    "out Exit Code: -7",
                    "info ScriptRepositoryProcessor executeScript(scriptData:): Script Return "
                    "Code did not match expected exit code: " +
                        std::string(row.list)));
  }
}

TEST_F(ExecuteScript, TheOverrideListAloneDecidesWhenItIsThere) {
  struct Row {
    std::vector<std::string> list;
    std::int32_t status;
    bool accepted;
  };
  repo.exitCode = "0";
  for (const Row& row :
       {Row{{"3"}, 3, true}, Row{{"3"}, 0, false}, Row{{"1", "2", "3"}, 2, true},
        Row{{" 3"}, 3, false}, Row{{"3,4"}, 3, false}, Row{{}, 0, false}, Row{{""}, 0, false},
        Row{{"-1"}, -1, true}, Row{{"0"}, 0, true}, Row{{"03"}, 3, false}}) {
    SCOPED_TRACE(testing::PrintToString(row.list) + " for " + std::to_string(row.status));
    overrideList = row.list;
    Runs::shared().answers = {{row.status, "out"}};
    EXPECT_EQ(request.executeScript(repo), ProcessingResult(row.accepted, "out"));
  }
}

TEST_F(ExecuteScript, ACodeThatIsNotAcceptedNamesTheOverrideList) {
  struct Row {
    std::vector<std::string> list;
    const char* text;
  };
  for (const Row& row : {Row{{}, "[]"}, Row{{"1"}, R"(["1"])"}, Row{{"1", "2"}, R"(["1", "2"])"},
                         Row{{"2", "1", "2"}, R"(["2", "1", "2"])"},
                         Row{{R"(a"b)", R"(c\d)"}, R"(["a\"b", "c\\d"])"}}) {
    journal.reset();
    overrideList = row.list;

    EXPECT_EQ(request.executeScript(repo), ProcessingResult(false, "done\n"));

    EXPECT_THAT(
        journal.log(),
        ElementsAre("info ScriptRepositoryProcessor executeScript(scriptData:): Script Name: "
                    "clean.sh Args:  Expected Exit Code: 0",
                    "info ScriptRepositoryProcessor executeScript(scriptData:): Script Output: "
                    "done\n Exit Code: 0",
                    "info ScriptRepositoryProcessor executeScript(scriptData:): Script Return "
                    "Code did not match expected overriden exit code: " +
                        std::string(row.text)));
  }
}

TEST_F(ExecuteScript, TheServersListDecidesAgainWhenTheOverrideIsTakenBack) {
  overrideList = std::vector<std::string>{};
  EXPECT_EQ(request.executeScript(repo), ProcessingResult(false, "done\n"));
  overrideList = std::nullopt;
  EXPECT_EQ(request.executeScript(repo), ProcessingResult(true, "done\n"));
}

TEST_F(ExecuteScript, EachLineCarriesItsOwnLineNumber) {
  repo.exitCode = "1";
  EXPECT_EQ(request.executeScript(repo), ProcessingResult(false, "done\n"));

  const auto records = journal.records();
  ASSERT_EQ(records.size(), 3U);
  EXPECT_GT(records[0].line, 0);
  EXPECT_LT(records[0].line, records[1].line);
  EXPECT_LT(records[1].line, records[2].line);
}

}  // namespace
