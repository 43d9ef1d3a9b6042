// The command lines of `publish` and `plan`.

#include <gtest/gtest.h>

#include "CommandLine.h"

namespace VarnScripts {
namespace {

CommandLine parsed(const std::vector<std::string>& arguments) {
  const auto result = parseCommandLine(arguments);
  if (const auto* reply = std::get_if<Reply>(&result)) {
    ADD_FAILURE() << reply->error;
    return {};
  }
  return std::get<CommandLine>(result);
}

Reply refused(const std::vector<std::string>& arguments) {
  const auto result = parseCommandLine(arguments);
  if (const auto* reply = std::get_if<Reply>(&result)) return *reply;
  ADD_FAILURE() << "taken";
  return {};
}

TEST(PublishCommandLine, HasADefaultForEveryOption) {
  const CommandLine line = parsed({"publish", "in", "out"});
  EXPECT_EQ(line.command->name, "publish");
  EXPECT_EQ(line.publish.sourceDirectory, "in");
  EXPECT_EQ(line.publish.outputDirectory, "out");
  EXPECT_EQ(line.publish.keepFor, std::nullopt);
  EXPECT_FALSE(line.publish.strict);
  EXPECT_FALSE(line.publish.check);
  EXPECT_FALSE(line.publish.allowRemoval);
  EXPECT_EQ(line.publish.digest, std::nullopt);
}

TEST(PublishCommandLine, TakesItsOptionsAndTheSettings) {
  const CommandLine line =
      parsed({"--customer", "7", "publish", "--keep-for", "2h", "--strict", "--check", "--digest",
              "sha512", "--allow-removal", "in", "out"});
  EXPECT_EQ(line.publish.keepFor, std::chrono::seconds(7200));
  EXPECT_TRUE(line.publish.strict);
  EXPECT_TRUE(line.publish.check);
  EXPECT_TRUE(line.publish.allowRemoval);
  EXPECT_EQ(line.publish.digest, "sha512");
  EXPECT_EQ(line.flags, (SettingTexts{{"customer", "7"}}));
}

TEST(PublishCommandLine, TakesTheTimeThatContentStaysWithItsUnit) {
  const std::pair<std::string, std::int64_t> rows[] = {{"45s", 45},    {"30m", 1800},
                                                       {"12h", 43200}, {"7d", 604800},
                                                       {"0s", 0},      {"36600d", 3162240000}};
  for (const auto& [text, seconds] : rows) {
    EXPECT_EQ(parsed({"publish", "--keep-for", text, "in", "out"}).publish.keepFor,
              std::chrono::seconds(seconds))
        << text;
  }
  for (const std::string text : {"7", "d", "-1d", "+1d", "1.5d", "7 d", "7D", "1d1h", "36601d",
                                 "18446744073709551616s", "two"}) {
    EXPECT_EQ(refused({"publish", "--keep-for", text, "in", "out"}).exitStatus, 2) << text;
  }
}

TEST(PublishCommandLine, NeedsBothDirectories) {
  EXPECT_EQ(refused({"publish", "in"}).error,
            "varn-scripts: OUTPUT_DIR is required\n"
            "varn-scripts --help tells how it is used.\n");
}

TEST(PlanCommandLine, TakesAScriptID) {
  const CommandLine line = parsed({"plan", "42", "--json"});
  EXPECT_EQ(line.command->name, "plan");
  EXPECT_EQ(line.scriptID, "42");
  EXPECT_TRUE(line.json);
  EXPECT_FALSE(parsed({"plan", "42"}).json);
}

TEST(PlanCommandLine, RefusesAnEmptyScriptID) {
  EXPECT_EQ(refused({"plan", ""}).error,
            "varn-scripts: SCRIPT_ID must not be empty\n"
            "varn-scripts --help tells how it is used.\n");
}

}  // namespace
}  // namespace VarnScripts
