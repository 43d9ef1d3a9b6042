// What is said about scripts that clients could not use, or would use in another way than meant.

#include <gmock/gmock.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>

#include "SourceFixture.h"
#include "publish/Names.h"

namespace VarnScripts::publishing {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

std::string twoScripts(const std::string& firstID, const std::string& firstFile,
                       const std::string& secondID, const std::string& secondFile) {
  return "[[script]]\nid = \"" + firstID + "\"\nfile = \"" + firstFile + "\"\n" +
         "[[script]]\nid = \"" + secondID + "\"\nfile = \"" + secondFile + "\"\n";
}

// ---- IDs -------------------------------------------------------------------------------------

class ScriptIDs : public SourceTest {
 protected:
  void SetUp() override {
    SourceTest::SetUp();
    write("a.sh", "echo a\n");
    write("b.sh", "echo b\n");
  }

  std::vector<std::string> findingsOfID(const std::string& id) {
    return findingsOf(twoScripts(id, "a.sh", "other", "b.sh"));
  }
};

TEST_F(ScriptIDs, AreRefusedWhenTheyRepeat) {
  EXPECT_THAT(
      findingsOf(twoScripts("42", "a.sh", "42", "b.sh")),
      ElementsAre("S/scripts.toml:5: the ID \"42\" is already that of the script in line 2; "
                  "give each script an ID of its own"));
}

TEST_F(ScriptIDs, AreRefusedWhenTheyAreCanonicallyEquivalent) {
  EXPECT_THAT(
      findingsOf(twoScripts("caf\u00e9", "a.sh", "cafe\u0301", "b.sh")),
      ElementsAre("S/scripts.toml:5: the ID \"cafe\u0301\" is already that of the script in "
                  "line 2; give each script an ID of its own"));
}

TEST_F(ScriptIDs, AreRefusedWhenTheyDifferInCaseOnly) {
  EXPECT_THAT(findingsOf(twoScripts("clean", "a.sh", "Clean", "b.sh")),
              ElementsAre("S/scripts.toml:5: the ID \"Clean\" differs from \"clean\" in line 2 in "
                          "letter case only, and clients keep both documents in one file; give the "
                          "script another ID"));
}

TEST_F(ScriptIDs, MayHoldWhatAFileNameMay) {
  for (const char* const id : {"42", "a b", "50%", "caf\u00e9", ".hidden", "a.xml", "a-x", "#1?"}) {
    EXPECT_THAT(findingsOfID(id), IsEmpty()) << id;
  }
}

TEST_F(ScriptIDs, AreRefusedWhenNoFileCanBeNamedSo) {
  const std::string remedy = "; use letters, digits, \"-\", \"_\" and \".\"";
  const struct {
    std::string toml;
    std::string finding;
  } ids[] = {
      {"", "the ID \"\" is empty"},
      {".", "the ID \".\" is that of a directory"},
      {"..", "the ID \"..\" contains \"..\""},
      {"a/b", "the ID \"a/b\" contains a slash"},
      {"a\\nb", "the ID \"a\\nb\" contains a control character"},
      {"a\\u0000", "the ID \"a?\" contains a control character"},
      {"a\\u0085", "the ID \"a?\" contains a control character"},
      {"a\\u2028", "the ID \"a?\" contains a control character"},
      {"a\\uFFFE", "the ID \"a\xef\xbf\xbe\" contains U+FFFE, which the documents can't carry"},
  };
  for (const auto& [toml, finding] : ids) {
    EXPECT_THAT(findingsOfID(toml), ElementsAre("S/scripts.toml:2: " + finding + remedy)) << toml;
  }
  const std::string tooLong(201, 'a');
  EXPECT_THAT(findingsOfID(tooLong), ElementsAre("S/scripts.toml:2: the ID \"" + tooLong +
                                                 "\" is longer than 200 bytes" + remedy));
  EXPECT_THAT(findingsOfID(std::string(200, 'a')), IsEmpty());
}

TEST_F(ScriptIDs, AreRefusedWhenTheCommandWouldTakeThemForSomethingElse) {
  for (const std::string id : {"-x", "-", "--json"}) {
    EXPECT_THAT(findingsOfID(id),
                ElementsAre("S/scripts.toml:2: the ID \"" + id +
                            "\" begins with \"-\", and the command would take it for an option; "
                            "give the script another ID"));
  }
  EXPECT_THAT(findingsOfID(".varn-download-1"),
              ElementsAre("S/scripts.toml:2: the ID \".varn-download-1\" begins with "
                          "\".varn-download-\", and computers remove such files; give the script "
                          "another ID"));
}

TEST_F(ScriptIDs, AreRefusedInThePlaceOfTheList) {
  for (const std::string id : {"scripts-meta", "Scripts-META"}) {
    EXPECT_THAT(findingsOfID(id),
                ElementsAre("S/scripts.toml:2: the ID \"" + id +
                            "\" would put the script's document in the place of the list on "
                            "clients; give the script another ID"));
  }
}

// ---- File names ------------------------------------------------------------------------------

class ScriptFiles : public SourceTest {
 protected:
  std::vector<std::string> findingsOfFile(const std::string& file) {
    return findingsOf("[[script]]\nid = \"1\"\nfile = \"" + file + "\"\n");
  }
};

TEST_F(ScriptFiles, AreRefusedWhenTwoScriptsShareOne) {
  write("a.sh", "echo a\n");
  EXPECT_THAT(findingsOf(twoScripts("1", "a.sh", "2", "a.sh")),
              ElementsAre("S/scripts.toml:6: the file \"a.sh\" is already that of the script in "
                          "line 3, and clients keep all scripts in one directory; give each script "
                          "a file of its own"));
}

TEST_F(ScriptFiles, AreRefusedWhenTwoNamesDifferInCaseOnly) {
  write("a.sh", "echo a\n");
  write("A.sh", "echo A\n");
  EXPECT_THAT(findingsOf(twoScripts("1", "a.sh", "2", "A.sh")),
              ElementsAre("S/scripts.toml:6: the file \"A.sh\" differs from \"a.sh\" in line 3 in "
                          "letter case only, and clients keep all scripts in one directory; give "
                          "the script's file another name"));
}

TEST_F(ScriptFiles, AreRefusedWhenTwoNamesAreCanonicallyEquivalent) {
  write("\u00e9.sh", "echo a\n");
  write("e\u0301.sh", "echo b\n");
  EXPECT_THAT(findingsOf(twoScripts("1", "\u00e9.sh", "2", "e\u0301.sh")),
              ElementsAre("S/scripts.toml:6: the file \"e\u0301.sh\" is already that of the script "
                          "in line 3, and clients keep all scripts in one directory; give each "
                          "script a file of its own"));
}

TEST_F(ScriptFiles, AreRefusedOutsideOfTheDirectory) {
  const std::string remedy = "; put the file beside the manifest and give its bare name";
  EXPECT_THAT(
      findingsOfFile("sub/a.sh"),
      ElementsAre("S/scripts.toml:3: the file name \"sub/a.sh\" contains a slash" + remedy));
  EXPECT_THAT(findingsOfFile("/etc/a.sh"), ElementsAre("S/scripts.toml:3: the file name "
                                                       "\"/etc/a.sh\" contains a slash" +
                                                       remedy));
  EXPECT_THAT(findingsOfFile(".."),
              ElementsAre("S/scripts.toml:3: the file name \"..\" contains \"..\"" + remedy));
  EXPECT_THAT(findingsOfFile("..sh"),
              ElementsAre("S/scripts.toml:3: the file name \"..sh\" contains \"..\"" + remedy));
  EXPECT_THAT(findingsOfFile(""),
              ElementsAre("S/scripts.toml:3: the file name \"\" is empty" + remedy));
}

TEST_F(ScriptFiles, AreRefusedWithoutAnInterpreter) {
  for (const std::string name : {"a.rb", "a", "sh", "a.sh.txt", "a.", "a.bash"}) {
    EXPECT_THAT(findingsOfFile(name),
                ElementsAre("S/scripts.toml:3: the extension of \"" + name +
                            "\" has no interpreter; end the name in .py, .sh, .pl or .scpt"));
  }
}

TEST_F(ScriptFiles, AreRefusedWhenTheExtensionsCaseDiffers) {
  const struct {
    std::string name;
    std::string extension;
  } names[] = {{"a.SH", "sh"}, {"a.Py", "py"}, {"a.PL", "pl"}, {"a.Scpt", "scpt"}};
  for (const auto& [name, extension] : names) {
    EXPECT_THAT(findingsOfFile(name),
                ElementsAre("S/scripts.toml:3: the extension of \"" + name +
                            "\" has no interpreter, because its letter case counts; end the name "
                            "in ." +
                            extension));
  }
}

TEST_F(ScriptFiles, MayHaveAnyOfTheFourExtensions) {
  for (const std::string name : {"a.sh", "a.py", "a.pl", "a.scpt", ".sh", "a b.sh", "50%41.sh"}) {
    write(name, "x\n");
    EXPECT_THAT(findingsOfFile(name), IsEmpty()) << name;
    std::filesystem::remove(path(name));
  }
}

TEST_F(ScriptFiles, AreWarnedOfWhenOtherScriptsWouldLoadThemForAModule) {
  const struct {
    std::string name;
    std::string library;
  } names[] = {{"json.py", "Python"},     {"os.py", "Python"},       {"re.py", "Python"},
               {"_json.py", "Python"},    {"zoneinfo.py", "Python"}, {"__future__.py", "Python"},
               {"bytes_heavy.pl", "Perl"}};
  for (const auto& [name, library] : names) {
    write(name, "print 1\n");
    EXPECT_THAT(findingsOfFile(name),
                ElementsAre("S/scripts.toml:3: warning: the file name \"" + name +
                            "\" is that of a module of " + library +
                            "'s standard library, and other scripts may load the file in its "
                            "place; give the script's file another name"));
    std::filesystem::remove(path(name));
  }
  for (const std::string name :
       {"json.sh", "json.pl", "bytes_heavy.py", "JSON.py", "json.tool.py", "jso.py", "jsons.py",
        "strict.pl", ".py", " .py", "abc ast.py", "zz.py", "_.py", "a.py"}) {
    write(name, "print 1\n");
    EXPECT_THAT(findingsOfFile(name), IsEmpty()) << name;
    std::filesystem::remove(path(name));
  }
}

TEST_F(ScriptFiles, AreRefusedWhenTheyAreMissing) {
  EXPECT_THAT(findingsOfFile("a.sh"), ElementsAre("S/scripts.toml:3: the file \"a.sh\" is not in "
                                                  "S; put it there, or correct the name"));
}

TEST_F(ScriptFiles, AreRefusedWhenTheyAreNoRegularFile) {
  std::filesystem::create_directory(path("a.sh"));
  ASSERT_EQ(::mkfifo(path("b.sh").c_str(), S_IRWXU), 0);
  EXPECT_THAT(findingsOfFile("a.sh"), ElementsAre("S/scripts.toml:3: the file \"a.sh\" is not a "
                                                  "regular file; put the script itself there"));
  EXPECT_THAT(findingsOfFile("b.sh"), ElementsAre("S/scripts.toml:3: the file \"b.sh\" is not a "
                                                  "regular file; put the script itself there"));
}

TEST_F(ScriptFiles, AreRefusedWhenTheyAreLargerThanAnyComputerTakes) {
  write("a.sh", "");
  std::filesystem::resize_file(path("a.sh"), 1073741825);
  EXPECT_THAT(findingsOfFile("a.sh"),
              ElementsAre("S/scripts.toml:3: the file \"a.sh\" has more than 1073741824 bytes, "
                          "which is the most that computers take; make it smaller, or give "
                          "--max-download as the computers have it"));
}

TEST_F(ScriptFiles, AreRefusedUnderTheNamesOfDownloadsThatAreUnderWay) {
  for (const std::string name : {".varn-download-.sh", ".varn-download-abcdef.sh"}) {
    write(name, "x\n");
    EXPECT_THAT(findingsOfFile(name),
                ElementsAre("S/scripts.toml:3: the file name \"" + name +
                            "\" begins with \".varn-download-\", and computers remove such files; "
                            "give the script's file another name"));
  }
}

TEST_F(ScriptFiles, MayBeLinksThatStayInTheDirectory) {
  write("real.txt", "echo real\n");
  std::filesystem::create_symlink("real.txt", path("a.sh"));
  EXPECT_THAT(findingsOfFile("a.sh"), IsEmpty());
  ASSERT_EQ(source_.scripts.size(), 1U);
  EXPECT_EQ(source_.scripts[0].size, 10U);
}

TEST_F(ScriptFiles, AreRefusedWhenTheyAreLinksThatLeadOut) {
  // A directory whose name begins like the source's is another one all the same.
  std::filesystem::create_directory(directory_ + "-2");
  std::filesystem::copy_file("/etc/hostname", directory_ + "-2/secret");
  std::filesystem::create_symlink(directory_ + "-2/secret", path("a.sh"));
  std::filesystem::create_symlink("../source-2/secret", path("b.sh"));
  for (const std::string name : {"a.sh", "b.sh"}) {
    EXPECT_THAT(findingsOfFile(name),
                ElementsAre("S/scripts.toml:3: the file \"" + name +
                            "\" is a symbolic link that leads out of S; put the script itself "
                            "there"));
  }
}

// ---- Files that no entry names ---------------------------------------------------------------

using UnnamedFiles = SourceTest;

TEST_F(UnnamedFiles, AreWarnedOfInTheOrderOfTheirNames) {
  writeOneScript("");
  for (const char* const name : {"old.sh", "data.csv", "helper.py", "a.sh~", "scripts.toml.orig"}) {
    write(name, "x\n");
  }
  const std::string what =
      ": warning: no entry of the manifest names the file, so it is not published; give it an "
      "entry, or move it out of the directory";
  EXPECT_THAT(findings(), ElementsAre("S/a.sh~" + what, "S/data.csv" + what, "S/helper.py" + what,
                                      "S/old.sh" + what, "S/scripts.toml.orig" + what));
}

TEST_F(UnnamedFiles, MayBeForPeopleAndTheirTools) {
  writeOneScript("");
  for (const char* const name :
       {".gitignore", ".hidden.sh", "README", "README.txt", "notes.md", "LICENSE", "COPYING",
        "NOTICE", "CHANGELOG.rst", "CODEOWNERS", "Makefile"}) {
    write(name, "x\n");
  }
  std::filesystem::create_directory(path("directory"));
  write("directory/b.sh", "x\n");
  std::filesystem::create_symlink("nowhere", path("link"));
  EXPECT_THAT(findings(), IsEmpty());
}

TEST_F(UnnamedFiles, AreOnlyCountedWhenTheyAreMany) {
  writeOneScript("");
  for (int number = 10; number < 33; ++number) write(std::to_string(number), "x\n");
  const auto found = findings();
  ASSERT_EQ(found.size(), 11U);
  EXPECT_EQ(found[9].substr(0, 5), "S/19:");
  EXPECT_EQ(found[10],
            "S: warning: no entry of the manifest names 13 more files; give them entries, or move "
            "them out of the directory");
}

// ---- What the computers make of a script -----------------------------------------------------

class ScriptLines : public SourceTest {
 protected:
  std::vector<std::string> findingsIn(const std::string& file, const std::string& text,
                                      const std::string& keys = "") {
    write(file, text);
    auto found = findingsOf("[[script]]\nid = \"1\"\nfile = \"" + file + "\"\n" + keys);
    std::filesystem::remove(path(file));
    return found;
  }
};

TEST_F(ScriptLines, MayNameTheInterpreterThatTheComputersStart) {
  const struct {
    std::string file;
    std::vector<std::string> lines;
  } files[] = {
      {"a.sh",
       {"#!/bin/sh", "#! /bin/sh", "#!/usr/bin/sh", "#!/usr/bin/env sh", "#!/bin/sh -",
        "#!/bin/sh --", "#!/bin/sh\r", "#!sh", "#!", "#! ", "#!/usr/bin/env", "# /bin/bash", ""}},
      {"a.py",
       {"#!/usr/bin/python3", "#!/usr/bin/env python3", "#!/usr/bin/env python",
        "#!/usr/bin/env -S python3", "#!/usr/bin/env A=b python3"}},
      {"a.pl", {"#!/usr/bin/perl", "#!/usr/bin/perl -w", "#!/usr/bin/env perl"}},
      {"a.scpt", {"#!/usr/bin/osascript", "#!/usr/bin/env osascript"}},
  };
  for (const auto& [file, lines] : files) {
    for (const std::string& line : lines) {
      for (const auto& finding : findingsIn(file, line + "\nx\n")) {
        // A carriage return has a warning of its own.
        EXPECT_NE(finding.find("CR LF"), finding.npos) << line << ": " << finding;
      }
    }
  }
}

TEST_F(ScriptLines, AreWarnedOfWhenTheyNameAnotherInterpreter) {
  const struct {
    std::string file;
    std::string line;
    std::string named;
    std::string started;
  } rows[] = {
      {"a.sh", "#!/bin/bash", "/bin/bash", "/bin/sh"},
      {"a.sh", "#!/usr/bin/env bash", "bash", "/bin/sh"},
      {"a.sh", "#!/usr/bin/env -S bash -e", "bash", "/bin/sh"},
      {"a.sh", "#!/bin/zsh -f", "/bin/zsh", "/bin/sh"},
      {"a.sh", "#!/usr/bin/python3", "/usr/bin/python3", "/bin/sh"},
      {"a.py", "#!/usr/bin/python2", "/usr/bin/python2", "/usr/bin/python3"},
      {"a.py", "#!/usr/bin/env python3.12", "python3.12", "/usr/bin/python3"},
      {"a.py", "#!/opt/homebrew/bin/python3", "/opt/homebrew/bin/python3", "/usr/bin/python3"},
      {"a.py", "#!/bin/sh", "/bin/sh", "/usr/bin/python3"},
      {"a.pl", "#!/usr/local/bin/perl", "/usr/local/bin/perl", "/usr/bin/perl"},
      {"a.scpt", "#!/bin/sh", "/bin/sh", "/usr/bin/osascript"},
      {"a.sh", "#!\x1b[2J", "?[2J", "/bin/sh"},
  };
  for (const auto& [file, line, named, started] : rows) {
    EXPECT_THAT(findingsIn(file, line + "\nx\n"),
                ElementsAre("S/" + file + ":1: warning: the first line names \"" + named +
                            "\", but computers start the script with " + started +
                            "; write it for " + started + ", and name that in the first line"))
        << line;
  }
}

TEST_F(ScriptLines, AreWarnedOfWhenTheyHaveAnOptionThatNobodyGives) {
  EXPECT_THAT(findingsIn("a.sh", "#!/bin/sh -eu\nx\n"),
              ElementsAre("S/a.sh:1: warning: the first line has the option \"-eu\", but computers "
                          "start the script with /bin/sh alone; write it with set into a line of "
                          "its own, such as \"set -e\""));
  EXPECT_THAT(findingsIn("a.py", "#!/usr/bin/env -S python3 -u\nx\n"),
              ElementsAre("S/a.py:1: warning: the first line has the option \"-u\", but computers "
                          "start the script with /usr/bin/python3 alone; do without it"));
}

TEST_F(ScriptLines, AreWarnedOfWhenNoneOfThemDoesAnything) {
  const std::string what =
      ": warning: there is nothing to run in the script; write it, or take its entry out of the "
      "manifest";
  for (const std::string text : {"", "\n", " \t\r\n\n", "#!/bin/sh\n# later\n", "#x"}) {
    const auto found = findingsIn("a.sh", text);
    EXPECT_THAT(found, testing::Contains("S/a.sh" + what)) << text;
  }
  EXPECT_THAT(findingsIn("a.py", "# later\n"), ElementsAre("S/a.py" + what));
  EXPECT_THAT(findingsIn("a.scpt", "\n"), ElementsAre("S/a.scpt" + what));
  EXPECT_THAT(findingsIn("a.sh", "# says\n  :"), IsEmpty());
  EXPECT_THAT(findingsIn("a.scpt", "#x\n"), IsEmpty());
}

TEST_F(ScriptLines, AreWarnedOfWhenMacOSHasNoSuchCommand) {
  const std::string text = "#!/bin/sh\napt-get update\n";
  const std::string remedy = "; use what macOS has, or name the platform that the script is for";
  EXPECT_THAT(findingsIn("a.sh", text),
              ElementsAre("S/a.sh:2: warning: macOS has no apt-get, and the script's platform is "
                          "\"Mac\"" +
                          remedy));
  EXPECT_THAT(findingsIn("a.sh", text, "platform = \"macOS\"\n"),
              ElementsAre("S/a.sh:2: warning: macOS has no apt-get, and the script's platform is "
                          "\"macOS\"" +
                          remedy));
  EXPECT_THAT(findingsIn("a.sh", text, "platform = \"Linux\"\n"), IsEmpty());
  EXPECT_THAT(findingsIn("a.py", "apt-get\n"), IsEmpty());
}

// ---- Texts -----------------------------------------------------------------------------------

using ScriptTexts = SourceTest;

TEST_F(ScriptTexts, AreRefusedWhenNoDocumentCanCarryThem) {
  for (const std::string key : {"arguments", "accepted_codes", "name", "description", "platform"}) {
    writeOneScript(key + " = \"a\\u0001\"");
    const auto found = findings();
    ASSERT_FALSE(found.empty()) << key;
    EXPECT_EQ(found[0], "S/scripts.toml:4: " + key +
                            " contains U+0001, which the documents can't carry; take that "
                            "character out");
  }
  writeOneScript("description = \"line\\nbreak, tab\\t, <&>, ]]>, \\r and \\U0001F600\"");
  EXPECT_THAT(findings(), IsEmpty());
}

TEST_F(ScriptTexts, AreWarnedOfWhenNoRunCanMatchACode) {
  const struct {
    std::string codes;
    std::string finding;
  } lists[] = {
      {"\" 1\"", "\" 1\", because it contains a blank"},
      {"\"1 \"", "\"1 \", because it contains a blank"},
      {"\"01\"", "\"01\", because it has a leading zero"},
      {"\"00\"", "\"00\", because it has a leading zero"},
      {"\"+1\"", "\"+1\", because it has a plus sign"},
      {"\"-1\"", "\"-1\", because it is negative"},
      {"\"256\"", "\"256\", because it is larger than 255"},
      {"\"1000\"", "\"1000\", because it is larger than 255"},
      {"[256]", "\"256\", because it is larger than 255"},
      {"[-1]", "\"-1\", because it is negative"},
      {"\"\"", "\"\", because it is empty"},
      {"[]", "\"\", because it is empty"},
      {"\"0,\"", "\"\", because it is empty"},
      {"\"0x1\"", "\"0x1\", because it is no number"},
      {"\"zero\"", "\"zero\", because it is no number"},
  };
  for (const auto& [codes, finding] : lists) {
    writeOneScript("accepted_codes = " + codes);
    EXPECT_THAT(
        findings(),
        ElementsAre("S/scripts.toml:4: warning: no run matches the accepted code " + finding +
                    "; write whole numbers from 0 to 255 with nothing but a "
                    "comma between them"))
        << codes;
  }
}

TEST_F(ScriptTexts, AreWarnedOfForEachCode) {
  writeOneScript("accepted_codes = \"0, 1,,255\"");
  EXPECT_THAT(findings(),
              ElementsAre("S/scripts.toml:4: warning: no run matches the accepted code \" 1\", "
                          "because it contains a blank; write whole numbers from 0 to 255 with "
                          "nothing but a comma between them",
                          "S/scripts.toml:4: warning: no run matches the accepted code \"\", "
                          "because it is empty; write whole numbers from 0 to 255 with nothing but "
                          "a comma between them"));
}

TEST_F(ScriptTexts, AreWarnedOfWhenAQuoteIsNeverClosed) {
  const std::vector<std::string> warning = {
      "S/scripts.toml:4: warning: the arguments open a quotation mark that is never closed; close "
      "it, or all that follows it is one argument"};
  for (const std::string text : {"\"", "say \"hello", "\"a\"\"b", "x \"", "\"a \\n"}) {
    writeOneScript("arguments = '''" + text + "'''");
    EXPECT_EQ(findings(), warning) << text;
  }
  // A quote inside a plain word is a character like any other, and so is the single quote.
  for (const std::string text : {"", "a\"b", "x\"", "\"\"", "\"a b\" c", "it's", "\"a\"b ", "\n"}) {
    writeOneScript("arguments = '''" + text + "'''");
    EXPECT_THAT(findings(), IsEmpty()) << text;
  }
}

TEST_F(ScriptTexts, AreWarnedOfLineEndsInShellScripts) {
  writeOneScript("");
  write("a.sh", "#!/bin/sh\necho a\r\necho b\r\n");
  EXPECT_THAT(
      findings(),
      ElementsAre("S/a.sh:2: warning: the line ends in CR LF, and the shell takes the CR "
                  "for a part of the line; save the file with LF at the ends of its lines"));
}

TEST_F(ScriptTexts, AreWarnedOfAByteOrderMarkInShellScripts) {
  writeOneScript("");
  write("a.sh",
        "\xef\xbb\xbf"
        "echo a\n");
  EXPECT_THAT(findings(),
              ElementsAre("S/a.sh:1: warning: the script begins with a byte-order mark, "
                          "which the shell takes for a part of the first line; save the "
                          "file without it"));
}

TEST_F(ScriptTexts, AreWarnedOfWhatIsNotUTF8) {
  writeOneScript("");
  for (const std::string bytes : {"\xff", "\xc3", "\xc0\x80", "\xed\xa0\x80", "\xf4\x90\x80\x80"}) {
    write("a.sh", "echo a\necho " + bytes + "\n");
    EXPECT_THAT(findings(),
                ElementsAre("S/a.sh:2: warning: the line is not UTF-8; save the file as UTF-8"));
  }
}

TEST_F(ScriptTexts, OfOtherInterpretersMayHaveTheirLineEndsAndMarks) {
  for (const std::string name : {"b.py", "b.pl", "b.scpt"}) {
    write(name,
          "\xef\xbb\xbf"
          "print 1\r\n");
    EXPECT_THAT(findingsOf("[[script]]\nid = \"1\"\nfile = \"" + name + "\"\n"), IsEmpty()) << name;
    std::filesystem::remove(path(name));
  }
  write("c.scpt", "FasdUAS 1.101.10\x0e\xff\xfe");
  EXPECT_THAT(findingsOf("[[script]]\nid = \"1\"\nfile = \"c.scpt\"\n"), IsEmpty());
}

TEST_F(ScriptTexts, OfSeveralScriptsAreAllLookedAt) {
  write("b.sh", "echo \xff\n");
  EXPECT_THAT(findingsOf("[[script]]\nid = \"1\"\nfile = \"a.sh\"\n"
                         "[[script]]\nid = \"a/b\"\nfile = \"b.sh\"\naccepted_codes = \"256\"\n"),
              ElementsAre("S/scripts.toml:3: the file \"a.sh\" is not in S; put it there, or "
                          "correct the name",
                          "S/scripts.toml:5: the ID \"a/b\" contains a slash; use letters, digits, "
                          "\"-\", \"_\" and \".\"",
                          "S/scripts.toml:7: warning: no run matches the accepted code \"256\", "
                          "because it is larger than 255; write whole numbers from 0 to 255 with "
                          "nothing but a comma between them",
                          "S/b.sh:1: warning: the line is not UTF-8; save the file as UTF-8"));
}

// ---- Customers -------------------------------------------------------------------------------

TEST(Customer, IsADirectoryAndAPartOfALocation) {
  EXPECT_EQ(complaintAboutCustomer("7"), std::nullopt);
  EXPECT_EQ(complaintAboutCustomer("acme corp."), std::nullopt);
  EXPECT_EQ(complaintAboutCustomer("a/b"), "contains a slash");
  EXPECT_EQ(complaintAboutCustomer(".."), "contains \"..\"");
  EXPECT_EQ(complaintAboutCustomer("a\\b"), "contains a backslash");
  EXPECT_EQ(complaintAboutCustomer("a%41"), "contains a percent sign");
  EXPECT_EQ(complaintAboutCustomer("\xff"), "is not UTF-8");
}

}  // namespace
}  // namespace VarnScripts::publishing
