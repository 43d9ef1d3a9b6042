// What is said of scripts that the interpreters of this computer can't read. None of them is run.

#include <gmock/gmock.h>
#include <sys/stat.h>

#include <filesystem>

#include "SourceFixture.h"
#include "publish/Syntax.h"

namespace VarnScripts::publishing {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::StartsWith;

class SyntaxTest : public SourceTest {
 protected:
  std::vector<std::string> syntaxOf(const std::vector<std::string>& names) const {
    std::vector<std::string> paths;
    for (const std::string& name : names) paths.push_back(path(name));
    Findings findings;
    checkSyntax(paths, findings, std::chrono::seconds(60));
    std::vector<std::string> texts;
    for (const Finding& finding : findings.all()) {
      EXPECT_EQ(finding.kind, Finding::Kind::warning);
      texts.push_back(textOf(finding).substr(directory_.size() + 1));
    }
    return texts;
  }
};

TEST_F(SyntaxTest, OfGoodScriptsIsNotSpokenOf) {
  write("a.sh", "if true; then echo a; fi\n");
  write("a.py", "import nothing_of_this_name\nprint('a')\n");
  write("b.py", "# coding: latin-1\nprint('\xe9')\nx = '\\d'\n");
  write("-n.sh", "echo\n");
  EXPECT_THAT(syntaxOf({"a.sh", "a.py", "b.py", "-n.sh"}), IsEmpty());
  EXPECT_THAT(syntaxOf({}), IsEmpty());
}

TEST_F(SyntaxTest, OfAShellScriptIsThatOfTheShell) {
  write("a.sh", "#!/bin/sh\n\nif true; then\n  echo a\n");
  write("b c.sh", "echo $(\n");
  const auto found = syntaxOf({"a.sh", "b c.sh"});
  ASSERT_EQ(found.size(), 2U);
  EXPECT_THAT(found[0], StartsWith("a.sh:5: warning: /bin/sh can't read the script: "));
  EXPECT_THAT(found[0], HasSubstr("; correct it"));
  EXPECT_THAT(found[1], StartsWith("b c.sh:2: warning: /bin/sh can't read the script: "));
}

TEST_F(SyntaxTest, OfAPythonScriptIsThatOfPython) {
  write("a.py", "x = 1\nprint 'a'\n");
  write("b.py", "print('b')\n");
  write("c.py", std::string("x = 1\0", 6));
  write("d.py", "if x:\nprint()\n");
  const auto found = syntaxOf({"a.py", "b.py", "c.py", "d.py"});
  ASSERT_EQ(found.size(), 3U);
  EXPECT_THAT(found[0], StartsWith("a.py:2: warning: /usr/bin/python3 can't read the script: "));
  EXPECT_THAT(found[1], StartsWith("c.py: warning: /usr/bin/python3 can't read the script: "));
  EXPECT_THAT(found[2], StartsWith("d.py:2: warning: /usr/bin/python3 can't read the script: "));
}

TEST_F(SyntaxTest, OfAPerlScriptIsThatOfPerl) {
  write("a.pl",
        "#!/usr/bin/perl -w\n# what it does\nuse strict;\nuse POSIX qw(floor);\n\nmy @a = (1;\n");
  write("b.pl", "use v5.10;\nuse strict;\n$undeclared = 1;\n");
  write("c.pl", "use strict; # always\nuse Getopt::Long 'GetOptions', ':config';\nprint 'a';\n");
  write("-d.pl", "print sub { 1 }->(), f();\nsub f { 2 }\nsub g($) { 3 }\n");
  const auto found = syntaxOf({"a.pl", "b.pl", "c.pl", "-d.pl"});
  ASSERT_EQ(found.size(), 2U);
  EXPECT_THAT(found[0],
              StartsWith("a.pl:6: warning: /usr/bin/perl can't read the script: syntax error"));
  EXPECT_THAT(found[1], StartsWith("b.pl:3: warning: /usr/bin/perl can't read the script: Global"));
}

TEST_F(SyntaxTest, OfAPerlScriptThatWouldRunSomethingMeanwhileIsNotAskedFor) {
  const std::string touched = path("touched");
  const std::string touch = "open F, '>', '" + touched + "'";
  const std::string utf16 = [&] {
    std::string wide;
    for (const char byte : "BEGIN { " + touch + " }\n") (wide += byte) += '\0';
    return wide;
  }();
  std::filesystem::create_directory(path("elsewhere"));
  write("elsewhere/Module.pm", touch + ";\n1;\n");
  const std::vector<std::string> scripts = {
      "BEGIN { " + touch + " }\n(",
      "CHECK { " + touch + " }\n(",
      "UNITCHECK { " + touch + " }\n",
      "sub BEGIN { " + touch + " }\n",
      "use strict; BEGIN { " + touch + " }\n",
      "use strict (" + touch + ");\n",
      "use strict scalar(" + touch + ");\n",
      "use POSIX qw(floor), scalar(" + touch + ");\n",
      "sub evil { " + touch + " }\nuse POSIX evil;\n",
      "use\nstrict (" + touch + ");\n",
      "use lib '" + path("elsewhere") + "';\nuse Module;\n",
      "use if 1, lib => '" + path("elsewhere") + "'; use Module;\n",
      "no strict (" + touch + ");\n",
      "sub CORE::GLOBAL::caller { " + touch + " }\nuse POSIX;\n",
      "sub CORE'GLOBAL'caller { " + touch + " }\nuse POSIX;\n",
      "package CORE::GLOBAL; sub caller { " + touch + " }\npackage main; use POSIX;\n",
      "sub POSIX::export_fail { " + touch + " }\nuse POSIX;\n",
      "sub MODIFY_SCALAR_ATTRIBUTES { " + touch + "; return }\nmy $a : Attribute;\n",
      "sub MODIFY_CODE_ATTRIBUTES { " + touch + "; return }\nsub f : Attribute { 1 }\n",
      "#!/bin/sh\ntouch '" + touched + "'\n",
      "#! /usr/bin/env sh\ntouch '" + touched + "'\n",
      "#!/usr/bin/perl -I" + path("elsewhere") + " -MModule\nprint 1;\n",
      "#!/usr/bin/perl -d\nprint 1;\n",
      "\xFF\xFE" + utf16,
      utf16,
  };
  ::setenv("PERL5LIB", path("elsewhere").c_str(), 1);
  for (const std::string& script : scripts) {
    write("a.pl", script);
    EXPECT_THAT(syntaxOf({"a.pl"}), IsEmpty()) << script;
    EXPECT_FALSE(std::filesystem::exists(touched)) << script;
    std::filesystem::remove(touched);
  }
  // Any of them that Perl is asked for in earnest tells that the test would notice.
  write("a.pl", scripts.front());
  EXPECT_NE(::system(("/usr/bin/perl -c '" + path("a.pl") + "' >/dev/null 2>&1").c_str()), 0);
  EXPECT_TRUE(std::filesystem::exists(touched));
}

TEST_F(SyntaxTest, OfMoreScriptsThanOneProcessReadsIsThatOfEach) {
  std::vector<std::string> names;
  for (int number = 0; number < 450; ++number) {
    names.push_back(std::to_string(number) + ".py");
    write(names.back(), number % 150 == 149 ? "(\n" : "x = 1\n");
  }
  const auto found = syntaxOf(names);
  ASSERT_EQ(found.size(), 3U);
  EXPECT_THAT(found[0], StartsWith("149.py:1: "));
  EXPECT_THAT(found[1], StartsWith("299.py:1: "));
  EXPECT_THAT(found[2], StartsWith("449.py:1: "));
}

TEST_F(SyntaxTest, IsLookedAtWithoutRunningAnything) {
  const std::string touched = path("touched");
  write("a.sh", "#!/bin/sh\necho a >'" + touched + "'\n$(touch '" + touched + "')\n");
  write("a.py", "open(r'" + touched + "', 'w')\n");
  // Perl runs this when it is asked for the syntax, and starts what the first line names.
  write("a.pl", "#!/bin/sh\nBEGIN { open F, '>', '" + touched + "' }\n");
  write("b.pl", "BEGIN { open F, '>', '" + touched + "' }\n");
  write("a.scpt", "do shell script \"touch '" + touched + "'\"\n");
  // Beside the scripts lies what an interpreter could load while it starts.
  write("codecs.py", "open(r'" + touched + "', 'w')\n");
  write("sitecustomize.py", "open(r'" + touched + "', 'w')\n");
  ::setenv("PYTHONPATH", directory_.c_str(), 1);
  ::setenv("PYTHONSTARTUP", path("sitecustomize.py").c_str(), 1);
  ::setenv("ENV", path("a.sh").c_str(), 1);
  ::setenv("BASH_ENV", path("a.sh").c_str(), 1);
  EXPECT_THAT(syntaxOf({"a.sh", "a.py", "a.pl", "b.pl", "a.scpt", "codecs.py"}), IsEmpty());
  EXPECT_FALSE(std::filesystem::exists(touched));
  EXPECT_FALSE(std::filesystem::exists(path("__pycache__")));
}

TEST_F(SyntaxTest, IsGivenUpWhenTheInterpreterIsSilentForTooLong) {
  // Nobody writes to it, so whoever opens it waits.
  ASSERT_EQ(::mkfifo(path("a.sh").c_str(), S_IRWXU), 0);
  ASSERT_EQ(::mkfifo(path("b.py").c_str(), S_IRWXU), 0);
  write("c.py", "(\n");
  Findings findings;
  checkSyntax({path("a.sh"), path("b.py"), path("c.py")}, findings, std::chrono::seconds(2));
  std::vector<std::string> texts;
  for (const Finding& finding : findings.all()) {
    texts.push_back(textOf(finding).substr(directory_.size() + 1));
  }
  ASSERT_EQ(texts.size(), 3U);
  EXPECT_EQ(texts[0],
            "b.py: warning: /usr/bin/python3 can't read the script: it takes longer than 2 s; "
            "correct it");
  EXPECT_THAT(texts[1], StartsWith("c.py:1: warning: /usr/bin/python3 can't read the script: "));
  EXPECT_EQ(texts[2],
            "a.sh: warning: /bin/sh can't read the script: it takes longer than 2 s; correct it");
}

}  // namespace
}  // namespace VarnScripts::publishing
