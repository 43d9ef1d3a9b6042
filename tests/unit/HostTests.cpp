// What a host does around requests: the list loaded anew, also while requests run on other threads,
// and the removal of what it lacks.

#include <gmock/gmock.h>

#include <atomic>
#include <barrier>
#include <string>
#include <thread>
#include <vector>

#include "AgentFixture.h"
#include "ScriptRepositoryLocalMetaProcessor.h"
#include "ScriptRepositoryMetaProcessor.h"
#include "ShellDouble.h"
#include "VarnScriptRepository/ScriptRepositoryHost.h"
#include "VarnScriptRepository/ScriptRepositoryProcessor.h"
#include "support/Together.h"

namespace {

using namespace VarnScriptRepository;
using doubles::DataDocument;
using doubles::metadataDocument;
using doubles::metadataEntry;
using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

using IDs = std::vector<std::string>;

constexpr const char* kMetadata = "/client-data/7/scriptrepo/scripts-meta.xml";
constexpr const char* kDataDocument = "/client-data/7/scriptrepo/42.xml";
constexpr const char* kScript = "scripts/42/clean.sh";

class Host : public doubles::AgentFixture {
 protected:
  void serveList(const std::string& entries) {
    downloads.serve(kMetadata, metadataDocument(entries));
  }

  /// Leaves a script as a request would have left it.
  void leaveScript(const std::string& id) {
    store.rows[id] = {{"version", "5"}, {"scriptPath", scriptsDirectory + "/" + id + ".sh"}};
    doubles::writeFile(scriptsDirectory + "/" + id + ".sh", "echo\n");
    doubles::writeFile(dataDirectory + "/" + id + ".xml", "script()");
  }

  bool isThere(const std::string& id) const {
    return doubles::exists(scriptsDirectory + "/" + id + ".sh") ||
           doubles::exists(dataDirectory + "/" + id + ".xml") || store.rows.contains(id);
  }

