// The object that says what became of a request.

#include <gtest/gtest.h>

#include <string>
#include <string_view>
#include <system_error>
#include <utility>

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

TEST(Outcome, TellsWhoHasSignedTheList) {
  Outcome outcome{{true, "done\n"}, {}, runOf(ScriptEnd::How::exited)};
  outcome.list = {"", {"293CBC668E52E64C", "CCC333B19BA09674"}, 18446744073709551615U, ""};
  EXPECT_TRUE(jsonOf(outcome).ends_with(
      "\"dropped_bytes\":0,\"signed_by\":[\"293CBC668E52E64C\",\"CCC333B19BA09674\"],"
      "\"serial\":18446744073709551615}\n"));
}

TEST(Outcome, WithoutARunHasTheReason) {
  const Outcome outcome{{}, Reason{ReasonCode::notListed, "none"}, {}};
  EXPECT_EQ(jsonOf(outcome),
            "{\"script_id\":\"42\",\"status\":\"not_run\",\"output\":null,\"reason\":\"none\","
            "\"reason_code\":\"not_listed\"}\n");
  EXPECT_EQ(exitStatusOf(outcome), kExitNotRun);
}

/// What `writeText` writes to standard output and to standard error.
std::pair<std::string, std::string> written(const Outcome& outcome, const Settings& settings,
                                            const WrittenOutput& before = {}) {
  testing::internal::CaptureStdout();
  testing::internal::CaptureStderr();
  writeText(outcome, settings, before);
  const std::string output = testing::internal::GetCapturedStdout();
  return {output, testing::internal::GetCapturedStderr()};
}

using Written = std::pair<std::string, std::string>;

// As without any setting.
Settings withoutLog() {
  Settings settings;
  settings.log.standardError = AgentLog::LogSettings::StandardError::never;
  return settings;
}

TEST(WriteText, SaysWhyAScriptIsRejectedAndThatItsLimitCame) {
  const struct {
    bool accepted;
    ScriptEnd::How how;
    bool limitReached;
    std::string line;
  } rows[] = {
      {true, ScriptEnd::How::exited, false, ""},
      {true, ScriptEnd::How::exited, true,
       "varn-scripts: the script was asked to end at the time limit\n"},
      {false, ScriptEnd::How::exited, false, "varn-scripts: rejected: the exit code is 9\n"},
      {false, ScriptEnd::How::signalled, true,
       "varn-scripts: rejected: the script was ended by signal 9 (asked to end at the time "
       "limit)\n"},
  };
  for (const auto& row : rows) {
    Outcome outcome{{row.accepted, "done\n"}, {}, runOf(row.how)};
    outcome.run->end.limitReached = row.limitReached;
    EXPECT_EQ(written(outcome, withoutLog()), Written("done\n", row.line));
    Settings quiet = withoutLog();
    quiet.log.quiet = true;
    EXPECT_EQ(written(outcome, quiet), Written("done\n", ""));
    // With a log there, that says it.
    EXPECT_EQ(written(outcome, Settings{}), Written("done\n", ""));
  }
}

TEST(WriteText, WritesTheRestOfWhatIsThereAlready) {
  const Outcome outcome{{true, "12345678"}, {}, runOf(ScriptEnd::How::exited)};
  EXPECT_EQ(written(outcome, withoutLog(), {3}), Written("45678", ""));
  EXPECT_EQ(written(outcome, withoutLog(), {8}), Written("", ""));
  Settings settings = withoutLog();
  settings.maxOutput = 5;
  EXPECT_EQ(written(outcome, settings, {3}),
            Written("45", "varn-scripts: 3 of 8 bytes of output are left out (max_output)\n"));
  EXPECT_EQ(written(outcome, withoutLog(), {3, std::make_error_code(std::errc::broken_pipe)}),
            Written("", "varn-scripts: standard output can't be written: Broken pipe\n"));
}

}  // namespace
}  // namespace VarnScripts
