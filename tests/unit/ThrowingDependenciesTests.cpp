// Whatever an agent module throws, and at whichever call, ends inside the library: nothing escapes
// an operation, and the outcome is that of the failure it stands for.

#include <gmock/gmock.h>

#include <string>
#include <vector>

#include "AgentFixture.h"
#include "ScriptRepositoryLocalMetaProcessor.h"
#include "ScriptRepositoryMetaProcessor.h"
#include "ShellDouble.h"
#include "VarnScriptRepository/ScriptRepositoryProcessor.h"

namespace {

using namespace VarnScriptRepository;
using doubles::Thrown;
using testing::AnyOf;
using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

constexpr Thrown kEveryKind[] = {Thrown::exception, Thrown::somethingElse};
constexpr const char* kContent = "echo done\n";

class ThrowingFromTheStart : public doubles::AgentFixture {
 protected:
  ThrowingFromTheStart() {
    downloads.serve("/client-data/7/scriptrepo/scripts-meta.xml",
                    doubles::metadataDocument(doubles::metadataEntry("42", "5")));
    downloads.serve("/client-data/7/scriptrepo/42.xml", document.text());
    downloads.serve("scripts/42/clean.sh", kContent);
  }

  /// Undoes what a request has done to files, rows and metadata. The store stays open.
  void startOver() {
    doubles::removeTree(directory.path() + "/agent");
    store.rows.clear();
    ScriptRepositoryMetaProcessor::shared().setScriptRepoMetaData(std::nullopt);
    journal.reset();
  }

  void leaveUpToDate(const std::string& content) {
    startOver();
    store.rows["42"] = {{"version", "5"}, {"scriptPath", scriptsDirectory + "/clean.sh"}};
    doubles::writeFile(dataDirectory + "/42.xml", document.text());
    doubles::writeFile(scriptsDirectory + "/clean.sh", content);
  }

  static ProcessingResult process() { return ScriptRepositoryProcessor("42").processScript(); }

  /// Whether the journal has the run of a script that was not verified just before.
  bool ranUnverified() const {
    const auto effects = journal.effects();
    for (std::size_t index = 0; index < effects.size(); ++index) {
      if (!effects[index].starts_with("run ")) continue;
      bool verified = false;
      for (std::size_t earlier = 0; earlier < index; ++earlier) {
        if (effects[earlier].starts_with("checksum ")) verified = true;
        if (effects[earlier].starts_with("download scripts/")) verified = false;
      }
      if (!verified) return true;
    }
    return false;
  }

  /// Runs `prepare` and a request over and over, with a throw at the first call, the second, and so
  /// on until a request ran through without one.
  template <class Prepare>
  std::size_t throwAtEachCall(Prepare prepare, Thrown what) {
    for (std::size_t number = 1;; ++number) {
      SCOPED_TRACE("call " + std::to_string(number));
      prepare();
      journal.reset();
      journal.throwAtCall(number, what);
      ProcessingResult result;
      EXPECT_NO_THROW(result = process());
      EXPECT_THAT(result, AnyOf(ProcessingResult(), ProcessingResult(true, "done\n")));
      EXPECT_FALSE(ranUnverified());
      if (journal.calls() < number) return number - 1;
    }
  }