  /// The version of script 42 that a request finds on the server.
  std::string versionOfRequest() {
    const std::size_t before = journal.log().size();
    static_cast<void>(ScriptRepositoryProcessor("42").processScript());
    const IDs lines = journal.log();
    const std::string begin = "Processing Script ID 42 Server Version ";
    for (std::size_t line = before; line < lines.size(); ++line) {
      const std::size_t at = lines[line].find(begin);
      if (at == std::string::npos) continue;
      const std::string rest = lines[line].substr(at + begin.size());
      return rest.substr(0, rest.find(' '));
    }
    return "(none)";
  }
};

// ---- The list --------------------------------------------------------------------------------

class ReloadServerList : public Host {};

TEST_F(ReloadServerList, HasTheNextRequestUseTheNewOne) {
  serveList(metadataEntry("42", "5"));
  EXPECT_EQ(versionOfRequest(), "5");
  serveList(metadataEntry("42", "6"));
  EXPECT_EQ(versionOfRequest(), "5");

  EXPECT_TRUE(reloadServerList());

  EXPECT_EQ(versionOfRequest(), "6");
}

TEST_F(ReloadServerList, IsAlsoTheFirstLoadAndCreatesTheDirectories) {
  serveList(metadataEntry("42", "5"));
  EXPECT_TRUE(reloadServerList());
  EXPECT_TRUE(doubles::exists(dataDirectory));
  EXPECT_TRUE(doubles::exists(scriptsDirectory));

  downloads.refuse(kMetadata);
  EXPECT_EQ(versionOfRequest(), "5");
}

TEST_F(ReloadServerList, ThatFailsLeavesTheListThatThereIs) {
  serveList(metadataEntry("42", "5"));
  ASSERT_TRUE(reloadServerList());

  downloads.refuse(kMetadata);
  EXPECT_FALSE(reloadServerList());
  for (const char* const page : {"<html>log in</html>", "other()", ""}) {
    downloads.serve(kMetadata, page);
    EXPECT_FALSE(reloadServerList()) << page;
  }

  EXPECT_EQ(versionOfRequest(), "5");
  leaveScript("43");
  ScriptRepositoryProcessor::removeServerRemovedScripts();
  EXPECT_FALSE(isThere("43"));
}

TEST_F(ReloadServerList, WhatAModuleThrowsIsAFailure) {
  serveList(metadataEntry("42", "5"));
  ASSERT_TRUE(reloadServerList());
  journal.throwAlways("download", doubles::Thrown::somethingElse);
  EXPECT_FALSE(reloadServerList());
  EXPECT_EQ(ScriptRepositoryMetaProcessor::shared().getModifiedTime("42"), "5");
}

TEST_F(ReloadServerList, ARequestUnderWayStaysWithItsEntry) {
  doubles::Runs::shared();
  serveList(metadataEntry("42", "5"));
  downloads.serve(kDataDocument, DataDocument().text());
  downloads.serve(kScript, "echo done\n");
  downloads.meanwhile = [this](const std::string& fromURL) {
    if (fromURL != kDataDocument) return;
    downloads.meanwhile = nullptr;
    serveList(metadataEntry("42", "6"));
    std::thread([] { EXPECT_TRUE(reloadServerList()); }).join();
  };

  static_cast<void>(ScriptRepositoryProcessor("42").processScript());

  EXPECT_EQ(ScriptRepositoryLocalMetaProcessor::shared().getScriptVersion("42"), "5");
  EXPECT_EQ(ScriptRepositoryMetaProcessor::shared().getModifiedTime("42"), "6");
}

TEST_F(ReloadServerList, RequestsOfOtherThreadsSeeOneListOrTheOther) {
  // Without a path the request ends there; long, so that what is torn shows.
  const auto list = [](const std::string& version) {
    std::string entries;
    for (int number = 0; number < 50; ++number) {
      entries += "ScriptRepo(script_name<s> script_id<" +
                 std::to_string(number == 49 ? 42 : 1000 + number) +
                 "> script_file<f> customer_id<7> file_id<f1> os_platform<L> modified_time<" +
                 version + "> created_time<1> enc_type<n>)";
    }
    return entries;
  };
  const std::string versions[] = {std::string(200, 'a'), std::string(200, 'b')};
  serveList(list(versions[0]));
  ASSERT_TRUE(reloadServerList());
  std::atomic<bool> ended = false;
  constexpr int kThreads = 3;
  std::barrier start(kThreads + 1);
  std::vector<std::jthread> requests;
  for (int thread = 0; thread < kThreads; ++thread) {
    requests.emplace_back([&] {
      start.arrive_and_wait();
      while (!ended) static_cast<void>(ScriptRepositoryProcessor("42").processScript());
    });
  }
  start.arrive_and_wait();
  for (int round = 1; round <= 40; ++round) {
    serveList(list(versions[round % 2]));
    EXPECT_TRUE(reloadServerList());
    ScriptRepositoryProcessor::removeServerRemovedScripts();
  }
  ended = true;
  requests.clear();

  std::size_t seen = 0;
  for (const std::string& line : journal.log()) {
    const std::size_t at = line.find(" Server Version ");
    if (at == std::string::npos) continue;
    ++seen;
    const std::string version = line.substr(at + 16, 200);
    EXPECT_TRUE(version == versions[0] || version == versions[1]) << line;
    EXPECT_EQ(line.substr(at + 216, 18), " Local Version -- ") << line;
  }
  EXPECT_GT(seen, 0U);
}

TEST_F(ReloadServerList, FirstRequestsAtTheSameTimeFetchItOnce) {
  serveList("");
  together(8, [](std::size_t request) {
    static_cast<void>(ScriptRepositoryProcessor(std::to_string(request)).processScript());
  });
  EXPECT_EQ(downloads.made, 1U);
}

// ---- Removal ---------------------------------------------------------------------------------

class RemoveDroppedScripts : public Host {
 protected:
  ScriptTurn turn;
};

TEST_F(RemoveDroppedScripts, RemovesNothingBeforeAListIsLoaded) {
  leaveScript("42");
  serveList("");
  // A request's own load is none of the host's.
  EXPECT_EQ(versionOfRequest(), "(none)");

  const ScriptRemoval removal = removeDroppedScripts(turn);

  EXPECT_THAT(removal.scriptIDs, IsEmpty());
  EXPECT_EQ(removal.reason, "No list of the server is loaded");
  EXPECT_TRUE(isThere("42"));
  EXPECT_THAT(journal.log(), Contains(HasSubstr("will be processed later")));
}

TEST_F(RemoveDroppedScripts, RemovesWhatTheListLacksWithTheTurnsOfIt) {
  for (const char* const id : {"41", "42", "43"}) leaveScript(id);
  serveList(metadataEntry("42", "5"));
  ASSERT_TRUE(reloadServerList());

  const ScriptRemoval removal = removeDroppedScripts(turn);

  EXPECT_THAT(removal.scriptIDs, ElementsAre("41", "43"));
  EXPECT_EQ(removal.reason, "");
  EXPECT_FALSE(isThere("41"));
  EXPECT_TRUE(isThere("42"));
  EXPECT_FALSE(isThere("43"));
  // Until the turn ends, so that the host can remove what it keeps of them.
  ScriptTurn other({.mayWait = false});
  std::error_code error;
  other.take({"43"}, error);
  EXPECT_EQ(error, std::errc::resource_unavailable_try_again);
  other.take({"42"}, error);
  EXPECT_EQ(error, std::error_code());
}

TEST_F(RemoveDroppedScripts, RemovesNothingWhenTheTurnOfOneIsNotToBeHad) {
  for (const char* const id : {"41", "43"}) leaveScript(id);
  serveList("");
  ASSERT_TRUE(reloadServerList());
  ScriptTurn request;
  std::error_code error;
  request.take({"43"}, error);
  ASSERT_EQ(error, std::error_code());

  ScriptTurn impatient({.mayWait = false});
  const ScriptRemoval removal = removeDroppedScripts(impatient);

  EXPECT_THAT(removal.scriptIDs, IsEmpty());
  EXPECT_EQ(removal.reason, "Request lock " + globals.vyagentBasePath +
                                "/client-data/7/varn-scripts.lock can't be taken: Resource "
                                "temporarily unavailable");
  EXPECT_TRUE(removal.isLockedOut);
  EXPECT_TRUE(isThere("41"));
  EXPECT_TRUE(isThere("43"));
}

TEST_F(RemoveDroppedScripts, WaitsForTheFileToo) {
  leaveScript("43");
  serveList("");
  ASSERT_TRUE(reloadServerList());
  ScriptTurn request;
  std::error_code error;
  request.take({"44"}, error);
  request.takeFile("43.sh", error);
  ASSERT_EQ(error, std::error_code());

  ScriptTurn impatient({.mayWait = false});
  EXPECT_NE(removeDroppedScripts(impatient).reason, "");
  EXPECT_TRUE(isThere("43"));
}

TEST_F(RemoveDroppedScripts, GoesByTheListThatIsLoadedDuringItsWait) {
  for (const char* const id : {"41", "43"}) leaveScript(id);
  serveList(metadataEntry("43", "5"));
  ASSERT_TRUE(reloadServerList());
  // The wait for 41 is the time in which the list changes: 41 is back, and 43 is dropped.
  ScriptTurn request;
  std::error_code error;
  request.take({"41"}, error);
  ASSERT_EQ(error, std::error_code());
  ScriptTurn removal({.reported = [&](int) {
    serveList(metadataEntry("41", "5"));
    EXPECT_TRUE(reloadServerList());
    request.take({}, error);
  }});

  EXPECT_THAT(removeDroppedScripts(removal).scriptIDs, ElementsAre("43"));

  EXPECT_TRUE(isThere("41"));
  EXPECT_FALSE(isThere("43"));
}

TEST_F(RemoveDroppedScripts, HasATurnNoMoreThatItTookForAnEarlierList) {
  for (const char* const id : {"41", "43"}) leaveScript(id);
  serveList(metadataEntry("43", "5"));
  ASSERT_TRUE(reloadServerList());
  std::error_code error;
  ScriptTurn first;
  first.take({"41"}, error);
  ASSERT_EQ(error, std::error_code());
  ScriptTurn second;
  second.take({"43"}, error);
  ASSERT_EQ(error, std::error_code());
  int waits = 0;
  bool isKept = false;
  ScriptTurn removal({.reported = [&](int) {
    switch (++waits) {
      case 1:  // for 41, which is back now
        serveList(metadataEntry("41", "5"));
        EXPECT_TRUE(reloadServerList());
        first.take({}, error);
        break;
      case 2:  // for 43; now both are dropped, and 41 is taken by somebody else again
        serveList("");
        EXPECT_TRUE(reloadServerList());
        first.take({"41"}, error);
        second.take({}, error);
        break;
      default:
        isKept = isThere("41");
        first.take({}, error);
    }
  }});

  EXPECT_THAT(removeDroppedScripts(removal).scriptIDs, ElementsAre("41", "43"));

  EXPECT_EQ(waits, 3);
  EXPECT_TRUE(isKept);
}

TEST_F(RemoveDroppedScripts, LeavesWhatLiesElsewhereAndTellsOfIt) {
  leaveScript("41");
  const std::string victim = directory.path() + "/victim.sh";
  doubles::writeFile(victim, "");
  store.rows["41"] = {{"version", "5"}, {"scriptPath", victim}};
  serveList("");
  ASSERT_TRUE(reloadServerList());

  EXPECT_THAT(removeDroppedScripts(turn).scriptIDs, ElementsAre("41"));

  EXPECT_TRUE(doubles::exists(victim));
  EXPECT_FALSE(store.rows.contains("41"));
  EXPECT_THAT(journal.log(),
              Contains("info DroppedScripts removeDroppedScripts(turn:): Leaving File " + victim +
                       " of Script ID 41, it is not below <agent>/client-data/7/"
                       "scripts-repository"));
}

TEST_F(RemoveDroppedScripts, AStoreThatCanNotBeWrittenKeepsThatFile) {
  const std::string victim = directory.path() + "/victim.sh";
  doubles::writeFile(victim, "");
  store.rows["41"] = {{"version", "5"}, {"scriptPath", victim}};
  serveList("");
  ASSERT_TRUE(reloadServerList());
  journal.throwAlways("update");

  const ScriptRemoval removal = removeDroppedScripts(turn);

  EXPECT_NE(removal.reason, "");
  EXPECT_FALSE(removal.isLockedOut);
  EXPECT_TRUE(doubles::exists(victim));
  EXPECT_TRUE(store.rows.contains("41"));
}

TEST_F(RemoveDroppedScripts, AStoreThatCanNotBeOpenedIsTheReason) {
  for (const auto what : {doubles::Thrown::exception, doubles::Thrown::somethingElse}) {
    leaveScript("41");
    serveList("");
    ASSERT_TRUE(reloadServerList());
    journal.throwAlways("open", what);

    const ScriptRemoval removal = removeDroppedScripts(turn);

    EXPECT_THAT(removal.scriptIDs, IsEmpty());
    EXPECT_THAT(removal.reason,
                HasSubstr("/Configuration-Framework/ScriptRepository can't be opened"));
    EXPECT_FALSE(removal.isLockedOut);
    EXPECT_THAT(journal.log(), Contains(HasSubstr("No ScriptIDs found in the storage.")));
    journal.reset();
  }
}

TEST_F(RemoveDroppedScripts, ARecordThatStaysIsNotToldAsRemoved) {
  for (const char* const id : {"41", "43"}) leaveScript(id);
  serveList("");
  ASSERT_TRUE(reloadServerList());
  journal.throwAlways("delete");

  EXPECT_THAT(removeDroppedScripts(turn).scriptIDs, IsEmpty());
}

TEST_F(RemoveDroppedScripts, NothingDroppedIsNothingDone) {
  leaveScript("42");
  serveList(metadataEntry("42", "5"));
  ASSERT_TRUE(reloadServerList());
  const ScriptRemoval removal = removeDroppedScripts(turn);
  EXPECT_THAT(removal.scriptIDs, IsEmpty());
  EXPECT_EQ(removal.reason, "");
  EXPECT_TRUE(isThere("42"));
  EXPECT_THAT(journal.log().back(), HasSubstr("No Scripts to remove from Script Repo"));
}

}  // namespace
