// Removal of the scripts that the server dropped.

#include <gmock/gmock.h>
#include <objc/runtime.h>
#include <sys/resource.h>
#include <unistd.h>

#include <set>
#include <string>
#include <vector>

#include "AgentFixture.h"
#include "Sanitizers.h"
#include "ScriptRepositoryLocalMetaProcessor.h"
#include "ScriptRepositoryMetaProcessor.h"
#include "ScriptRepositoryProcessorRequest.h"

namespace {

using namespace VarnScriptRepository;
using testing::AnyOf;
using testing::ElementsAre;
using testing::IsEmpty;

using Entries = std::vector<std::string>;

class Removal : public doubles::AgentFixture {
 protected:
  Removal() {
    doubles::makeDirectories(dataDirectory);
    doubles::makeDirectories(scriptsDirectory);
    ScriptRepositoryLocalMetaProcessor::shared();
    journal.reset();
  }

  /// Hands the library the container of all entries with these IDs.
  static void serverLists(const std::vector<std::string>& ids) {
    ScriptRepoAllMetaData container;
    for (const std::string& id : ids) container.scriptRepo.emplace_back().scriptID = id;
    ScriptRepositoryMetaProcessor::shared().setScriptRepoAllMetaData(container);
  }

  /// Leaves a script as a request would have left it.
  void leaveScript(const std::string& id) {
    store.rows[id] = {{"version", "5"}, {"scriptPath", scriptsDirectory + "/" + id + ".sh"}};
    doubles::writeFile(scriptsDirectory + "/" + id + ".sh", "echo\n");
    doubles::writeFile(dataDirectory + "/" + id + ".xml", "script()");
  }

  Entries remove() {
    journal.reset();
    ScriptRepositoryProcessor::removeServerRemovedScripts();
    return journal.entries();
  }

