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

TEST(PublishCommandLine, TakesWhoSigns) {
  const auto options = [](std::vector<std::string> arguments) {
    arguments.insert(arguments.begin(), "publish");
    return parsed(arguments).publish.signing;
  };
  EXPECT_FALSE(options({"in", "out"}).any());
  const auto here = options({"--sign-with", "a.key", "in", "--sign-with", "b.key", "out",
                             "--passphrase-file", "words", "--expires", "12h"});
  EXPECT_TRUE(here.any());
  EXPECT_EQ(here.keyFiles, (std::vector<std::string>{"a.key", "b.key"}));
  EXPECT_EQ(here.passphraseFiles, std::vector<std::string>{"words"});
  EXPECT_EQ(here.lifetime, std::chrono::hours(12));
  const auto left = options({"in", "out", "--unsigned-for", "away", "--signed-by", "a.pub"});
  EXPECT_TRUE(left.any());
  EXPECT_EQ(left.leaveIn, "away");
  EXPECT_EQ(left.lifetime, std::nullopt);
  const auto attached = options({"--attach", "a.minisig", "--attach", "b.minisig", "in", "out",
                                 "--signed-by", "a.pub", "--signed-by", "b.pub"});
  EXPECT_EQ(attached.attached, (std::vector<std::string>{"a.minisig", "b.minisig"}));
  EXPECT_EQ(attached.signedBy, (std::vector<std::string>{"a.pub", "b.pub"}));
  EXPECT_TRUE(options({"in", "out", "--unsigned"}).withoutSignature);
}

TEST(PublishCommandLine, TakesATimeForTheSignature) {
  for (const std::string text :
       {"0d", "0s", "-1d", "30", "d", "1.5h", "36601d", "1w", "18446744073709551616s"}) {
    const Reply reply = refused({"publish", "--sign-with", "k", "--expires", text, "in", "out"});
    EXPECT_EQ(reply.exitStatus, 2) << text;
    EXPECT_NE(reply.error.find("--expires"), std::string::npos) << reply.error;
  }
  EXPECT_EQ(parsed({"publish", "--sign-with", "k", "--expires", "36600d", "in", "out"})
                .publish.signing.lifetime,
            std::chrono::days(36600));
}

TEST(PublishCommandLine, RenewsWithTheOutputDirectoryAlone) {
  for (const std::vector<std::string>& arguments :
       {std::vector<std::string>{"publish", "--renew", "--sign-with", "k", "out"},
        {"publish", "in", "out", "--sign-with", "k", "--renew"}}) {
    const CommandLine line = parsed(arguments);
    EXPECT_TRUE(line.publish.signing.renew);
    EXPECT_EQ(line.publish.outputDirectory, "out");
  }
  EXPECT_EQ(refused({"publish", "--renew", "--sign-with", "k", ""}).error,
            "varn-scripts: SOURCE_DIR must not be empty\n"
            "varn-scripts --help tells how it is used.\n");
}

TEST(PublishCommandLine, RefusesWhatDoesNotGoTogether) {
  const std::pair<std::vector<std::string>, std::string> rows[] = {
      {{"--expires", "1d"}, "--expires: needs --sign-with or --unsigned-for"},
      {{"--passphrase-file", "w"}, "--passphrase-file: needs --sign-with"},
      {{"--renew"}, "--renew: needs --sign-with"},
      {{"--unsigned-for", "d"}, "--unsigned-for: needs --signed-by"},
      {{"--attach", "s"}, "--attach: needs --signed-by"},
      {{"--signed-by", "p"}, "--signed-by: needs --attach or --unsigned-for"},
      {{"--signed-by", "p", "--sign-with", "k"}, "--signed-by: needs --attach or --unsigned-for"},
      {{"--renew", "--sign-with", "k", "--attach", "s", "--signed-by", "p"},
       "--renew: excludes --attach"},
      {{"--unsigned-for", "d", "--signed-by", "p", "--sign-with", "k"},
       "--unsigned-for: excludes --sign-with"},
      {{"--unsigned-for", "d", "--signed-by", "p", "--check"}, "--unsigned-for: excludes --check"},
      {{"--unsigned", "--sign-with", "k"}, "--unsigned: excludes --sign-with"},
      {{"--sign-with", ""}, "--sign-with must not be empty"},
      {{"--sign-with", "k", "--passphrase-file="}, "--passphrase-file must not be empty"},
  };
  for (const auto& [options, why] : rows) {
    std::vector<std::string> arguments = {"publish", "in", "out"};
    arguments.insert(arguments.end(), options.begin(), options.end());
    const Reply reply = refused(arguments);
    EXPECT_EQ(reply.exitStatus, 2);
    EXPECT_EQ(reply.error,
              "varn-scripts: " + why + "\nvarn-scripts --help tells how it is used.\n");
  }
}

TEST(PublishCommandLine, NeedsBothDirectories) {
  const std::pair<std::vector<std::string>, std::string> rows[] = {
      {{"publish"}, "SOURCE_DIR"},
      {{"publish", "in"}, "OUTPUT_DIR"},
      {{"publish", "--sign-with", "k"}, "SOURCE_DIR"},
      {{"publish", "--renew", "--sign-with", "k"}, "OUTPUT_DIR"},
      {{"publish", "--sign-with", "k", "--renew"}, "OUTPUT_DIR"},
  };
  for (const auto& [arguments, name] : rows) {
    EXPECT_EQ(refused(arguments).error, "varn-scripts: " + name +
                                            " is required\n"
                                            "varn-scripts --help tells how it is used.\n");
  }
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
