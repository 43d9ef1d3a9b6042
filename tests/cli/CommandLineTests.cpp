// How a command line is taken, and what is answered at once.

#include <gtest/gtest.h>

#include <string>
#include <variant>
#include <vector>

#include "CommandLine.h"

namespace VarnScripts {
namespace {

using Arguments = std::vector<std::string>;
using Codes = std::vector<std::string>;

CommandLine lineFrom(const Arguments& arguments) {
  auto result = parseCommandLine(arguments);
  if (const auto* reply = std::get_if<Reply>(&result)) {
    ADD_FAILURE() << reply->output << reply->error;
    return {};
  }
  return std::get<CommandLine>(result);
}

Reply replyTo(const Arguments& arguments) {
  auto result = parseCommandLine(arguments);
  if (auto* reply = std::get_if<Reply>(&result)) return *reply;
  ADD_FAILURE() << "taken: " << testing::PrintToString(arguments);
  return {};
}

TEST(ParseCommandLine, TheThreeCommandsAreTaken) {
  EXPECT_EQ(lineFrom({"run", "42"}).command->name, "run");
  EXPECT_EQ(lineFrom({"run", "42"}).scriptID, "42");
  EXPECT_EQ(lineFrom({"prune"}).command->name, "prune");
  EXPECT_EQ(lineFrom({"list"}).command->name, "list");
}

TEST(ParseCommandLine, TheCommandsOfKeyAreTaken) {
  const CommandLine made = lineFrom({"key", "generate", "k", "--no-passphrase"});
  EXPECT_EQ(made.command->name, "key generate");
  EXPECT_EQ(made.key.file, "k");
  EXPECT_TRUE(made.key.noPassphrase);
  const CommandLine shown =
      lineFrom({"--customer", "7", "key", "show", "k", "--passphrase-file=p"});
  EXPECT_EQ(shown.command->name, "key show");
  EXPECT_EQ(shown.key.passphraseFile, "p");
  EXPECT_EQ(shown.flags, (SettingTexts{{"customer", "7"}}));
  const CommandLine verified =
      lineFrom({"key", "verify", "--trusted-key", "a", "list", "--trusted-key", "b", "--signature",
                "s", "--signatures-needed", "2", "--quiet"});
  EXPECT_EQ(verified.command->name, "key verify");
  EXPECT_EQ(verified.key.file, "list");
  EXPECT_EQ(verified.key.signatures, std::vector<std::string>{"s"});
  EXPECT_EQ(
      verified.flags,
      (SettingTexts{{"trusted_keys", "a\nb"}, {"signatures_needed", "2"}, {"quiet", "true"}}));
}

TEST(ParseCommandLine, TheCommandsOfKeyRefuseWhatIsEmptyMissingOrTooMuch) {
  for (const Arguments& arguments :
       {Arguments{"key", "generate"}, Arguments{"key", "generate", ""},
        Arguments{"key", "generate", "k", "more"},
        Arguments{"key", "generate", "k", "--no-passphrase", "--passphrase-file", "p"},
        Arguments{"key", "generate", "k", "--passphrase-file="},
        Arguments{"key", "generate", "k", "--passphrase", "p"},
        Arguments{"key", "verify", "list", "--trusted-key="},
        Arguments{"run", "42", "--trusted-key"},
        Arguments{"key", "verify", "list", "--trusted-key", "a", ""}}) {
    EXPECT_EQ(replyTo(arguments).exitStatus, 2) << testing::PrintToString(arguments);
  }
}

TEST(ParseCommandLine, GlobalOptionsStandBeforeAndAfterTheCommand) {
  const SettingTexts expected = {{"base_path", "/b"}, {"customer", "7"}, {"quiet", "true"}};
  for (const Arguments& arguments :
       {Arguments{"--base-path", "/b", "--customer=7", "--quiet", "run", "42"},
        Arguments{"run", "--base-path", "/b", "42", "--customer", "7", "--quiet"},
        Arguments{"--base-path=/b", "run", "42", "--quiet", "--customer=7"}}) {
    const CommandLine line = lineFrom(arguments);
    EXPECT_EQ(line.flags, expected) << testing::PrintToString(arguments);
    EXPECT_EQ(line.scriptID, "42") << testing::PrintToString(arguments);
  }
}

TEST(ParseCommandLine, EverySettingIsAFlag) {
  const CommandLine line = lineFrom({"--config",
                                     "f",
                                     "--base-path",
                                     "a",
                                     "--data-path",
                                     "b",
                                     "--customer",
                                     "c",
                                     "--server",
                                     "d",
                                     "--ca-file",
                                     "e",
                                     "--client-cert",
                                     "g",
                                     "--client-key",
                                     "h",
                                     "--proxy",
                                     "i",
                                     "--header-file",
                                     "n",
                                     "--netrc-file",
                                     "o",
                                     "--retry",
                                     "p",
                                     "--max-download",
                                     "j",
                                     "--max-output",
                                     "m",
                                     "--log-format",
                                     "k",
                                     "--log-file",
                                     "l",
                                     "--trusted-key",
                                     "s",
                                     "--signatures-needed",
                                     "t",
                                     "--log-level",
                                     "q",
                                     "--log-target",
                                     "r",
                                     "--verbose",
                                     "--quiet",
                                     "list"});
  const SettingTexts expected = {
      {"base_path", "a"},    {"data_path", "b"},         {"customer", "c"},   {"server", "d"},
      {"ca_file", "e"},      {"client_cert", "g"},       {"client_key", "h"}, {"proxy", "i"},
      {"header_file", "n"},  {"netrc_file", "o"},        {"retry", "p"},      {"max_download", "j"},
      {"max_output", "m"},   {"log_format", "k"},        {"log_file", "l"},   {"log_level", "q"},
      {"trusted_keys", "s"}, {"signatures_needed", "t"}, {"log_target", "r"}, {"verbose", "true"},
      {"quiet", "true"}};
  EXPECT_EQ(line.flags, expected);
  EXPECT_EQ(line.configFile, "f");
}

TEST(ParseCommandLine, NothingGivenIsNothingSet) {
  const CommandLine line = lineFrom({"run", "42"});
  EXPECT_EQ(line.flags, SettingTexts{});
  EXPECT_EQ(line.configFile, "");
  EXPECT_EQ(line.acceptCodes, std::nullopt);
  EXPECT_FALSE(line.json);
}

TEST(ParseCommandLine, AcceptedCodesAreSplitAtCommas) {
  const struct {
    const char* list;
    Codes codes;
  } rows[] = {
      {"", {}},
      {"0", {"0"}},
      {"0,3", {"0", "3"}},
      {"255,1", {"255", "1"}},
  };
  for (const auto& row : rows) {
    EXPECT_EQ(lineFrom({"run", "42", "--accept-codes", row.list}).acceptCodes, row.codes)
        << row.list;
    EXPECT_EQ(lineFrom({"run", std::string("--accept-codes=") + row.list, "42"}).acceptCodes,
              row.codes)
        << row.list;
  }
}

TEST(ParseCommandLine, WhatNoExitCodeCanBeIsNoAcceptedCode) {
  for (const char* const list : {"0,", ",", " 0 , 3", "-1,0", "[0,3]", "--json", "256", "03", "0x1",
                                 "0 3", "4294967296", "1e1", "+1"}) {
    const Reply reply = replyTo({"run", "42", std::string("--accept-codes=") + list});
    EXPECT_EQ(reply.exitStatus, 2) << list;
    EXPECT_NE(reply.error.find("they are 0 to 255"), std::string::npos) << reply.error;
  }
}

TEST(ParseCommandLine, AToggleMayBeTurnedOff) {
  EXPECT_EQ(lineFrom({"--quiet=false", "list"}).flags, (SettingTexts{{"quiet", "false"}}));
  EXPECT_EQ(lineFrom({"--quiet=true", "list"}).flags, (SettingTexts{{"quiet", "true"}}));
}

TEST(ParseCommandLine, AToggleMayHaveALetter) {
  const SettingTexts expected = {{"verbose", "true"}};
  for (const Arguments& arguments :
       {Arguments{"-v", "list"}, Arguments{"list", "-v"}, Arguments{"-vv", "list"}}) {
    EXPECT_EQ(lineFrom(arguments).flags, expected) << testing::PrintToString(arguments);
  }
  EXPECT_EQ(lineFrom({"--verbose=false", "list"}).flags, (SettingTexts{{"verbose", "false"}}));
}

TEST(ParseCommandLine, OutputIsFollowedAsTextAlone) {
  EXPECT_FALSE(lineFrom({"run", "42"}).follow);
  EXPECT_TRUE(lineFrom({"run", "--follow", "42"}).follow);
  for (const Arguments& arguments : {Arguments{"run", "42", "--follow", "--json"},
                                     Arguments{"run", "--json", "--follow", "42"}}) {
    EXPECT_EQ(replyTo(arguments).exitStatus, 2);
    EXPECT_NE(replyTo(arguments).error.find("--json excludes --follow"), std::string::npos)
        << replyTo(arguments).error;
  }
  EXPECT_EQ(replyTo({"plan", "42", "--follow"}).exitStatus, 2);
}

TEST(ParseCommandLine, AnEmptyValueAfterAnEqualsSignTakesNothingElse) {
  const CommandLine line = lineFrom({"run", "--accept-codes=", "--json", "42"});
  EXPECT_EQ(line.acceptCodes, Codes{});
  EXPECT_TRUE(line.json);
  EXPECT_EQ(line.scriptID, "42");
}

TEST(ParseCommandLine, AnyTextIsAScriptId) {
  for (const char* id : {"run", "list", "prune", "[1,2]", "a b", "%", "-5", "a=", "\xff"}) {
    EXPECT_EQ(lineFrom({"run", id}).scriptID, id);
  }
  for (const char* id : {"--json", "-x", "--a=", "--"}) {
    EXPECT_EQ(lineFrom({"run", "--", id}).scriptID, id);
  }
  EXPECT_TRUE(lineFrom({"run", "--json", "--", "--json"}).json);
}

TEST(ParseCommandLine, JsonBelongsToAllButPublish) {
  EXPECT_TRUE(lineFrom({"run", "42", "--json"}).json);
  EXPECT_TRUE(lineFrom({"list", "--json"}).json);
  EXPECT_TRUE(lineFrom({"prune", "--json"}).json);
  EXPECT_EQ(replyTo({"publish", "a", "b", "--json"}).exitStatus, 2);
}

TEST(ParseCommandLine, ServerIsAFlagOfListWhenNoUrlFollows) {
  struct Case {
    Arguments arguments;
    bool listServer;
    SettingTexts flags;
  };
  for (const Case& each :
       {Case{{"list", "--server"}, true, {}}, Case{{"list", "--server", "--json"}, true, {}},
        Case{{"list", "--json", "--server"}, true, {}},
        Case{{"--server", "file:///a", "list"}, false, {{"server", "file:///a"}}},
        Case{{"list", "--server", "file:///a"}, false, {{"server", "file:///a"}}},
        Case{{"list", "--server=file:///a"}, false, {{"server", "file:///a"}}},
        Case{{"list", "--server", "--server", "file:///a", "--quiet"},
             true,
             {{"server", "file:///a"}, {"quiet", "true"}}},
        Case{{"list", "--server=file:///a", "--server"}, true, {{"server", "file:///a"}}},
        Case{{"--server", "file:///a", "list", "--server"}, true, {{"server", "file:///a"}}}}) {
    const CommandLine line = lineFrom(each.arguments);
    const std::string shown = testing::PrintToString(each.arguments);
    EXPECT_EQ(line.listServer, each.listServer) << shown;
    EXPECT_EQ(line.flags, each.flags) << shown;
    EXPECT_EQ(line.needed() == NeededSettings::request, each.listServer) << shown;
  }
  EXPECT_EQ(lineFrom({"run", "42", "--server", "file:///a"}).flags,
            (SettingTexts{{"server", "file:///a"}}));
  EXPECT_EQ(lineFrom({"run", "--", "list"}).scriptID, "list");
  for (const Arguments& wrong :
       {Arguments{"run", "42", "--server"}, Arguments{"list", "--server", ""},
        Arguments{"list", "--server="}, Arguments{"prune", "--server"}}) {
    EXPECT_EQ(replyTo(wrong).exitStatus, 2) << testing::PrintToString(wrong);
  }
}

TEST(ParseCommandLine, ADryRunBelongsToPrune) {
  EXPECT_TRUE(lineFrom({"prune", "--dry-run"}).dryRun);
  EXPECT_TRUE(lineFrom({"prune", "--dry-run", "--json"}).json);
  EXPECT_FALSE(lineFrom({"prune"}).dryRun);
  EXPECT_EQ(replyTo({"list", "--dry-run"}).exitStatus, 2);
}

TEST(ParseCommandLine, AMistakeIsAUsageError) {
  for (const Arguments& arguments :
       {Arguments{}, Arguments{"publish"}, Arguments{"run"}, Arguments{"run", ""},
        Arguments{"run", "1", "2"}, Arguments{"--nope", "list"}, Arguments{"run", "42", "-x"},
        Arguments{"prune", "--server"}, Arguments{"list", "prune"}, Arguments{"list", "extra"},
        Arguments{"--customer", "1", "list", "--customer", "2"},
        Arguments{"list", "--accept-codes", "0"}}) {
    const Reply reply = replyTo(arguments);
    EXPECT_EQ(reply.exitStatus, 2) << testing::PrintToString(arguments);
    EXPECT_EQ(reply.output, "") << testing::PrintToString(arguments);
    EXPECT_TRUE(reply.error.starts_with("varn-scripts: ")) << reply.error;
    EXPECT_TRUE(reply.error.ends_with("\nvarn-scripts --help tells how it is used.\n"))
        << reply.error;
  }
  EXPECT_EQ(replyTo({"run", ""}).error,
            "varn-scripts: SCRIPT_ID must not be empty\n"
            "varn-scripts --help tells how it is used.\n");
}

// A variable of a shell that is not set: what it stood for must not be read or written elsewhere.
TEST(ParseCommandLine, AnEmptyOperandOrValueIsNamed) {
  const auto firstLine = [](const Arguments& arguments) {
    const std::string error = replyTo(arguments).error;
    return error.substr(0, error.find('\n'));
  };
  const struct {
    Arguments arguments;
    const char* name;
  } operands[] = {
      {{"run", ""}, "SCRIPT_ID"},
      {{"plan", ""}, "SCRIPT_ID"},
      {{"publish", "", "out"}, "SOURCE_DIR"},
      {{"publish", "in", ""}, "OUTPUT_DIR"},
      {{"publish", "in", "", "--check"}, "OUTPUT_DIR"},
      {{"publish", "in", "out", "--digest", ""}, "--digest"},
  };
  for (const auto& [arguments, name] : operands) {
    EXPECT_EQ(firstLine(arguments), "varn-scripts: " + std::string(name) + " must not be empty")
        << testing::PrintToString(arguments);
  }
  for (const std::string option :
       {"--config", "--base-path", "--data-path", "--customer", "--server", "--ca-file",
        "--client-cert", "--client-key", "--proxy", "--header-file", "--netrc-file", "--retry",
        "--max-download", "--max-output", "--log-format", "--log-file"}) {
    for (const Arguments& arguments :
         {Arguments{option, "", "list"}, Arguments{option + "=", "run", "42"},
          Arguments{"publish", "in", "out", option, ""}}) {
      EXPECT_EQ(firstLine(arguments), "varn-scripts: " + option + " must not be empty")
          << testing::PrintToString(arguments);
    }
  }
  EXPECT_EQ(replyTo({"publish", "in", "out", "--keep-for", ""}).exitStatus, 2);
}

TEST(ParseCommandLine, AnUnknownOrMissingCommandIsNamed) {
  const auto firstLine = [](const Arguments& arguments) {
    const std::string error = replyTo(arguments).error;
    return error.substr(0, error.find('\n'));
  };
  EXPECT_EQ(firstLine({"--quiet", "rnu", "42"}),
            "varn-scripts: there is no command rnu; the commands are run, plan, prune, list, "
            "publish and key; did you mean run?");
  EXPECT_EQ(firstLine({"--quiet", "key", "shwo", "k"}),
            "varn-scripts: there is no command shwo of key; the commands are generate, show and "
            "verify; did you mean show?");
  EXPECT_EQ(firstLine({"key"}),
            "varn-scripts: a command of key is missing; the commands are generate, show and "
            "verify");
  EXPECT_EQ(
      firstLine({"run", "42", "--accept-code", "0"}),
      "varn-scripts: The following arguments were not expected: 0 --accept-code; did you mean "
      "--accept-codes?");
  EXPECT_EQ(firstLine({"list", "--customr=7"}),
            "varn-scripts: The following argument was not expected: --customr=7; did you mean "
            "--customer?");
  EXPECT_EQ(firstLine({"--quiet"}),
            "varn-scripts: a command is missing; the commands are run, plan, prune, list, "
            "publish and key");
  EXPECT_EQ(firstLine({"--nope", "list"}),
            "varn-scripts: The following argument was not expected: --nope");
}

TEST(ParseCommandLine, ASecretOnTheCommandLineIsNotRepeated) {
  const auto firstLine = [](const Arguments& arguments) {
    const std::string error = replyTo(arguments).error;
    return error.substr(0, error.find('\n'));
  };
  const std::string why = " is no option: other users can see what stands on a command line";
  const std::string remedy = "; --passphrase-file takes a passphrase from a file";
  for (const Arguments& arguments : {Arguments{"key", "generate", "k", "--passphrase", "words"},
                                     {"key", "generate", "--passphrase", "words"},
                                     {"key", "show", "k", "--passphrase=words"},
                                     {"publish", "in", "out", "--passphrase", "words"},
                                     {"key", "generate", "--passphrase"}}) {
    EXPECT_EQ(firstLine(arguments), "varn-scripts: --passphrase" + why + remedy)
        << testing::PrintToString(arguments);
  }
  EXPECT_EQ(firstLine({"run", "42", "--password", "words"}), "varn-scripts: --password" + why);
}

TEST(ParseCommandLine, HelpOfACommandHasTheCommandsOwnExitStatuses) {
  const std::string prune = replyTo({"prune", "--help"}).output;
  EXPECT_NE(prune.find("3 the server's list or the store can't be had."), std::string::npos)
      << prune;
  EXPECT_EQ(prune.find("accepted"), std::string::npos) << prune;
  const std::string publish = replyTo({"publish", "--help"}).output;
  EXPECT_NE(publish.find("\n  --keep-for TIME  "), std::string::npos) << publish;
}

TEST(ParseCommandLine, HelpAndVersionAreAnswered) {
  EXPECT_EQ(replyTo({"--version"}).exitStatus, 0);
  EXPECT_TRUE(replyTo({"--version"}).output.starts_with("varn-scripts 0."));
  const Reply help = replyTo({"--help"});
  EXPECT_EQ(help.exitStatus, 0);
  EXPECT_EQ(help.error, "");
  for (const char* part : {"run", "prune", "list", "--config", "--base-path", "--max-download"}) {
    EXPECT_NE(help.output.find(part), std::string::npos) << part;
  }
  const Reply runHelp = replyTo({"run", "--help"});
  EXPECT_EQ(runHelp.exitStatus, 0);
  EXPECT_NE(runHelp.output.find("--accept-codes"), std::string::npos);
}

}  // namespace
}  // namespace VarnScripts