  /// What construction for one ID does when both directories are there.
  const Entries construction{"exists <agent>/client-data/7/scripts-repository-data",
                             "exists <agent>/client-data/7/scripts-repository"};
};

std::string overall(const std::string& message) {
  return "info ScriptRepositoryProcessor removeServerRemovedScripts(): " + message;
}
std::string ofOne(const std::string& message) {
  return "info ScriptRepositoryProcessor removeScriptData(): " + message;
}
const std::string kNothing =
    "info ScriptRepositoryProcessor removeServerRemovedScripts(): No Scripts to remove from "
    "Script Repo";

// ---- Deferral --------------------------------------------------------------------------------

TEST_F(Removal, IsPutOffWhileTheContainerIsAbsent) {
  leaveScript("9");

  EXPECT_THAT(remove(),
              ElementsAre(overall("Removing Local Scripts, Script Repo Meta Data Not available, "
                                  "will be processed later")));

  EXPECT_TRUE(doubles::exists(scriptsDirectory + "/9.sh"));
  EXPECT_TRUE(doubles::exists(dataDirectory + "/9.xml"));
  EXPECT_EQ(store.rows.count("9"), 1U);
}

TEST_F(Removal, IsPutOffAlsoWhenARequestHasLoadedTheMetadata) {
  leaveScript("9");
  downloads.serve("/client-data/7/scriptrepo/scripts-meta.xml",
                  doubles::metadataDocument(doubles::metadataEntry("1", "5")));
  EXPECT_EQ(ScriptRepositoryProcessor("9").processScript(), ProcessingResult());
  ASSERT_TRUE(ScriptRepositoryMetaProcessor::shared().scriptRepoMetaData());

  EXPECT_THAT(remove(),
              ElementsAre(overall("Removing Local Scripts, Script Repo Meta Data Not available, "
                                  "will be processed later")));
  EXPECT_EQ(store.rows.count("9"), 1U);
}

// ---- The two sets ----------------------------------------------------------------------------

TEST_F(Removal, IsFoundByNameInTheObjectRuntime) {
  const Class found = objc_lookUpClass("ScriptRepositoryProcessor");
  ASSERT_NE(found, nullptr);
  const SEL selector = sel_registerName("removeServerRemovedScripts");
  const Method method = class_getClassMethod(found, selector);
  ASSERT_NE(method, nullptr);
  EXPECT_STREQ(method_getTypeEncoding(method), "v@:");
  serverLists({});

  const auto untyped = reinterpret_cast<void (*)()>(method_getImplementation(method));
  reinterpret_cast<void (*)(Class, SEL)>(untyped)(found, selector);

  EXPECT_THAT(journal.effects(), ElementsAre("list"));
  EXPECT_THAT(journal.log(), ElementsAre(kNothing));
}

TEST_F(Removal, RemovesAScriptThatTheServerNoLongerLists) {
  leaveScript("8");
  leaveScript("9");
  serverLists({"8", "10"});

  EXPECT_THAT(
      remove(),
      ElementsAre("list", overall(R"(Script Repository Processing: Removing ["9"] Scripts)"),
                  construction[0], construction[1], "fetch 9",
                  ofOne("Removing File <agent>/client-data/7/scripts-repository/9.sh"),
                  ofOne("Removing File <agent>/client-data/7/scripts-repository-data/9.xml"),
                  "delete 9"));

  EXPECT_FALSE(doubles::exists(scriptsDirectory + "/9.sh"));
  EXPECT_FALSE(doubles::exists(dataDirectory + "/9.xml"));
  EXPECT_TRUE(doubles::exists(scriptsDirectory + "/8.sh"));
  EXPECT_TRUE(doubles::exists(dataDirectory + "/8.xml"));
  EXPECT_THAT(ScriptRepositoryLocalMetaProcessor::shared().getAllScriptIDs(), ElementsAre("8"));
  EXPECT_THAT(remove(), ElementsAre("list", kNothing));
}

TEST_F(Removal, OfTheScriptAndOfTheDocumentAreLoggedWithLineNumbersOfTheirOwn) {
  leaveScript("9");
  serverLists({});
  remove();
  std::set<int> lines;
  for (const doubles::LogRecord& record : journal.records()) {
    if (record.message.starts_with("Removing File ")) lines.insert(record.line);
  }
  EXPECT_EQ(lines.size(), 2U);
}

TEST_F(Removal, RemovesEveryScriptWhenTheServerListsNone) {
  leaveScript("1");
  leaveScript("2");
  serverLists({});
  const auto removalOf = [this](const std::string& id) {
    return Entries{
        construction[0],
        construction[1],
        "fetch " + id,
        ofOne("Removing File <agent>/client-data/7/scripts-repository/" + id + ".sh"),
        ofOne("Removing File <agent>/client-data/7/scripts-repository-data/" + id + ".xml"),
        "delete " + id};
  };
  const auto inOrder = [&](const std::string& first, const std::string& second) {
    Entries all{"list", overall("Script Repository Processing: Removing [\"" + first + "\", \"" +
                                second + "\"] Scripts")};
    for (const std::string& id : {first, second}) {
      const Entries one = removalOf(id);
      all.insert(all.end(), one.begin(), one.end());
    }
    return all;
  };

  // The order of a set is its own, and the same in the line and in the work.
  EXPECT_THAT(remove(), AnyOf(inOrder("1", "2"), inOrder("2", "1")));
  EXPECT_THAT(store.rows, IsEmpty());
}

TEST_F(Removal, OfNothingIsOneLine) {
  serverLists({"1"});
  EXPECT_THAT(remove(), ElementsAre("list", kNothing));

  leaveScript("1");
  serverLists({"1", "1", "2"});
  EXPECT_THAT(remove(), ElementsAre("list", kNothing));
  EXPECT_EQ(store.rows.count("1"), 1U);
}

TEST_F(Removal, KeepsEveryListedScriptWhateverElseItsEntrySays) {
  ScriptRepoAllMetaData container;
  for (const char* const platform : {"Windows", "mac", ""}) {
    container.scriptRepo.emplace_back().osPlatform = platform;
  }
  container.scriptRepo.emplace_back().scriptPathMapping.emplace();
  container.scriptRepo.emplace_back().scriptPathMapping = {{ScriptRepoPath{""}}};
  container.scriptRepo.emplace_back().customerID = "8";
  container.scriptRepo.emplace_back().encType = "gzip";
  for (ScriptRepositoryMeta& entry : container.scriptRepo) {
    entry.scriptID = std::to_string(&entry - container.scriptRepo.data());
    leaveScript(entry.scriptID);
  }
  ScriptRepositoryMetaProcessor::shared().setScriptRepoAllMetaData(container);

  EXPECT_THAT(remove(), ElementsAre("list", kNothing));
  EXPECT_EQ(store.rows.size(), 7U);
}

TEST_F(Removal, CountsLetterCaseAndBlanks) {
  struct Row {
    const char* local;
    const char* server;
  };
  for (const Row& row : {Row{"abc", "Abc"}, Row{"ABC", "Abc"}, Row{"1", "01"}, Row{"1", " 1"},
                         Row{"\u00e9", "e"}, Row{"\u00e9", "\u00c9"}}) {
    SCOPED_TRACE(row.local);
    store.rows = {{row.local, {{"version", "5"}}}};
    serverLists({row.server});

    EXPECT_THAT(remove(),
                ElementsAre("list",
                            overall("Script Repository Processing: Removing [\"" +
                                    std::string(row.local) + "\"] Scripts"),
                            construction[0], construction[1], "fetch " + std::string(row.local),
                            "delete " + std::string(row.local)));
  }
}

TEST_F(Removal, RemovesBothOfTwoIDsThatDifferInLetterCase) {
  leaveScript("ABC");
  leaveScript("abc");
  serverLists({"Abc"});

  EXPECT_THAT(remove()[1], AnyOf(overall(R"(Script Repository Processing: Removing ["ABC", "abc"] )"
                                         "Scripts"),
                                 overall(R"(Script Repository Processing: Removing ["abc", "ABC"] )"
                                         "Scripts")));
  EXPECT_THAT(store.rows, IsEmpty());
  for (const char* const id : {"ABC", "abc"}) {
    EXPECT_FALSE(doubles::exists(scriptsDirectory + "/" + id + ".sh"));
    EXPECT_FALSE(doubles::exists(dataDirectory + "/" + id + ".xml"));
  }
}

TEST_F(Removal, TakesCanonicallyEquivalentIDsForEqual) {
  store.rows = {{"\u00e9", {{"version", "5"}}}};
  serverLists({"e\u0301"});

  EXPECT_THAT(remove(), ElementsAre("list", kNothing));
}

TEST_F(Removal, TakesTwoSpellingsOfOneLocalIDOnce) {
  store.rows = {{"\u00e9", {{"version", "5"}}}, {"e\u0301", {{"version", "5"}}}};
  serverLists({});

  EXPECT_THAT(remove()[1],
              AnyOf(overall("Script Repository Processing: Removing [\"\u00e9\"] Scripts"),
                    overall("Script Repository Processing: Removing [\"e\u0301\"] Scripts")));
  EXPECT_EQ(store.rows.size(), 1U);
}

TEST_F(Removal, TakesEveryRowWhateverItHolds) {
  store.rows = {{"", {{"version", "5"}}},
                {"bare", {}},
                {"broken", {{"version", std::nullopt}}},
                {"path", {{"scriptPath", "/no/such/file"}}}};
  serverLists({"1"});

  EXPECT_THAT(remove()[1], testing::StartsWith(overall("Script Repository Processing: Removing")));
  EXPECT_THAT(store.rows, IsEmpty());
}

TEST_F(Removal, EscapesIDsInItsLine) {
  store.rows = {{R"(a"b\c)", {{"version", "5"}}}};
  serverLists({});

  EXPECT_EQ(remove()[1], overall(R"(Script Repository Processing: Removing ["a\"b\\c"] Scripts)"));
}

// ---- One script ------------------------------------------------------------------------------

class RemoveScriptData : public Removal {
 protected:
  Entries removeOne(const std::string& id) {
    const ScriptRequest request(id);
    journal.reset();
    request.removeScriptData();
    return journal.entries();
  }
};

TEST_F(RemoveScriptData, RemovesFileDocumentAndRowInOrder) {
  leaveScript("9");

  EXPECT_THAT(
      removeOne("9"),
      ElementsAre("fetch 9", ofOne("Removing File <agent>/client-data/7/scripts-repository/9.sh"),
                  ofOne("Removing File <agent>/client-data/7/scripts-repository-data/9.xml"),
                  "delete 9"));
  EXPECT_FALSE(doubles::exists(scriptsDirectory + "/9.sh"));
  EXPECT_FALSE(doubles::exists(dataDirectory + "/9.xml"));
}

TEST_F(RemoveScriptData, TakesThePathFromTheRowWhereverItPoints) {
  doubles::writeFile(directory.path() + "/agent/elsewhere.sh", "echo\n");
  leaveScript("9");
  store.rows["9"] = {{"scriptPath", directory.path() + "/agent/elsewhere.sh"}};
  ScriptRequest request("9");
  request.scriptFilePath = scriptsDirectory + "/9.sh";
  journal.reset();

  request.removeScriptData();

  EXPECT_EQ(journal.log()[0], ofOne("Removing File <agent>/elsewhere.sh"));
  EXPECT_FALSE(doubles::exists(directory.path() + "/agent/elsewhere.sh"));
  EXPECT_TRUE(doubles::exists(scriptsDirectory + "/9.sh"));
}

TEST_F(RemoveScriptData, OfARowWithoutPathRemovesDocumentAndRow) {
  leaveScript("9");
  store.rows["9"] = {{"version", "5"}};

  EXPECT_THAT(
      removeOne("9"),
      ElementsAre("fetch 9",
                  ofOne("Removing File <agent>/client-data/7/scripts-repository-data/9.xml"),
                  "delete 9"));
  EXPECT_TRUE(doubles::exists(scriptsDirectory + "/9.sh"));
}

TEST_F(RemoveScriptData, WithoutARowRemovesTheDocument) {
  leaveScript("9");
  store.rows.clear();

  EXPECT_THAT(
      removeOne("9"),
      ElementsAre("fetch 9",
                  ofOne("Removing File <agent>/client-data/7/scripts-repository-data/9.xml"),
                  "delete 9"));
}

TEST_F(RemoveScriptData, PassesAFileThatIsGoneOverInSilence) {
  leaveScript("9");
  doubles::removeTree(scriptsDirectory + "/9.sh");
  EXPECT_THAT(
      removeOne("9"),
      ElementsAre("fetch 9",
                  ofOne("Removing File <agent>/client-data/7/scripts-repository-data/9.xml"),
                  "delete 9"));

  leaveScript("9");
  doubles::removeTree(dataDirectory + "/9.xml");
  EXPECT_THAT(
      removeOne("9"),
      ElementsAre("fetch 9", ofOne("Removing File <agent>/client-data/7/scripts-repository/9.sh"),
                  "delete 9"));

  EXPECT_THAT(removeOne("9"), ElementsAre("fetch 9", "delete 9"));
}

TEST_F(RemoveScriptData, RemovesADirectoryAtEitherPathWithAllThatIsInIt) {
  store.rows["9"] = {{"scriptPath", scriptsDirectory + "/tree"}};
  doubles::writeFile(scriptsDirectory + "/tree/inner/file", "x");
  doubles::writeFile(dataDirectory + "/9.xml/inner/file", "x");

  EXPECT_THAT(
      removeOne("9"),
      ElementsAre("fetch 9", ofOne("Removing File <agent>/client-data/7/scripts-repository/tree"),
                  ofOne("Removing File <agent>/client-data/7/scripts-repository-data/9.xml"),
                  "delete 9"));
  EXPECT_FALSE(doubles::exists(scriptsDirectory + "/tree"));
  EXPECT_FALSE(doubles::exists(dataDirectory + "/9.xml"));
}

TEST_F(RemoveScriptData, RemovesALinkAndNotItsTarget) {
  doubles::writeFile(directory.path() + "/target", "keep");
  store.rows["9"] = {{"scriptPath", scriptsDirectory + "/link.sh"}};
  ASSERT_EQ(
      ::symlink((directory.path() + "/target").c_str(), (scriptsDirectory + "/link.sh").c_str()),
      0);

  EXPECT_THAT(removeOne("9"),
              ElementsAre("fetch 9",
                          ofOne("Removing File <agent>/client-data/7/scripts-repository/link.sh"),
                          "delete 9"));
  EXPECT_EQ(doubles::readFile(directory.path() + "/target"), "keep");
}

TEST_F(RemoveScriptData, LeavesTheTargetOfALinkWithASlashBehindIt) {
  doubles::writeFile(directory.path() + "/target/file", "keep");
  const std::string link = scriptsDirectory + "/link.sh";
  ASSERT_EQ(::symlink((directory.path() + "/target").c_str(), link.c_str()), 0);
  store.rows["9"] = {{"scriptPath", link + "/"}};

  EXPECT_THAT(removeOne("9"),
              ElementsAre("fetch 9",
                          ofOne("Removing File <agent>/client-data/7/scripts-repository/link.sh/"),
                          "delete 9"));
  EXPECT_EQ(doubles::readFile(directory.path() + "/target/file"), "keep");
}

TEST_F(RemoveScriptData, FindsNothingAtAPathWithANUL) {
  using namespace std::string_literals;
  doubles::writeFile(scriptsDirectory + "/9", "keep");
  doubles::writeFile(dataDirectory + "/9", "keep");
  store.rows["9\0"s] = {{"scriptPath", scriptsDirectory + "/9\0.sh"s}};

  EXPECT_THAT(removeOne("9\0"s), ElementsAre("fetch 9\0"s, "delete 9\0"s));
  EXPECT_EQ(doubles::readFile(scriptsDirectory + "/9"), "keep");
  EXPECT_EQ(doubles::readFile(dataDirectory + "/9"), "keep");
}

TEST_F(RemoveScriptData, ThatFailsSaysSoAtInformationLevelAndDeletesTheRow) {
  leaveScript("9");
  // Nobody may remove from the kernel's own file system: root is told that it can't be done, others
  // that they may not.
  store.rows["9"] = {{"version", "5"}, {"scriptPath", "/proc/version"}};
  const std::string reason = ::geteuid() == 0 ? "Operation not permitted" : "Permission denied";

  EXPECT_THAT(
      removeOne("9"),
      ElementsAre(
          "fetch 9", ofOne("Removing File /proc/version"), ofOne("Removing File Error " + reason),
          ofOne("Removing File <agent>/client-data/7/scripts-repository-data/9.xml"), "delete 9"));
  EXPECT_THAT(store.rows, IsEmpty());
  EXPECT_FALSE(doubles::exists(dataDirectory + "/9.xml"));
}

TEST_F(RemoveScriptData, WhoseDocumentCannotBeRemovedSaysSoAndDeletesTheRow) {
  if (kSanitized) GTEST_SKIP() << "a sanitizer looks at objects through descriptors";
  store.rows["9"] = {{"version", "5"}};
  doubles::writeFile(dataDirectory + "/9.xml/file", "x");
  // What is in a directory can't be removed without a descriptor for it.
  rlimit before{};
  ASSERT_EQ(::getrlimit(RLIMIT_NOFILE, &before), 0);
  const rlimit none{0, before.rlim_max};
  ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &none), 0);
  const Entries entries = removeOne("9");
  ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &before), 0);

  EXPECT_THAT(
      entries,
      ElementsAre("fetch 9",
                  ofOne("Removing File <agent>/client-data/7/scripts-repository-data/9.xml"),
                  ofOne("Removing File Error Too many open files"), "delete 9"));
  EXPECT_TRUE(doubles::exists(dataDirectory + "/9.xml/file"));
  EXPECT_THAT(store.rows, IsEmpty());
}

