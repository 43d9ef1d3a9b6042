// The object that says what became of a request.

#include <gtest/gtest.h>

#include <string>
#include <string_view>

#include "ExitStatus.h"
#include "Outcome.h"

namespace VarnScripts {
namespace {

using VarnScriptRepository::ScriptEnd;

std::string jsonOf(const Outcome& outcome, const Settings& settings = {}) {
  std::string json;
  Pieces pieces([&json](std::string_view piece) { json += piece; });
  addJSON("42", outcome, settings, pieces);
  pieces.end();
  return json;
}

ScriptRun runOf(ScriptEnd::How how) {
  ScriptEnd end{how};
  end.code = 9;
  end.duration = std::chrono::microseconds(12999);
  end.outputBytes = 5;
  return {std::chrono::system_clock::time_point(std::chrono::milliseconds(1795242616007)), "17",
          "/b/clean.sh", end};
}

constexpr std::string_view kRest =
    ",\"timed_out\":false,\"started\":\"2026-11-21T06:30:16.007Z\",\"duration_ms\":12,"
    "\"version\":\"17\",\"path\":\"/b/clean.sh\",\"output_bytes\":5,\"dropped_bytes\":0}\n";

TEST(Outcome, OfAScriptThatExitedHasItsCode) {
  const Outcome outcome{{true, "done\n"}, {}, runOf(ScriptEnd::How::exited)};
  EXPECT_EQ(jsonOf(outcome),
            "{\"script_id\":\"42\",\"status\":\"accepted\",\"output\":\"done\\n\",\"exit_code\":9" +
                std::string(kRest));
  EXPECT_EQ(exitStatusOf(outcome), kExitSuccess);
}

TEST(Outcome, OfAScriptThatASignalEndedHasTheSignal) {
  const Outcome outcome{{false, "done\n"}, {}, runOf(ScriptEnd::How::signalled)};
  EXPECT_EQ(jsonOf(outcome),
            "{\"script_id\":\"42\",\"status\":\"rejected\",\"output\":\"done\\n\",\"signal\":9" +
                std::string(kRest));
  EXPECT_EQ(exitStatusOf(outcome), kExitRejected);
}

TEST(Outcome, OfAScriptWhoseStatusIsLostHasNoCode) {
  const Outcome outcome{{false, "done\n"}, {}, runOf(ScriptEnd::How::statusLost)};
  EXPECT_TRUE(jsonOf(outcome).ends_with(",\"exit_code\":null" + std::string(kRest)));
}

TEST(Outcome, TellsWhatIsMissingInTheOutput) {
  Outcome outcome{{true, "12345"}, {}, runOf(ScriptEnd::How::exited)};
  outcome.run->end.limitReached = true;
  outcome.run->end.droppedBytes = 7;
  outcome.run->end.lostBytes = 8;
  Settings settings;
  settings.maxOutput = 2;
  const std::string json = jsonOf(outcome, settings);
  EXPECT_NE(json.find("\"output\":\"12\""), json.npos) << json;
  EXPECT_NE(json.find("\"timed_out\":true"), json.npos) << json;
  EXPECT_TRUE(
      json.ends_with(",\"output_bytes\":5,\"dropped_bytes\":7,\"lost_bytes\":8,"
                     "\"left_out_bytes\":3}\n"))
      << json;
}

TEST(Outcome, WithoutARunHasTheReason) {
  const Outcome outcome{{}, Reason{ReasonCode::notListed, "none"}, {}};
  EXPECT_EQ(jsonOf(outcome),
            "{\"script_id\":\"42\",\"status\":\"not_run\",\"output\":null,\"reason\":\"none\","
            "\"reason_code\":\"not_listed\"}\n");
  EXPECT_EQ(exitStatusOf(outcome), kExitNotRun);
}

}  // namespace
}  // namespace VarnScripts
