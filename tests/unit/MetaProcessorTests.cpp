// The repository metadata: its paths, download, load and look-ups.

#include <gmock/gmock.h>

#include <array>
#include <memory>
#include <string>
#include <vector>

#include "AgentFixture.h"
#include "ScriptRepositoryMetaProcessor.h"
#include "support/Together.h"

namespace {

using namespace VarnScriptRepository;
using doubles::metadataDocument;
using doubles::metadataEntry;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Optional;

constexpr const char* kServerPath = "/client-data/7/scriptrepo/scripts-meta.xml";

class MetaProcessor : public doubles::AgentFixture {
 protected:
  static ScriptRepositoryMetaProcessor& shared() { return ScriptRepositoryMetaProcessor::shared(); }

  void writeDocument(const std::string& entries) {
    doubles::writeFile(dataDirectory + "/scripts-meta.xml", metadataDocument(entries));
  }
};

// ---- Lifetime --------------------------------------------------------------------------------

TEST_F(MetaProcessor, KnowsNothingAtFirstAndTouchesNothing) {
  EXPECT_EQ(shared().scriptRepoMetaData(), std::nullopt);
  EXPECT_EQ(shared().scriptRepoAllMetaData(), std::nullopt);
  EXPECT_THAT(journal.entries(), IsEmpty());
}

TEST_F(MetaProcessor, IsMadeOnceUnderConcurrentFirstUse) {
  constexpr std::size_t kThreads = 16;
  std::array<ScriptRepositoryMetaProcessor*, kThreads> seen{};
  together(kThreads, [&](std::size_t index) { seen[index] = &shared(); });
  EXPECT_THAT(seen, testing::Each(&shared()));
}

TEST_F(MetaProcessor, LooksUpThroughItsOverridableState) {
  class WithEntries final : public ScriptRepositoryMetaProcessor {
   public:
    const std::optional<std::vector<ScriptRepositoryMeta>>& scriptRepoMetaData() const override {
      return entries_;
    }

   private:
    std::optional<std::vector<ScriptRepositoryMeta>> entries_{std::vector{[] {
      ScriptRepositoryMeta entry;
      entry.scriptID = "42";
      entry.modifiedTime = "5";
      return entry;
    }()}};
  };
  const std::unique_ptr<ScriptRepositoryMetaProcessor> processor = std::make_unique<WithEntries>();

  EXPECT_EQ(processor->getModifiedTime("42"), "5");
  EXPECT_THAT(processor->getAllAvailableScriptIDs(), Optional(ElementsAre("42")));
}

TEST_F(MetaProcessor, StateIsReadSetAndChangedInPlace) {
  ScriptRepositoryMeta entry;
  entry.scriptID = "42";
  shared().setScriptRepoMetaData(std::vector{entry});
  shared().modifyScriptRepoMetaData()->push_back(entry);
  EXPECT_THAT(shared().scriptRepoMetaData(), Optional(ElementsAre(entry, entry)));

  shared().setScriptRepoAllMetaData(ScriptRepoAllMetaData{{entry}});
  shared().modifyScriptRepoAllMetaData()->scriptRepo.clear();
  EXPECT_EQ(shared().scriptRepoAllMetaData(), ScriptRepoAllMetaData{});
}

// ---- Download --------------------------------------------------------------------------------

TEST_F(MetaProcessor, DownloadFetchesTheServersDocumentToItsLocalPath) {
  doubles::makeDirectories(dataDirectory);
  downloads.serve(kServerPath, "document");

  EXPECT_TRUE(shared().downloadScriptRepoMeta());

  EXPECT_THAT(
      journal.entries(),
      ElementsAre("download /client-data/7/scriptrepo/scripts-meta.xml to "
                  "<agent>/client-data/7/scripts-repository-data/scripts-meta.xml",
                  "info ScriptRepositoryMetaProcessor downloadScriptRepoMeta(): Script-Meta "
                  "Download Success"));
  EXPECT_EQ(doubles::readFile(dataDirectory + "/scripts-meta.xml"), "document");
  // Nothing is loaded by a download.
  EXPECT_EQ(shared().scriptRepoMetaData(), std::nullopt);
}

TEST_F(MetaProcessor, PathsComeFromBasePathAndCustomer) {
  globals.vyagentBasePath = "/opt/agent";
  globals.vyCustomerID = "42";

  EXPECT_FALSE(shared().downloadScriptRepoMeta());

  EXPECT_THAT(journal.effects(),
              ElementsAre("download /client-data/42/scriptrepo/scripts-meta.xml to "
                          "/opt/agent/client-data/42/scripts-repository-data/scripts-meta.xml"));
}

TEST_F(MetaProcessor, ATrailingSlashInTheBasePathStays) {
  globals.vyagentBasePath += "/";

  EXPECT_FALSE(shared().downloadScriptRepoMeta());

  EXPECT_THAT(journal.effects(),
              ElementsAre("download /client-data/7/scriptrepo/scripts-meta.xml to "
                          "<agent>//client-data/7/scripts-repository-data/scripts-meta.xml"));
}

TEST_F(MetaProcessor, AFailedDownloadIsALineAndChangesNothing) {
  ScriptRepositoryMeta entry;
  entry.scriptID = "42";
  shared().setScriptRepoMetaData(std::vector{entry});
  writeDocument("");

  EXPECT_FALSE(shared().downloadScriptRepoMeta());

  EXPECT_THAT(journal.log(), ElementsAre("info ScriptRepositoryMetaProcessor "
                                         "downloadScriptRepoMeta(): Script-Meta Download Failed"));
  EXPECT_THAT(shared().scriptRepoMetaData(), Optional(ElementsAre(entry)));
  EXPECT_EQ(doubles::readFile(dataDirectory + "/scripts-meta.xml"), "scripts-meta()");
}

TEST_F(MetaProcessor, EachDownloadHasADownloaderOfItsOwn) {
  doubles::makeDirectories(dataDirectory);
  downloads.serve(kServerPath, "document");
  EXPECT_TRUE(shared().downloadScriptRepoMeta());
  EXPECT_TRUE(shared().downloadScriptRepoMeta());

  EXPECT_EQ(downloads.made, 2U);
}

TEST_F(MetaProcessor, ADownloaderThatThrowsHasFailed) {
  downloads.serve(kServerPath, "document");
  for (const std::string operation : {"download", "make downloader"}) {
    for (const auto what : {doubles::Thrown::exception, doubles::Thrown::somethingElse}) {
      SCOPED_TRACE(operation);
      journal.reset();
      journal.throwAlways(operation, what);
      EXPECT_FALSE(shared().downloadScriptRepoMeta());
      EXPECT_THAT(journal.log(),
                  ElementsAre("info ScriptRepositoryMetaProcessor downloadScriptRepoMeta(): "
                              "Script-Meta Download Failed"));
    }
  }
}

// ---- Load ------------------------------------------------------------------------------------

TEST_F(MetaProcessor, LoadFillsTheListAndLeavesTheContainerAbsent) {
  writeDocument(metadataEntry("42", "5") + metadataEntry("43", "6"));

  shared().loadScriptRepoMetaData();

  ASSERT_THAT(shared().scriptRepoMetaData(), Optional(testing::SizeIs(2)));
  EXPECT_EQ(shared().scriptRepoMetaData()->at(0).scriptID, "42");
  EXPECT_EQ(shared().scriptRepoMetaData()->at(1).scriptID, "43");
  EXPECT_EQ(shared().scriptRepoAllMetaData(), std::nullopt);
  EXPECT_THAT(journal.entries(), IsEmpty());
}

TEST_F(MetaProcessor, LoadParsesTheWholeFileWithoutTrimmingAndWithNamespaces) {
  writeDocument("");

  shared().loadScriptRepoMetaData();

  EXPECT_THAT(parser.calls,
              ElementsAre(doubles::ParserCalls::Call{"scripts-meta()", false, false}));
}

TEST_F(MetaProcessor, LoadOfADocumentWithoutEntriesIsAnEmptyListThatIsThere) {
  writeDocument("");

  shared().loadScriptRepoMetaData();

  EXPECT_THAT(shared().scriptRepoMetaData(), Optional(IsEmpty()));
}

TEST_F(MetaProcessor, LoadTakesTheFirstContainerAlone) {
  doubles::writeFile(
      dataDirectory + "/scripts-meta.xml",
      metadataDocument(metadataEntry("1", "5")) + metadataDocument(metadataEntry("2", "5")));

  shared().loadScriptRepoMetaData();

  EXPECT_EQ(shared().getAllAvailableScriptIDs(), std::vector<std::string>{"1"});
}

TEST_F(MetaProcessor, LoadKeepsEntriesWithEmptyTexts) {
  writeDocument(metadataEntry("", "", ""));

  shared().loadScriptRepoMetaData();

  EXPECT_EQ(shared().getModifiedTime(""), "");
}

TEST_F(MetaProcessor, LoadReplacesTheEntriesOfAnEarlierOne) {
  writeDocument(metadataEntry("1", "5") + metadataEntry("2", "5"));
  shared().loadScriptRepoMetaData();
  writeDocument(metadataEntry("2", "6") + metadataEntry("3", "5"));

  shared().loadScriptRepoMetaData();

  EXPECT_THAT(shared().getAllAvailableScriptIDs(), Optional(ElementsAre("2", "3")));
  EXPECT_EQ(shared().getModifiedTime("2"), "6");
}

TEST_F(MetaProcessor, LoadOfWhatDoesNotDecodeIsAbsentWithoutALine) {
  struct Row {
    const char* name;
    std::string document;
  };
  for (const Row& row :
       {Row{"one entry lacks modified_time",
            "scripts-meta(" + metadataEntry("1", "5") + "ScriptRepo(script_id<2> file_id<f>))"},
        Row{"not a document", "scripts-meta("}, Row{"another top element", "other()"},
        Row{"empty", ""}}) {
    SCOPED_TRACE(row.name);
    journal.reset();
    shared().setScriptRepoMetaData(std::vector<ScriptRepositoryMeta>{});
    doubles::writeFile(dataDirectory + "/scripts-meta.xml", row.document);

    shared().loadScriptRepoMetaData();

    EXPECT_EQ(shared().scriptRepoMetaData(), std::nullopt);
    EXPECT_THAT(journal.entries(), IsEmpty());
    EXPECT_EQ(doubles::readFile(dataDirectory + "/scripts-meta.xml"), row.document);
  }
}

TEST_F(MetaProcessor, LoadOfAMissingFileSaysSoAndKeepsTheEarlierEntries) {
  writeDocument(metadataEntry("42", "5"));
  shared().loadScriptRepoMetaData();
  doubles::removeTree(dataDirectory + "/scripts-meta.xml");

  shared().loadScriptRepoMetaData();

  EXPECT_THAT(journal.entries(),
              ElementsAre("info ScriptRepositoryMetaProcessor loadScriptRepoMetaData(): Error "
                          "while getting data No such file or directory"));
  EXPECT_EQ(shared().getAllAvailableScriptIDs(), std::vector<std::string>{"42"});
  EXPECT_THAT(parser.calls, testing::SizeIs(1));
}

TEST_F(MetaProcessor, LoadOfAnUnreadableFileSaysSo) {
  doubles::makeDirectories(dataDirectory + "/scripts-meta.xml");

  shared().loadScriptRepoMetaData();

  EXPECT_THAT(journal.entries(),
              ElementsAre("info ScriptRepositoryMetaProcessor loadScriptRepoMetaData(): Error "
                          "while getting data Is a directory"));
  EXPECT_EQ(shared().scriptRepoMetaData(), std::nullopt);
}

TEST_F(MetaProcessor, AParserThatThrowsGivesAbsentEntries) {
  writeDocument(metadataEntry("42", "5"));
  for (const std::string operation : {"parse", "decode"}) {
    for (const auto what : {doubles::Thrown::exception, doubles::Thrown::somethingElse}) {
      SCOPED_TRACE(operation);
      shared().setScriptRepoMetaData(std::vector<ScriptRepositoryMeta>{});
      journal.reset();
      journal.throwAlways(operation, what);
      shared().loadScriptRepoMetaData();
      EXPECT_EQ(shared().scriptRepoMetaData(), std::nullopt);
      EXPECT_THAT(journal.entries(), IsEmpty());
    }
  }
}

// ---- Look-ups --------------------------------------------------------------------------------

TEST_F(MetaProcessor, LookUpsBeforeALoadAreAbsentAndTouchNothing) {
  writeDocument(metadataEntry("42", "5"));
  downloads.serve(kServerPath, metadataDocument(metadataEntry("42", "5")));

  EXPECT_EQ(shared().getScriptRepoForID("42"), std::nullopt);
  EXPECT_EQ(shared().getServerScriptRepoMeta("42"), std::nullopt);
  EXPECT_EQ(shared().getModifiedTime("42"), std::nullopt);
  EXPECT_EQ(shared().getAllAvailableScriptIDs(), std::nullopt);
  EXPECT_THAT(journal.entries(), IsEmpty());
  EXPECT_THAT(parser.calls, IsEmpty());
}

TEST_F(MetaProcessor, TheFirstEntryOfAnIDIsFound) {
  writeDocument(metadataEntry("42", "5", "first") + metadataEntry("43", "6", "other") +
                metadataEntry("42", "7", "second"));
  shared().loadScriptRepoMetaData();

  ASSERT_TRUE(shared().getScriptRepoForID("42"));
  EXPECT_EQ(shared().getScriptRepoForID("42")->fileID, "first");
  EXPECT_EQ(shared().getServerScriptRepoMeta("43")->fileID, "other");
  EXPECT_EQ(shared().getModifiedTime("42"), "5");
  EXPECT_EQ(shared().getModifiedTime("43"), "6");
  EXPECT_THAT(shared().getAllAvailableScriptIDs(), Optional(ElementsAre("42", "43", "42")));
}

TEST_F(MetaProcessor, AnEntryIsFoundAndListedWhateverElseItSays) {
  ScriptRepositoryMeta windows;
  windows.scriptID = "1";
  windows.modifiedTime = "5";
  windows.osPlatform = "Windows";
  ScriptRepositoryMeta unmapped = windows;
  unmapped.scriptID = "2";
  unmapped.customerID = "8";
  unmapped.scriptPathMapping.emplace();
  shared().setScriptRepoMetaData(std::vector{windows, unmapped});

  EXPECT_EQ(shared().getScriptRepoForID("1"), windows);
  EXPECT_EQ(shared().getServerScriptRepoMeta("2"), unmapped);
  EXPECT_EQ(shared().getModifiedTime("2"), "5");
  EXPECT_THAT(shared().getAllAvailableScriptIDs(), Optional(ElementsAre("1", "2")));
}

TEST_F(MetaProcessor, AnIDIsFoundByTextEqualityAlone) {
  writeDocument(metadataEntry("Caf\u00e9", "5"));
  shared().loadScriptRepoMetaData();

  EXPECT_TRUE(shared().getScriptRepoForID("Caf\u00e9"));
  EXPECT_TRUE(shared().getScriptRepoForID("Cafe\u0301"));
  for (const char* const other :
       {"caf\u00e9", "Cafe", "CAF\u00c9", " Caf\u00e9", "Caf\u00e9 ", "", "0"}) {
    SCOPED_TRACE(other);
    EXPECT_EQ(shared().getScriptRepoForID(other), std::nullopt);
    EXPECT_EQ(shared().getServerScriptRepoMeta(other), std::nullopt);
    EXPECT_EQ(shared().getModifiedTime(other), std::nullopt);
  }
}

TEST_F(MetaProcessor, LookUpsChangeNothing) {
  writeDocument(metadataEntry("42", "5"));
  shared().loadScriptRepoMetaData();
  const auto before = shared().scriptRepoMetaData();

  static_cast<void>(shared().getModifiedTime("42"));
  static_cast<void>(shared().getServerScriptRepoMeta("42"));
  static_cast<void>(shared().getAllAvailableScriptIDs());

  EXPECT_EQ(shared().scriptRepoMetaData(), before);
  EXPECT_EQ(shared().scriptRepoAllMetaData(), std::nullopt);
  EXPECT_THAT(journal.entries(), IsEmpty());
}

}  // namespace