  doubles::DataDocument document;
};

class ThrowingDependencies : public ThrowingFromTheStart {
 protected:
  // Opened before a fault can hit the opening, which is not tried again in a process.
  ThrowingDependencies() { ScriptRepositoryLocalMetaProcessor::shared(); }
};

TEST_F(ThrowingDependencies, AtAnyCallOfAFreshRequest) {
  for (const Thrown what : kEveryKind) {
    EXPECT_GE(throwAtEachCall([this] { startOver(); }, what), 20U);
  }
}

TEST_F(ThrowingDependencies, AtAnyCallOfAnUpToDateRequest) {
  for (const Thrown what : kEveryKind) {
    EXPECT_GE(throwAtEachCall([this] { leaveUpToDate(kContent); }, what), 12U);
  }
}

TEST_F(ThrowingDependencies, AtAnyCallOfARequestThatFetchesAgain) {
  for (const Thrown what : kEveryKind) {
    EXPECT_GE(throwAtEachCall([this] { leaveUpToDate("changed by hand"); }, what), 18U);
  }
}

TEST_F(ThrowingDependencies, AtAnyCallOfARemoval) {
  for (const Thrown what : kEveryKind) {
    for (std::size_t number = 1;; ++number) {
      SCOPED_TRACE("call " + std::to_string(number));
      leaveUpToDate(kContent);
      ScriptRepositoryMetaProcessor::shared().setScriptRepoAllMetaData(ScriptRepoAllMetaData{});
      journal.reset();
      journal.throwAtCall(number, what);
      EXPECT_NO_THROW(ScriptRepositoryProcessor::removeServerRemovedScripts());
      EXPECT_THAT(journal.effects(), Contains("delete 42"));
      if (journal.calls() < number) break;
      EXPECT_LT(number, 100U);
    }
  }
}

// ---- Each dependency -------------------------------------------------------------------------

TEST_F(ThrowingDependencies, ALogThatThrowsChangesNothing) {
  for (const Thrown what : kEveryKind) {
    startOver();
    journal.throwAlways("log", what);
    EXPECT_EQ(process(), ProcessingResult(true, "done\n"));
    EXPECT_EQ(store.row("42"), "version=5 scriptPath=" + scriptsDirectory + "/clean.sh");
  }
}

TEST_F(ThrowingDependencies, AnExistenceTestThatThrowsIsNoReasonToFail) {
  for (const Thrown what : kEveryKind) {
    startOver();
    doubles::makeDirectories(dataDirectory);
    doubles::makeDirectories(scriptsDirectory);
    journal.throwAlways("exists", what);
    EXPECT_EQ(process(), ProcessingResult(true, "done\n"));
    EXPECT_THAT(journal.effects(), Contains("exists <agent>/client-data/7/scripts-repository"));
  }
}

TEST_F(ThrowingDependencies, ADirectoryThatCannotBeMadeDoesNotStopTheOther) {
  for (const Thrown what : kEveryKind) {
    startOver();
    journal.throwAlways("create", what);
    EXPECT_NO_THROW(ScriptRepositoryProcessor("42"));
    EXPECT_THAT(journal.entries(),
                ElementsAre("exists <agent>/client-data/7/scripts-repository-data",
                            "create <agent>/client-data/7/scripts-repository-data with parents",
                            "exists <agent>/client-data/7/scripts-repository",
                            "create <agent>/client-data/7/scripts-repository with parents"));
  }
}

TEST_F(ThrowingDependencies, ADownloaderThatThrowsHasFailed) {
  for (const std::string operation : {"make downloader", "download"}) {
    for (const Thrown what : kEveryKind) {
      SCOPED_TRACE(operation);
      startOver();
      journal.throwAlways(operation, what);
      EXPECT_EQ(process(), ProcessingResult());
      EXPECT_THAT(journal.log(),
                  ElementsAre("info ScriptRepositoryMetaProcessor downloadScriptRepoMeta(): "
                              "Script-Meta Download Failed",
                              "info ScriptRepositoryProcessor processScript(): Processing Script "
                              "ID 42 not able to get server script repo meta to procees"));
    }
  }
}

TEST_F(ThrowingDependencies, AValidatorThatThrowsNeverLetsAScriptRun) {
  for (const Thrown what : kEveryKind) {
    startOver();
    journal.throwAlways("checksum", what);
    EXPECT_EQ(process(), ProcessingResult());
    EXPECT_THAT(journal.effects(), Not(Contains(HasSubstr("run "))));
    EXPECT_THAT(journal.effects(), Not(Contains(HasSubstr("version="))));
    EXPECT_THAT(
        journal.log(),
        Contains("info ScriptRepositoryProcessor "
                 "downloadAndExecuteScript(serverScriptRepoMeta:): Not able to compute checksum "
                 "processing"));
  }
}

TEST_F(ThrowingDependencies, AParserThatThrowsGivesNoMetadata) {
  for (const std::string operation : {"parse", "decode"}) {
    for (const Thrown what : kEveryKind) {
      SCOPED_TRACE(operation);
      startOver();
      journal.throwAlways(operation, what);
      EXPECT_EQ(process(), ProcessingResult());
      EXPECT_THAT(journal.log(),
                  ElementsAre("info ScriptRepositoryMetaProcessor downloadScriptRepoMeta(): "
                              "Script-Meta Download Success",
                              "info ScriptRepositoryProcessor processScript(): Processing Script "
                              "ID 42 not able to get server script repo meta to procees"));
    }
  }
}

TEST_F(ThrowingFromTheStart, AnErrorLineThatCannotBeWrittenIsLeftOut) {
  for (const Thrown what : kEveryKind) {
    journal.reset();
    journal.throwAlways("open", what);
    journal.throwAlways("log", what);
    EXPECT_THAT(ScriptRepositoryLocalMetaProcessor::shared().getAllScriptIDs(), IsEmpty());
  }
}

TEST_F(ThrowingFromTheStart, AStoreThatThrowsAtEveryCallStillLetsTheScriptRun) {
  for (const Thrown what : kEveryKind) {
    startOver();
    for (const char* const operation : {"open", "fetch", "update", "delete"}) {
      journal.throwAlways(operation, what);
    }
    EXPECT_EQ(process(), ProcessingResult(true, "done\n"));
    EXPECT_TRUE(store.rows.empty());
  }
}

}  // namespace
