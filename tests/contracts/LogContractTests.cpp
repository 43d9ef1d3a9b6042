// What AgentLog.h promises.

#include <gmock/gmock.h>

#include <thread>

#include "AgentLog.h"
#include "Contract.h"

namespace {

using testing::ElementsAre;

class LogContract : public contracts::Contract {
 protected:
  void SetUp() override {
    if (!agent->log()) GTEST_SKIP() << "the agent's log can't be asked";
  }
};

TEST_F(LogContract, ARecordHasEverythingThatItWasGiven) {
  AgentLog::logInfo("hello", "ScriptRepositoryProcessor", "processScript()", 7);
  AgentLog::logError("a\n{} %s \xFF\n", "Unit", "operation(with:)", 8);
  AgentLog::logInfo("", "", "", 0);

  EXPECT_THAT(*agent->log(),
              ElementsAre("info ScriptRepositoryProcessor processScript() 7 hello",
                          "error Unit operation(with:) 8 a\n{} %s \xFF\n", "info   0 "));
}

TEST_F(LogContract, NoRecordOfAnyThreadIsLost) {
  {
    std::vector<std::jthread> threads;
    for (int thread = 0; thread < 4; ++thread) {
      threads.emplace_back([] {
        for (int line = 0; line < 50; ++line) AgentLog::logInfo("m", "Unit", "operation()", 1);
      });
    }
  }

  EXPECT_EQ(*agent->log(), std::vector<std::string>(200, "info Unit operation() 1 m"));
}

}  // namespace