TEST_F(RemoveScriptData, ThatFailsIsNotTriedAgain) {
  store.rows["9"] = {{"scriptPath", "/proc/version"}};
  serverLists({});
  EXPECT_THAT(remove(), testing::Contains(ofOne("Removing File /proc/version")));

  EXPECT_THAT(remove(), ElementsAre("list", kNothing));
}

TEST_F(RemoveScriptData, WhoseRowCannotBeReadRemovesTheRest) {
  leaveScript("9");
  store.rows["9"] = {{"scriptPath", std::nullopt}};

  EXPECT_THAT(
      removeOne("9"),
      ElementsAre("fetch 9",
                  ofOne("Removing File <agent>/client-data/7/scripts-repository-data/9.xml"),
                  "delete 9"));
}

TEST_F(RemoveScriptData, WhoseRowCannotBeDeletedStaysSilent) {
  leaveScript("8");
  leaveScript("9");
  serverLists({});
  for (const auto what : {doubles::Thrown::exception, doubles::Thrown::somethingElse}) {
    journal.reset();
    journal.throwAlways("delete", what);
    ScriptRepositoryProcessor::removeServerRemovedScripts();
    EXPECT_THAT(journal.effects(), testing::Contains("delete 8"));
    EXPECT_THAT(journal.effects(), testing::Contains("delete 9"));
    EXPECT_THAT(journal.log(), testing::Not(testing::Contains(testing::HasSubstr("Error"))));
  }
  EXPECT_FALSE(doubles::exists(scriptsDirectory + "/8.sh"));
  EXPECT_FALSE(doubles::exists(scriptsDirectory + "/9.sh"));
}

