// Requests over the doubles of the agent and the real runner: scripts really run.

#include <gmock/gmock.h>

#include <string>
#include <thread>
#include <vector>

#include "AgentFixture.h"
#include "VarnScriptRepository/ScriptRepositoryProcessor.h"

namespace {

using namespace VarnScriptRepository;

class RequestOnRealRunner : public doubles::AgentFixture {
 protected:
  ProcessingResult process(const std::string& script) {
    document.checksumVal = std::to_string(script.size());
    downloads.serve("/client-data/7/scriptrepo/scripts-meta.xml",
                    doubles::metadataDocument(doubles::metadataEntry("42", "5")));
    downloads.serve("/client-data/7/scriptrepo/42.xml", document.text());
    downloads.serve("scripts/42/clean.sh", script);
    return ScriptRepositoryProcessor("42").processScript();
  }

  doubles::DataDocument document;
};

TEST_F(RequestOnRealRunner, WritesTheWholeLogInOrder) {
  document.scriptArgs = "-a \"two words\"";

  EXPECT_EQ(process("printf '%s|' \"$@\"\n"), ProcessingResult(true, "-a|two words|"));

  const std::string shell =
      "info ScriptRepositoryUtil "
      "shell(launchPath:commandPath:arguments:executeInDirectory:timeoutIn:): ";
  EXPECT_EQ(
      journal.log(),
      (std::vector<std::string>{
          "info ScriptRepositoryMetaProcessor downloadScriptRepoMeta(): Script-Meta Download "
          "Success",
          "info ScriptRepositoryProcessor processScript(): Processing Script ID 42 Server Version "
          "5 Local Version -- Downloading and Executing Script",
          "info ScriptRepositoryProcessor executeScript(scriptData:): Script Name: clean.sh Args: "
          "-a \"two words\" Expected Exit Code: 0",
          shell + "Execute /bin/sh command: "
                  "<agent>/client-data/7/scripts-repository/clean.sh, arguments: [\"-a\", \"two "
                  "words\"], in directory <agent>/client-data/7/scripts-repository, timeoutIn 600",
          shell + "availableOutput",
          "info ScriptRepositoryProcessor executeScript(scriptData:): Script Output: -a|two words| "
          "Exit Code: 0",
          "info ScriptRepositoryProcessor processScript(): Processing Script ID 42 Server Version "
          "5 Local Version -- status (Optional(true), Optional(\"-a|two words|\"))",
      }));
  EXPECT_THAT(journal.threads(), testing::ElementsAre(std::this_thread::get_id()));
}

TEST_F(RequestOnRealRunner, RunsInTheScriptsDirectory) {
  EXPECT_EQ(process("/bin/pwd\n"), ProcessingResult(true, scriptsDirectory + "\n"));
}

TEST_F(RequestOnRealRunner, JudgesTheStatusOfTheScript) {
  document.exitCode = "0,3";
  EXPECT_EQ(process("echo a; exit 3\n"), ProcessingResult(true, "a\n"));
}

TEST_F(RequestOnRealRunner, JudgesTheSignalOfTheScript) {
  document.exitCode = "9";
  EXPECT_EQ(process("kill -9 $$\n"), ProcessingResult(true, ""));
}

TEST_F(RequestOnRealRunner, RunsNoScriptWhoseInterpreterIsMissing) {
  if (doubles::exists("/usr/bin/osascript")) GTEST_SKIP() << "this machine has that interpreter";
  document.scriptName = "notify.scpt";

  EXPECT_EQ(process("beep\n"), ProcessingResult());

  const auto log = journal.log();
  ASSERT_EQ(log.size(), 7U);
  EXPECT_EQ(log[4],
            "info ScriptRepositoryUtil "
            "shell(launchPath:commandPath:arguments:executeInDirectory:timeoutIn:): Launch path "
            "not available: /usr/bin/osascript");
  EXPECT_EQ(log[5],
            "info ScriptRepositoryProcessor executeScript(scriptData:): Script Output: No Output "
            "Exit Code: nil");
  EXPECT_EQ(log[6],
            "info ScriptRepositoryProcessor processScript(): Processing Script ID 42 Server "
            "Version 5 Local Version -- status (nil, nil)");
}

}  // namespace
