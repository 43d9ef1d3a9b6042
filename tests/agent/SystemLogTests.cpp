// The system's log as a destination. The program's own `syslog` takes the place of the system's, so
// that a test sees what would be sent.

#include <gtest/gtest.h>

#include <array>
#include <cstdarg>
#include <cstdio>
#include <stdexcept>
#include <string>
#include <vector>

#include "LogSettings.h"

using AgentLog::LogSettings;
using AgentLog::Severity;

namespace {

struct Sent {
  int priority;
  std::string text;

  bool operator==(const Sent&) const = default;
};

void PrintTo(const Sent& sent, std::ostream* to) { *to << sent.priority << ' ' << sent.text; }

std::vector<Sent>& sent() {
  static std::vector<Sent> all;
  return all;
}

void take(int priority, const char* format, va_list arguments) {
  std::array<char, 1 << 16> text{};
  ASSERT_LT(std::vsnprintf(text.data(), text.size(), format, arguments),
            static_cast<int>(text.size()));
  sent().push_back({priority, text.data()});
}

// What <syslog.h> calls them.
constexpr int kError = 3;
constexpr int kWarning = 4;
constexpr int kInfo = 6;

class SystemLog : public testing::Test {
 protected:
  void SetUp() override { settings.target = LogSettings::Target::syslog; }
  void TearDown() override { AgentLog::configure({}); }

  LogSettings settings;
};

TEST_F(SystemLog, TakesEachRecordWithItsSeverityAndWithoutTimeAndLevel) {
  AgentLog::configure(settings);
  AgentLog::logInfo("Script-Meta Download Success", "ScriptRepositoryMetaProcessor", "o(_:)", 1);
  AgentLog::logInfo("Script-Meta Download Failed", "ScriptRepositoryMetaProcessor", "o(_:)", 2);
  AgentLog::logError("a\nb\x1b 100 %s", "varn-scripts", "o(_:)", 3);
  EXPECT_EQ(sent(),
            (std::vector<Sent>{
                {kInfo, "ScriptRepositoryMetaProcessor o(_:) 1 Script-Meta Download Success"},
                {kWarning, "ScriptRepositoryMetaProcessor o(_:) 2 Script-Meta Download Failed"},
                {kError, "varn-scripts o(_:) 3 a\\nb? 100 %s"}}));
}

TEST_F(SystemLog, TakesJSONWhole) {
  settings.format = LogSettings::Format::json;
  AgentLog::configure(settings);
  AgentLog::logInfo("m", "ScriptRepositoryUtil", "o()", 1);
  ASSERT_EQ(sent().size(), 1U);
  EXPECT_TRUE(sent()[0].text.starts_with("{\"time\":\"2")) << sent()[0].text;
  EXPECT_TRUE(sent()[0].text.ends_with(
      R"json("level":"info","source":"ScriptRepositoryUtil","operation":"o()","line":1,"message":"m"})json"))
      << sent()[0].text;
}

TEST_F(SystemLog, LeavesOutWhatMattersLess) {
  settings.least = Severity::warning;
  AgentLog::configure(settings);
  AgentLog::logInfo("availableOutput", "ScriptRepositoryUtil", "o()", 1);
  AgentLog::logInfo("Launch failed: no", "ScriptRepositoryUtil", "o()", 2);
  EXPECT_EQ(sent(),
            (std::vector<Sent>{{kWarning, "ScriptRepositoryUtil o() 2 Launch failed: no"}}));
}

TEST_F(SystemLog, CutsALongMessageThatAFileGetsWhole) {
  std::size_t observed = 0;
  settings.observer = [&observed](const AgentLog::Record& record) {
    observed = record.message.size();
  };
  AgentLog::configure(settings);
  AgentLog::logInfo("Script Output: " + std::string(100'000, 'x') + " Exit Code: 0", "Unit", "o()",
                    1);
  ASSERT_EQ(sent().size(), 1U);
  EXPECT_LT(sent()[0].text.size(), 4500U);
  EXPECT_NE(sent()[0].text.find(" [95644 bytes left out] x"), std::string::npos)
      << sent()[0].text.substr(4000);
  EXPECT_TRUE(sent()[0].text.ends_with("x Exit Code: 0"));
  EXPECT_EQ(observed, 100'028U);
}

TEST_F(SystemLog, CutsWhatIsLongInJSONAlone) {
  settings.format = LogSettings::Format::json;
  AgentLog::configure(settings);
  for (const std::size_t length : {std::size_t{4'000}, std::size_t{200'000}}) {
    AgentLog::logInfo(std::string(length, '\x1b') + " Exit Code: 0", "Unit", "o()", 1);
    ASSERT_EQ(sent().size(), 1U);
    EXPECT_LT(sent()[0].text.size(), 5000U);
    EXPECT_GT(sent()[0].text.size(), 2000U);
    EXPECT_TRUE(sent()[0].text.ends_with("\\u001b Exit Code: 0\"}")) << sent()[0].text;
    sent().clear();
  }
  AgentLog::logInfo(std::string(100'000, 'x'), "Unit", "o()", 1);
  ASSERT_EQ(sent().size(), 1U);
  EXPECT_GT(sent()[0].text.size(), 4096U);
}

#ifndef VARN_HAS_JOURNAL
TEST_F(SystemLog, ThatThisBuildDoesNotKnowIsRefusedAndNothingChanges) {
  AgentLog::configure(settings);
  LogSettings journal;
  journal.target = LogSettings::Target::journald;
  EXPECT_THROW(AgentLog::configure(journal), std::invalid_argument);
  AgentLog::logInfo("m", "ScriptRepositoryUtil", "o()", 1);
  EXPECT_EQ(sent(), (std::vector<Sent>{{kInfo, "ScriptRepositoryUtil o() 1 m"}}));
}
#endif

}  // namespace

extern "C" {

__attribute__((format(printf, 2, 3))) void syslog(int priority, const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  take(priority, format, arguments);
  va_end(arguments);
}

// The name under which a hardened build calls it.
__attribute__((format(printf, 3, 4))) void __syslog_chk(int priority, int /*flag*/,
                                                        const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  take(priority, format, arguments);
  va_end(arguments);
}
}