// ---- Without a store, and without directories ------------------------------------------------

class RemovalFromNothing : public doubles::AgentFixture {};

TEST_F(RemovalFromNothing, WithoutAStoreWritesTheErrorLineAndFindsNothing) {
  ScriptRepositoryMetaProcessor::shared().setScriptRepoAllMetaData(ScriptRepoAllMetaData{});
  journal.throwAlways("open");

  ScriptRepositoryProcessor::removeServerRemovedScripts();

  EXPECT_THAT(journal.log(),
              ElementsAre("error ScriptRepositoryLocalMeta getAllScriptIDs(): No ScriptIDs found "
                          "in the storage.",
                          kNothing));
}

TEST_F(RemovalFromNothing, BringsTheDirectoriesIntoBeing) {
  ScriptRepositoryMetaProcessor::shared().setScriptRepoAllMetaData(ScriptRepoAllMetaData{});
  store.rows["9"] = {{"version", "5"}};

  ScriptRepositoryProcessor::removeServerRemovedScripts();

  EXPECT_THAT(
      journal.entries(),
      ElementsAre("open <data>/Configuration-Framework/ScriptRepository table ScriptToMeta", "list",
                  overall(R"(Script Repository Processing: Removing ["9"] Scripts)"),
                  "exists <agent>/client-data/7/scripts-repository-data",
                  "create <agent>/client-data/7/scripts-repository-data with parents",
                  "exists <agent>/client-data/7/scripts-repository",
                  "create <agent>/client-data/7/scripts-repository with parents", "fetch 9",
                  "delete 9"));
}

TEST_F(RemovalFromNothing, PutOffOpensNoStoreAndMakesNoDirectory) {
  ScriptRepositoryProcessor::removeServerRemovedScripts();

  EXPECT_THAT(journal.effects(), IsEmpty());
}

}  // namespace
