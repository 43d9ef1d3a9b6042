// One request from the metadata to the result: every branch, with the whole sequence of effects.

#include <gmock/gmock.h>

#include <chrono>
#include <cstdlib>
#include <future>
#include <map>
#include <new>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "AgentFixture.h"
#include "ScriptRepositoryLocalMetaProcessor.h"
#include "ScriptRepositoryMetaProcessor.h"
#include "ShellDouble.h"
#include "VarnScriptRepository/ScriptRepositoryHost.h"
#include "VarnScriptRepository/ScriptRepositoryProcessor.h"

namespace {

using namespace VarnScriptRepository;
using doubles::DataDocument;
using doubles::metadataDocument;
using doubles::metadataEntry;
using doubles::Runs;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::IsSupersetOf;

using Entries = std::vector<std::string>;

constexpr const char* kMetadata = "/client-data/7/scriptrepo/scripts-meta.xml";
constexpr const char* kDataDocument = "/client-data/7/scriptrepo/42.xml";
constexpr const char* kScript = "scripts/42/clean.sh";

/// Ten bytes, as the data document's checksum has it.
constexpr const char* kContent = "echo done\n";

class ProcessScript : public doubles::AgentFixture {
 protected:
  ProcessScript() {
    doubles::makeDirectories(dataDirectory);
    doubles::makeDirectories(scriptsDirectory);
    serveMetadata(metadataEntry("42", "5"));
    serveDocument(document);
    downloads.serve(kScript, kContent);
  }

  void serveMetadata(const std::string& entries) {
    downloads.serve(kMetadata, metadataDocument(entries));
  }
  void serveDocument(const DataDocument& served) { downloads.serve(kDataDocument, served.text()); }

  /// Leaves script 42 as a run of `version` would have left it.
  void leaveLocalCopy(const std::string& version) {
    store.rows["42"] = {{"version", version}, {"scriptPath", scriptsDirectory + "/clean.sh"}};
    doubles::writeFile(dataDirectory + "/42.xml", document.text());
    doubles::writeFile(scriptsDirectory + "/clean.sh", kContent);
  }

  /// Loads the metadata and opens the store, so that a journal begins with the request's own steps.
  void loadMetadata() {
    auto& meta = ScriptRepositoryMetaProcessor::shared();
    ASSERT_TRUE(meta.downloadScriptRepoMeta());
    meta.loadScriptRepoMetaData();
    ASSERT_TRUE(meta.scriptRepoMetaData());
    ScriptRepositoryLocalMetaProcessor::shared();
    journal.reset();
  }

  ProcessingResult process(const std::string& scriptID = "42") {
    ScriptRepositoryProcessor processor(scriptID);
    journal.reset();
    downloads.made = 0;
    return processor.processScript();
  }

  DataDocument document;
};

std::string flow(const std::string& message) {
  return "info ScriptRepositoryProcessor processScript(): " + message;
}
std::string downloadPath(const std::string& message) {
  return "info ScriptRepositoryProcessor downloadAndExecuteScript(serverScriptRepoMeta:): " +
         message;
}
std::string localPath(const std::string& message) {
  return "info ScriptRepositoryProcessor executeScriptWithoutDownload(serverScriptRepoMeta:): " +
         message;
}
std::string checksum(const std::string& message) {
  return "info ScriptRepositoryProcessor isValidChecksumForFile(withFileData:allChecksumData:): " +
         message;
}
std::string execution(const std::string& message) {
  return "info ScriptRepositoryProcessor executeScript(scriptData:): " + message;
}

const std::string kNoMetadata =
    "info ScriptRepositoryProcessor processScript(): Processing Script ID 42 not able to get "
    "server script repo meta to procees";
const std::string kFetchDocument =
    "download /client-data/7/scriptrepo/42.xml to "
    "<agent>/client-data/7/scripts-repository-data/42.xml";
const std::string kFetchScript =
    "download scripts/42/clean.sh to <agent>/client-data/7/scripts-repository/clean.sh";
const std::string kTestChecksum =
    "checksum <agent>/client-data/7/scripts-repository/clean.sh type T value 10";
const std::string kRun =
    "run /bin/sh <agent>/client-data/7/scripts-repository/clean.sh {-a} in "
    "<agent>/client-data/7/scripts-repository limit 600";
const std::string kRecordedPath = "scriptPath=<agent>/client-data/7/scripts-repository/clean.sh";

// ---- Whole requests --------------------------------------------------------------------------

TEST_F(ProcessScript, OfANewScriptTakesEveryStepInOrder) {
  EXPECT_EQ(process(), ProcessingResult(true, "done\n"));

  EXPECT_EQ(journal.entries(),
            (Entries{
                "download /client-data/7/scriptrepo/scripts-meta.xml to "
                "<agent>/client-data/7/scripts-repository-data/scripts-meta.xml",
                "info ScriptRepositoryMetaProcessor downloadScriptRepoMeta(): Script-Meta Download "
                "Success",
                "open <data>/Configuration-Framework/ScriptRepository table ScriptToMeta",
                "fetch 42",
                flow("Processing Script ID 42 Server Version 5 Local Version -- Downloading and "
                     "Executing Script"),
                kFetchDocument,
                kFetchScript,
                "fetch 42",
                "update 42 " + kRecordedPath,
                kTestChecksum,
                "fetch 42",
                "update 42 version=5 " + kRecordedPath,
                execution("Script Name: clean.sh Args: -a Expected Exit Code: 0"),
                kRun,
                execution("Script Output: done\n Exit Code: 0"),
                flow("Processing Script ID 42 Server Version 5 Local Version -- status "
                     "(Optional(true), Optional(\"done\n\"))"),
            }));
  EXPECT_EQ(downloads.made, 3U);
  EXPECT_EQ(doubles::readFile(scriptsDirectory + "/clean.sh"), kContent);
  EXPECT_EQ(doubles::readFile(dataDirectory + "/42.xml"), document.text());
}

TEST_F(ProcessScript, OfAnUpToDateScriptDownloadsNothing) {
  leaveLocalCopy("5");
  loadMetadata();

  EXPECT_EQ(process(), ProcessingResult(true, "done\n"));

  EXPECT_EQ(
      journal.entries(),
      (Entries{
          "fetch 42",
          flow("Processing Script ID 42 Server Version 5 Local Version 5 Proceeding without "
               "Downloading Script"),
          kTestChecksum,
          execution("Script Name: clean.sh Args: -a Expected Exit Code: 0"),
          kRun,
          execution("Script Output: done\n Exit Code: 0"),
          flow("Processing Script ID 42 Server Version 5 Local Version 5 status (Optional(true), "
               "Optional(\"done\n\"))"),
      }));
  EXPECT_EQ(downloads.made, 0U);
}

std::pair<std::string, std::string> heldDocument;

TEST_F(ProcessScript, WhoseDocumentTheHostDoesNotTakeDownloadsItAnew) {
  leaveLocalCopy("5");
  loadMetadata();
  setDocumentTest([](const std::string& path, const std::string& serverPath) {
    heldDocument = {path, serverPath};
    return false;
  });

  EXPECT_EQ(process(), ProcessingResult(true, "done\n"));

  EXPECT_EQ(heldDocument, std::pair(dataDirectory + "/42.xml", std::string(kDataDocument)));
  EXPECT_EQ(downloads.made, 2U);
  EXPECT_EQ(journal.log().front(),
            flow("Processing Script ID 42 Server Version 5 Local Version 5 Downloading and "
                 "Executing Script"));
}

TEST_F(ProcessScript, WhoseListNamesNoDocumentLeavesTheLocalOneToTheHostsTest) {
  leaveLocalCopy("5");
  serveMetadata("ScriptRepo(script_id<42> file_id<f1> modified_time<5>)");
  loadMetadata();
  setDocumentTest([](const std::string& path, const std::string& serverPath) {
    heldDocument = {path, serverPath};
    return true;
  });

  EXPECT_EQ(process(), ProcessingResult(true, "done\n"));

  EXPECT_EQ(heldDocument, std::pair(dataDirectory + "/42.xml", std::string()));
  EXPECT_EQ(downloads.made, 0U);
}

TEST_F(ProcessScript, WhoseDocumentTheHostTakesDownloadsNothing) {
  leaveLocalCopy("5");
  loadMetadata();
  setDocumentTest([](const std::string&, const std::string&) { return true; });
  EXPECT_EQ(process(), ProcessingResult(true, "done\n"));
  EXPECT_EQ(downloads.made, 0U);
}

TEST_F(ProcessScript, WhoseDocumentCantBeHeldAgainstTheListDownloadsItAnew) {
  leaveLocalCopy("5");
  loadMetadata();
  setDocumentTest([](const std::string&, const std::string&) -> bool { throw std::bad_alloc(); });
  EXPECT_EQ(process(), ProcessingResult(true, "done\n"));
  EXPECT_EQ(downloads.made, 2U);
}

TEST_F(ProcessScript, OfANewVersionDownloadsAndRecordsIt) {
  leaveLocalCopy("4");
  loadMetadata();

  EXPECT_EQ(process(), ProcessingResult(true, "done\n"));

  EXPECT_EQ(
      journal.entries(),
      (Entries{
          "fetch 42",
          flow("Processing Script ID 42 Server Version 5 Local Version 4 Downloading and "
               "Executing Script"),
          kFetchDocument,
          kFetchScript,
          "fetch 42",
          "update 42 version=4 " + kRecordedPath,
          kTestChecksum,
          "fetch 42",
          "update 42 version=5 " + kRecordedPath,
          execution("Script Name: clean.sh Args: -a Expected Exit Code: 0"),
          kRun,
          execution("Script Output: done\n Exit Code: 0"),
          // The version in the closing line is the one from before the request.
          flow("Processing Script ID 42 Server Version 5 Local Version 4 status (Optional(true), "
               "Optional(\"done\n\"))"),
      }));
}

TEST_F(ProcessScript, ASecondRequestFindsTheScriptUpToDate) {
  EXPECT_EQ(process(), ProcessingResult(true, "done\n"));
  EXPECT_EQ(process(), ProcessingResult(true, "done\n"));

  EXPECT_EQ(journal.effects(), (Entries{"fetch 42", kTestChecksum, kRun}));
}

TEST_F(ProcessScript, HandsTheCallersAcceptedCodesOn) {
  loadMetadata();
  ScriptRepositoryProcessor processor("42");
  processor.overrideExpectedReturnCode = {"3"};
  processor.overrideExpectedReturnCode->push_back("4");
  journal.reset();

  EXPECT_EQ(processor.processScript(), ProcessingResult(false, "done\n"));

  EXPECT_EQ(journal.log()[3],
            execution("Script Return Code did not match expected overriden exit code: "
                      "[\"3\", \"4\"]"));
  EXPECT_EQ(journal.log()[4],
            flow("Processing Script ID 42 Server Version 5 Local Version -- status "
                 "(Optional(false), Optional(\"done\n\"))"));
}

TEST_F(ProcessScript, TakesTheAcceptedCodesAsTheyAreWhenItIsCalled) {
  loadMetadata();
  ScriptRepositoryProcessor processor("42");
  processor.overrideExpectedReturnCode = {"3"};
  EXPECT_EQ(processor.processScript(), ProcessingResult(false, "done\n"));
  processor.overrideExpectedReturnCode = std::nullopt;
  EXPECT_EQ(processor.processScript(), ProcessingResult(true, "done\n"));
}

TEST_F(ProcessScript, UsesTheCallersSpellingOfTheIDAndTheEntrysVersion) {
  // The angstrom sign, the letter, and the letter with its ring apart: one text to the library.
  const std::string asked = "\u212b";
  const std::string listed = "\u00c5";
  document.scriptID = "A\u030a";
  serveMetadata("ScriptRepo(script_id<" + listed + "> file_id<f1> modified_time<\u00e9> " +
                "ScriptPathMapping(filepath</client-data/7/scriptrepo/42.xml>))");
  serveDocument(document);
  loadMetadata();
  const std::string opening = "Processing Script ID \u212b Server Version \u00e9 Local Version ";
  const Entries run{execution("Script Name: clean.sh Args: -a Expected Exit Code: 0"), kRun,
                    execution("Script Output: done\n Exit Code: 0")};

  EXPECT_EQ(process(asked), ProcessingResult(true, "done\n"));
  EXPECT_THAT(
      journal.entries(),
      ElementsAre("fetch \u212b", flow(opening + "-- Downloading and Executing Script"),
                  "download /client-data/7/scriptrepo/42.xml to "
                  "<agent>/client-data/7/scripts-repository-data/\u212b.xml",
                  kFetchScript, "fetch \u212b", "update \u212b " + kRecordedPath, kTestChecksum,
                  "fetch \u212b", "update \u212b version=\u00e9 " + kRecordedPath, run[0], run[1],
                  run[2], flow(opening + "-- status (Optional(true), Optional(\"done\n\"))")));

  // The local version is shown as it was recorded.
  store.rows[asked][0].second = "e\u0301";
  EXPECT_EQ(process(asked), ProcessingResult(true, "done\n"));
  EXPECT_THAT(
      journal.entries(),
      ElementsAre("fetch \u212b", flow(opening + "e\u0301 Proceeding without Downloading Script"),
                  kTestChecksum, run[0], run[1], run[2],
                  flow(opening + "e\u0301 status (Optional(true), Optional(\"done\n\"))")));
}

// ---- Metadata --------------------------------------------------------------------------------

TEST_F(ProcessScript, WithoutMetadataEndsWithOneLine) {
  downloads.refuse(kMetadata);

  EXPECT_EQ(process(), ProcessingResult());

  EXPECT_EQ(journal.entries(),
            (Entries{"download /client-data/7/scriptrepo/scripts-meta.xml to "
                     "<agent>/client-data/7/scripts-repository-data/scripts-meta.xml",
                     "info ScriptRepositoryMetaProcessor downloadScriptRepoMeta(): Script-Meta "
                     "Download Failed",
                     kNoMetadata}));
}

TEST_F(ProcessScript, DoesNotLoadAnOldDocumentWhenTheDownloadFails) {
  doubles::writeFile(dataDirectory + "/scripts-meta.xml",
                     metadataDocument(metadataEntry("42", "5")));
  downloads.refuse(kMetadata);

  EXPECT_EQ(process(), ProcessingResult());

  EXPECT_THAT(parser.calls, IsEmpty());
  EXPECT_EQ(journal.log().back(), kNoMetadata);
}

TEST_F(ProcessScript, OfAnIDThatIsNotListedEndsWithOneLine) {
  serveMetadata(metadataEntry("43", "5"));
  loadMetadata();

  EXPECT_EQ(process(), ProcessingResult());

  EXPECT_EQ(journal.entries(), Entries{kNoMetadata});
}

TEST_F(ProcessScript, NamesTheIDAsTheCallerSpellsIt) {
  loadMetadata();

  EXPECT_EQ(process(" 42\n"), ProcessingResult());

  EXPECT_EQ(journal.entries(), Entries{flow("Processing Script ID  42\n not able to get server "
                                            "script repo meta to procees")});
}

TEST_F(ProcessScript, TakesAnEmptyLoadedListForLoaded) {
  ScriptRepositoryMetaProcessor::shared().setScriptRepoMetaData(
      std::vector<ScriptRepositoryMeta>{});

  EXPECT_EQ(process(), ProcessingResult());

  EXPECT_EQ(journal.entries(), Entries{kNoMetadata});
}

TEST_F(ProcessScript, TakesAnEmptyFetchedListForLoaded) {
  serveMetadata("");
  EXPECT_EQ(process(), ProcessingResult());
  EXPECT_EQ(journal.effects().size(), 1U);

  serveMetadata(metadataEntry("42", "5"));
  EXPECT_EQ(process(), ProcessingResult());
  EXPECT_EQ(journal.entries(), Entries{kNoMetadata});
}

TEST_F(ProcessScript, FetchesTheMetadataOncePerProcess) {
  EXPECT_EQ(process(), ProcessingResult(true, "done\n"));
  // The server's change is not seen by this process any more.
  serveMetadata(metadataEntry("42", "6") + metadataEntry("43", "1"));

  EXPECT_EQ(process(), ProcessingResult(true, "done\n"));
  EXPECT_EQ(journal.log().front(),
            flow("Processing Script ID 42 Server Version 5 Local Version 5 Proceeding without "
                 "Downloading Script"));
  EXPECT_EQ(process("43"), ProcessingResult());
  EXPECT_THAT(journal.effects(), IsEmpty());
}

TEST_F(ProcessScript, FetchesTheMetadataAgainAfterAFailedFetch) {
  downloads.refuse(kMetadata);
  EXPECT_EQ(process(), ProcessingResult());
  serveMetadata(metadataEntry("42", "5"));

  EXPECT_EQ(process(), ProcessingResult(true, "done\n"));
}

TEST_F(ProcessScript, FetchesTheMetadataAgainAfterOneThatDidNotDecode) {
  downloads.serve(kMetadata, "scripts-meta(ScriptRepo(script_id<42> file_id<f1>))");
  EXPECT_EQ(process(), ProcessingResult());
  EXPECT_EQ(journal.log(),
            (Entries{"info ScriptRepositoryMetaProcessor downloadScriptRepoMeta(): Script-Meta "
                     "Download Success",
                     kNoMetadata}));
  serveMetadata(metadataEntry("42", "5"));

  EXPECT_EQ(process(), ProcessingResult(true, "done\n"));
}

// ---- The decision ----------------------------------------------------------------------------

TEST_F(ProcessScript, DownloadsWhenTheVersionsDifferAsText) {
  struct Row {
    const char* server;
    const char* local;
    bool upToDate;
  };
  for (const Row& row :
       {Row{"5", "5", true}, Row{"2", "02", false}, Row{"02", "2", false}, Row{"5", "5 ", false},
        Row{"v1A", "v1a", false}, Row{"5", "", false}, Row{"", "", true}, Row{"5.0", "5", false},
        Row{"\u00e9", "e\u0301", true}, Row{"\u00e9", "\u00c9", false}, Row{"5", "--", false}}) {
    SCOPED_TRACE(std::string(row.server) + " and " + row.local);
    serveMetadata(metadataEntry("42", row.server));
    leaveLocalCopy(row.local);
    loadMetadata();

    EXPECT_EQ(process(), ProcessingResult(true, "done\n"));

    const std::string opening = std::string("Processing Script ID 42 Server Version ") +
                                row.server + " Local Version " + row.local;
    EXPECT_EQ(journal.log().front(),
              flow(opening + (row.upToDate ? " Proceeding without Downloading Script"
                                           : " Downloading and Executing Script")));
    EXPECT_EQ(downloads.made, row.upToDate ? 0U : 2U);
  }
}

TEST_F(ProcessScript, ShowsAnAbsentVersionAsTwoHyphens) {
  struct Row {
    const char* name;
    std::optional<doubles::Store::Row> row;
  };
  for (const Row& row :
       {Row{"no row", std::nullopt}, Row{"a row without version", {{{"scriptPath", "/x"}}}},
        Row{"a row that does not decode", {{{"version", std::nullopt}}}}}) {
    SCOPED_TRACE(row.name);
    leaveLocalCopy("5");
    store.rows.erase("42");
    if (row.row) store.rows["42"] = *row.row;
    loadMetadata();

    EXPECT_EQ(process(), ProcessingResult(true, "done\n"));

    EXPECT_EQ(journal.log().front(),
              flow("Processing Script ID 42 Server Version 5 Local Version -- Downloading and "
                   "Executing Script"));
    EXPECT_EQ(journal.log().back(),
              flow("Processing Script ID 42 Server Version 5 Local Version -- status "
                   "(Optional(true), Optional(\"done\n\"))"));
  }
}

TEST_F(ProcessScript, DownloadsWhenTheVersionCannotBeRead) {
  leaveLocalCopy("5");
  loadMetadata();
  ScriptRepositoryProcessor processor("42");
  journal.reset();
  journal.throwAlways("fetch");

  EXPECT_EQ(processor.processScript(), ProcessingResult(true, "done\n"));

  EXPECT_EQ(journal.log().front(),
            flow("Processing Script ID 42 Server Version 5 Local Version -- Downloading and "
                 "Executing Script"));
}

TEST_F(ProcessScript, DownloadsWhenTheStoreCannotBeOpened) {
  leaveLocalCopy("5");
  ScriptRepositoryProcessor processor("42");
  journal.reset();
  journal.throwAlways("open");

  EXPECT_EQ(processor.processScript(), ProcessingResult(true, "done\n"));

  EXPECT_EQ(journal.effects(),
            (Entries{"download /client-data/7/scriptrepo/scripts-meta.xml to "
                     "<agent>/client-data/7/scripts-repository-data/scripts-meta.xml",
                     "open <data>/Configuration-Framework/ScriptRepository table ScriptToMeta",
                     kFetchDocument, kFetchScript, kTestChecksum, kRun}));
}

TEST_F(ProcessScript, DownloadsWhenTheDataDocumentIsGone) {
  leaveLocalCopy("5");
  doubles::removeTree(dataDirectory + "/42.xml");
  loadMetadata();

  EXPECT_EQ(process(), ProcessingResult(true, "done\n"));

  EXPECT_EQ(journal.log().front(),
            flow("Processing Script ID 42 Server Version 5 Local Version 5 Downloading and "
                 "Executing Script"));
  EXPECT_EQ(downloads.made, 2U);
}

// ---- The path with download ------------------------------------------------------------------

class DownloadPath : public ProcessScript {
 protected:
  /// Processes script 42 and expects that it was not run, with `middle` between the two lines of
  /// the flow.
  void expectNotRun(const Entries& middle) {
    EXPECT_EQ(process(), ProcessingResult());
    Entries expected{"fetch 42", flow("Processing Script ID 42 Server Version 5 Local Version -- "
                                      "Downloading and Executing Script")};
    expected.insert(expected.end(), middle.begin(), middle.end());
    expected.push_back(
        flow("Processing Script ID 42 Server Version 5 Local Version -- status (nil, nil)"));
    EXPECT_EQ(journal.entries(), expected);
  }
};

TEST_F(DownloadPath, WithoutAPathMapping) {
  serveMetadata("ScriptRepo(script_id<42> file_id<f1> modified_time<5>)");
  loadMetadata();

  expectNotRun({downloadPath("Not able to get download URL of script data")});
}

TEST_F(DownloadPath, WithAnEmptyPathMapping) {
  loadMetadata();
  ScriptRepositoryMetaProcessor::shared()
      .modifyScriptRepoMetaData()
      ->at(0)
      .scriptPathMapping->clear();

  expectNotRun({downloadPath("Not able to get download URL of script data")});
}

TEST_F(DownloadPath, TakesTheFirstMappingAsItStands) {
  serveMetadata(
      "ScriptRepo(script_id<42> file_id<f1> modified_time<5> ScriptPathMapping(filepath< a\\b c>) "
      "ScriptPathMapping(filepath</client-data/7/scriptrepo/42.xml>))");
  loadMetadata();

  expectNotRun({"download  a\\b c to <agent>/client-data/7/scripts-repository-data/42.xml",
                downloadPath("Download failure of script data")});
}

TEST_F(DownloadPath, AsksForAnEmptyPathLikeForAnyOther) {
  serveMetadata(
      "ScriptRepo(script_id<42> file_id<f1> modified_time<5> ScriptPathMapping(filepath<>))");
  loadMetadata();

  expectNotRun({"download  to <agent>/client-data/7/scripts-repository-data/42.xml",
                downloadPath("Download failure of script data")});
}

TEST_F(DownloadPath, WhoseDataDocumentCannotBeHad) {
  downloads.refuse(kDataDocument);
  loadMetadata();

  expectNotRun({kFetchDocument, downloadPath("Download failure of script data")});
}

TEST_F(DownloadPath, WhoseOldDataDocumentIsNotUsedAfterAFailedDownload) {
  leaveLocalCopy("4");
  store.rows.clear();
  downloads.refuse(kDataDocument);
  loadMetadata();

  expectNotRun({kFetchDocument, downloadPath("Download failure of script data")});
  EXPECT_EQ(doubles::readFile(dataDirectory + "/42.xml"), document.text());
  EXPECT_EQ(doubles::readFile(scriptsDirectory + "/clean.sh"), kContent);
}

TEST_F(DownloadPath, WhoseDataDocumentDoesNotDecode) {
  downloads.serve(kDataDocument, "script(");
  loadMetadata();

  expectNotRun({kFetchDocument,
                "info ScriptRepositoryProcessor getScriptItemData(): Unable to get file data",
                downloadPath("Unable to get script items data")});
  EXPECT_EQ(doubles::readFile(dataDirectory + "/42.xml"), "script(");
}

TEST_F(DownloadPath, WhoseDataDocumentLacksTheFile) {
  document.fileID = "f2";
  serveDocument(document);
  loadMetadata();

  expectNotRun({kFetchDocument, downloadPath("Unable to get file data from script items data")});
}

TEST_F(DownloadPath, WhoseScriptCannotBeHad) {
  leaveLocalCopy("4");
  store.rows.clear();
  downloads.refuse(kScript);
  loadMetadata();

  expectNotRun({kFetchDocument, kFetchScript, downloadPath("Download failure of script")});
  EXPECT_THAT(store.rows, IsEmpty());
  EXPECT_EQ(doubles::readFile(scriptsDirectory + "/clean.sh"), kContent);
  EXPECT_EQ(doubles::readFile(dataDirectory + "/42.xml"), document.text());
}

TEST_F(DownloadPath, WhoseScriptDoesNotVerifyRecordsNoVersion) {
  downloads.serve(kScript, "tampered with");
  loadMetadata();

  expectNotRun({kFetchDocument, kFetchScript, "fetch 42", "update 42 " + kRecordedPath,
                kTestChecksum,
                checksum("Checksum mismatch ID c1 Server Checksum 10 Server Checksum Type T"),
                downloadPath("Not able to compute checksum processing")});
  EXPECT_EQ(store.row("42"), "scriptPath=" + scriptsDirectory + "/clean.sh");
  // What was fetched stays; the next request deals with it.
  EXPECT_EQ(doubles::readFile(scriptsDirectory + "/clean.sh"), "tampered with");
  EXPECT_EQ(doubles::readFile(dataDirectory + "/42.xml"), document.text());
}

TEST_F(DownloadPath, WithoutAChecksumIsNotRun) {
  document.linkedChecksumID = "";
  serveDocument(document);
  loadMetadata();
  expectNotRun({kFetchDocument, kFetchScript, "fetch 42", "update 42 " + kRecordedPath,
                checksum("Unable to get checksum ID"),
                downloadPath("Not able to compute checksum processing")});

  store.rows.clear();
  document.linkedChecksumID = "c2";
  serveDocument(document);
  expectNotRun({kFetchDocument, kFetchScript, "fetch 42", "update 42 " + kRecordedPath,
                checksum("Unable to get checksum data"),
                downloadPath("Not able to compute checksum processing")});
}

TEST_F(DownloadPath, WithoutADefinitionOfTheScriptRecordsTheVersionAndRunsNothing) {
  document.scriptID = "43";
  serveDocument(document);
  loadMetadata();

  expectNotRun({kFetchDocument, kFetchScript, "fetch 42", "update 42 " + kRecordedPath,
                kTestChecksum, "fetch 42", "update 42 version=5 " + kRecordedPath,
                downloadPath("Not able get script repo data")});
  EXPECT_EQ(store.row("42"), "version=5 scriptPath=" + scriptsDirectory + "/clean.sh");
}

TEST_F(DownloadPath, OfAScriptWithoutInterpreterRecordsTheVersion) {
  document.scriptName = "clean.exe";
  serveDocument(document);
  loadMetadata();

  expectNotRun({kFetchDocument, kFetchScript, "fetch 42", "update 42 " + kRecordedPath,
                kTestChecksum, "fetch 42", "update 42 version=5 " + kRecordedPath,
                execution("Unable to get launch path for clean.exe")});
}

TEST_F(DownloadPath, OfARunWithoutResult) {
  Runs::shared().answers = {{std::nullopt, std::nullopt}};
  loadMetadata();

  expectNotRun({kFetchDocument, kFetchScript, "fetch 42", "update 42 " + kRecordedPath,
                kTestChecksum, "fetch 42", "update 42 version=5 " + kRecordedPath,
                execution("Script Name: clean.sh Args: -a Expected Exit Code: 0"), kRun,
                execution("Script Output: No Output Exit Code: nil")});
}

// ---- The path without download ---------------------------------------------------------------

class LocalPath : public ProcessScript {
 protected:
  /// Processes script 42, which is up to date, and expects `middle` between the two lines of the
  /// flow.
  void expectResult(const ProcessingResult& result, const std::string& resultText,
                    const Entries& middle) {
    EXPECT_EQ(process(), result);
    Entries expected{"fetch 42", flow("Processing Script ID 42 Server Version 5 Local Version 5 "
                                      "Proceeding without Downloading Script")};
    expected.insert(expected.end(), middle.begin(), middle.end());
    expected.push_back(
        flow("Processing Script ID 42 Server Version 5 Local Version 5 status " + resultText));
    EXPECT_EQ(journal.entries(), expected);
  }

  const Entries executionOfTheScript{
      execution("Script Name: clean.sh Args: -a Expected Exit Code: 0"), kRun,
      execution("Script Output: done\n Exit Code: 0")};
};

TEST_F(LocalPath, WhoseDataDocumentCannotBeRead) {
  leaveLocalCopy("5");
  doubles::removeTree(dataDirectory + "/42.xml");
  doubles::makeDirectories(dataDirectory + "/42.xml");
  loadMetadata();

  expectResult({}, "(nil, nil)",
               {"info ScriptRepositoryProcessor getScriptItemData(): Error while reading file "
                "<agent>/client-data/7/scripts-repository-data/42.xml Is a directory"});
}

TEST_F(LocalPath, WhoseDataDocumentDoesNotDecode) {
  leaveLocalCopy("5");
  doubles::writeFile(dataDirectory + "/42.xml", "script(");
  loadMetadata();

  expectResult({}, "(nil, nil)",
               {"info ScriptRepositoryProcessor getScriptItemData(): Unable to get file data"});
}

TEST_F(LocalPath, WhoseDataDocumentLacksTheFile) {
  document.fileID = "f2";
  leaveLocalCopy("5");
  loadMetadata();

  expectResult({}, "(nil, nil)", {localPath("Unable to get script data")});
}

TEST_F(LocalPath, WhoseScriptIsGoneFetchesItOnceMore) {
  leaveLocalCopy("5");
  doubles::removeTree(scriptsDirectory + "/clean.sh");
  loadMetadata();

  Entries middle{kTestChecksum,
                 checksum("Checksum mismatch ID c1 Server Checksum 10 Server Checksum Type T"),
                 localPath("Not able to compute checksum processing, redownloading script"),
                 kFetchScript,
                 "fetch 42",
                 "update 42 version=5 " + kRecordedPath,
                 kTestChecksum};
  middle.insert(middle.end(), executionOfTheScript.begin(), executionOfTheScript.end());
  expectResult({true, "done\n"}, "(Optional(true), Optional(\"done\n\"))", middle);
  EXPECT_EQ(doubles::readFile(scriptsDirectory + "/clean.sh"), kContent);
}

TEST_F(LocalPath, WhoseScriptWasChangedFetchesItOnceMore) {
  leaveLocalCopy("5");
  doubles::writeFile(scriptsDirectory + "/clean.sh", "echo tampered with\n");
  loadMetadata();

  EXPECT_EQ(process(), ProcessingResult(true, "done\n"));

  EXPECT_EQ(journal.effects(),
            (Entries{"fetch 42", kTestChecksum, kFetchScript, "fetch 42",
                     "update 42 version=5 " + kRecordedPath, kTestChecksum, kRun}));
  EXPECT_EQ(doubles::readFile(scriptsDirectory + "/clean.sh"), kContent);
}

TEST_F(LocalPath, WhoseScriptCannotBeFetchedAgainEndsWithoutAFurtherLine) {
  leaveLocalCopy("5");
  doubles::writeFile(scriptsDirectory + "/clean.sh", "echo tampered with\n");
  downloads.refuse(kScript);
  loadMetadata();

  expectResult(
      {}, "(nil, nil)",
      {kTestChecksum, checksum("Checksum mismatch ID c1 Server Checksum 10 Server Checksum Type T"),
       localPath("Not able to compute checksum processing, redownloading script"), kFetchScript});
  EXPECT_EQ(doubles::readFile(scriptsDirectory + "/clean.sh"), "echo tampered with\n");
  EXPECT_EQ(doubles::readFile(dataDirectory + "/42.xml"), document.text());
}

TEST_F(LocalPath, WhoseScriptDoesNotVerifyAfterTheOneDownload) {
  leaveLocalCopy("5");
  doubles::removeTree(scriptsDirectory + "/clean.sh");
  downloads.serveInTurn(kScript, {"still wrong", kContent});
  loadMetadata();

  expectResult(
      {}, "(nil, nil)",
      {kTestChecksum, checksum("Checksum mismatch ID c1 Server Checksum 10 Server Checksum Type T"),
       localPath("Not able to compute checksum processing, redownloading script"), kFetchScript,
       "fetch 42", "update 42 version=5 " + kRecordedPath, kTestChecksum,
       checksum("Checksum mismatch ID c1 Server Checksum 10 Server Checksum Type T"),
       localPath("Not able to compute checksum processing after redownloading")});
  EXPECT_EQ(doubles::readFile(scriptsDirectory + "/clean.sh"), "still wrong");
  EXPECT_EQ(doubles::readFile(dataDirectory + "/42.xml"), document.text());
}

TEST_F(LocalPath, WithoutAChecksumFetchesOnceAndRunsNothing) {
  document.linkedChecksumID = "";
  leaveLocalCopy("5");
  loadMetadata();

  expectResult(
      {}, "(nil, nil)",
      {checksum("Unable to get checksum ID"),
       localPath("Not able to compute checksum processing, redownloading script"), kFetchScript,
       "fetch 42", "update 42 version=5 " + kRecordedPath, checksum("Unable to get checksum ID"),
       localPath("Not able to compute checksum processing after redownloading")});
}

TEST_F(LocalPath, WithoutADefinitionOfTheScript) {
  document.scriptID = "43";
  leaveLocalCopy("5");
  loadMetadata();

  expectResult({}, "(nil, nil)", {kTestChecksum, localPath("Not able to get script data")});
}

TEST_F(LocalPath, LooksTheDefinitionUpAfterTheChecksum) {
  document.scriptID = "43";
  leaveLocalCopy("5");
  doubles::removeTree(scriptsDirectory + "/clean.sh");
  loadMetadata();

  EXPECT_EQ(process(), ProcessingResult());

  EXPECT_EQ(journal.effects(), (Entries{"fetch 42", kTestChecksum, kFetchScript, "fetch 42",
                                        "update 42 version=5 " + kRecordedPath, kTestChecksum}));
  EXPECT_EQ(journal.log()[journal.log().size() - 2], localPath("Not able to get script data"));
}

TEST_F(LocalPath, TakesTheFileNameAsItStands) {
  for (const std::string name : {"100%@.sh", "sub/clean.sh"}) {
    document.fileName = name;
    leaveLocalCopy("5");
    doubles::writeFile(scriptsDirectory + "/" + name, kContent);
    loadMetadata();

    EXPECT_EQ(process(), ProcessingResult(true, "done\n"));

    EXPECT_EQ(
        journal.effects(),
        (Entries{"fetch 42",
                 "checksum <agent>/client-data/7/scripts-repository/" + name + " type T value 10",
                 "run /bin/sh <agent>/client-data/7/scripts-repository/" + name +
                     " {-a} in <agent>/client-data/7/scripts-repository limit 600"}));
  }
}

// ---- The closing line ------------------------------------------------------------------------

TEST_F(ProcessScript, ShowsTheResultInItsClosingLine) {
  struct Row {
    Runs::Result run;
    const char* status;
  };
  leaveLocalCopy("5");
  loadMetadata();
  for (const Row& row : {
           Row{{0, "done"}, R"((Optional(true), Optional("done")))"},
           Row{{0, ""}, R"((Optional(true), Optional("")))"},
           Row{{1, "no"}, R"((Optional(false), Optional("no")))"},
           Row{{1, ""}, R"((Optional(false), Optional("")))"},
           Row{{std::nullopt, std::nullopt}, "(nil, nil)"},
           // The output stands between its quotation marks as it is.
           Row{{0, "say \"hi\"\\\n"}, "(Optional(true), Optional(\"say \"hi\"\\\n\"))"},
       }) {
    SCOPED_TRACE(row.status);
    Runs::shared().answers = {row.run};

    const ProcessingResult result = process();

    EXPECT_EQ(result.second, row.run.second);
    EXPECT_EQ(journal.log().back(), flow("Processing Script ID 42 Server Version 5 Local Version "
                                         "5 status " +
                                         std::string(row.status)));
  }
}

// ---- Threads and instances -------------------------------------------------------------------

TEST_F(ProcessScript, CallsEveryModuleOnTheCallersThread) {
  std::thread::id caller;
  std::thread([&] {
    caller = std::this_thread::get_id();
    for (int request = 0; request < 2; ++request) {
      static_cast<void>(ScriptRepositoryProcessor("42").processScript());
    }
    ScriptRepositoryMetaProcessor::shared().setScriptRepoAllMetaData(ScriptRepoAllMetaData{});
    ScriptRepositoryProcessor::removeServerRemovedScripts();
  }).join();

  EXPECT_THAT(journal.threads(), ElementsAre(caller));
  // Each module was called, and none of them is left out above.
  EXPECT_THAT(journal.effects(), IsSupersetOf(Entries{"fetch 42", kFetchScript, kTestChecksum, kRun,
                                                      "list", "delete 42"}));
  EXPECT_FALSE(parser.calls.empty());
}

TEST_F(ProcessScript, OfAnIDMayBeStartedWithinADownloadForTheSameID) {
  loadMetadata();
  Runs::shared().answers = {{3, "inner\n"}, {0, "outer\n"}};
  ProcessingResult inner;
  downloads.meanwhile = [&](const std::string& fromURL) {
    if (fromURL != kScript) return;
    downloads.meanwhile = nullptr;
    ScriptRepositoryProcessor second("42");
    second.overrideExpectedReturnCode = {"3"};
    inner = second.processScript();
  };

  EXPECT_EQ(process(), ProcessingResult(true, "outer\n"));

  EXPECT_EQ(inner, ProcessingResult(true, "inner\n"));
  EXPECT_EQ(journal.effects(),
            (Entries{"fetch 42", kFetchDocument, kFetchScript,
                     // The whole second request.
                     "exists <agent>/client-data/7/scripts-repository-data",
                     "exists <agent>/client-data/7/scripts-repository", "fetch 42", kFetchDocument,
                     kFetchScript, "fetch 42", "update 42 " + kRecordedPath, kTestChecksum,
                     "fetch 42", "update 42 version=5 " + kRecordedPath, kRun,
                     // The rest of the first one, as if nothing had been.
                     "fetch 42", "update 42 version=5 " + kRecordedPath, kTestChecksum, "fetch 42",
                     "update 42 version=5 " + kRecordedPath, kRun}));
}

/// Ends the process while another thread makes requests; with status 0 when those don't notice.
class ProcessEnd : public ProcessScript {
 protected:
  [[noreturn]] void endAmidRequests() {
    static ProcessEnd* test;
    test = this;
    // What is made from here on and destroyed at the end is gone when this is called.
    std::atexit([] {
      test->ending_.set_value();
      auto unharmed = test->unharmed_.get_future();
      const bool told = unharmed.wait_for(std::chrono::seconds(10)) == std::future_status::ready;
      std::_Exit(told && unharmed.get() ? 0 : 1);
    });
    std::thread([this] {
      process();
      const ProcessingResult result = process();
      const Entries entries = journal.entries();
      begun_.set_value();
      ending_.get_future().wait();
      const Entries ended = journal.entries();
      unharmed_.set_value(ended == entries && process() == result && journal.entries() == entries);
    }).detach();
    begun_.get_future().wait();
    std::exit(2);
  }

 private:
  std::promise<void> begun_;
  std::promise<void> ending_;
  std::promise<bool> unharmed_;
};

TEST_F(ProcessEnd, LeavesRequestsOfOtherThreadsUnharmed) {
  EXPECT_EXIT(endAmidRequests(), testing::ExitedWithCode(0), "");
}

// ---- Line numbers ----------------------------------------------------------------------------

TEST_F(ProcessScript, EachMessageCarriesTheLineOfItsOwnCall) {
  // Requests that between them write most of the messages.
  EXPECT_EQ(process(), ProcessingResult(true, "done\n"));
  std::vector<doubles::LogRecord> records = journal.records();
  const auto collect = [&] {
    static_cast<void>(process());
    const auto more = journal.records();
    records.insert(records.end(), more.begin(), more.end());
  };
  collect();
  downloads.serve(kScript, "wrong");
  doubles::writeFile(scriptsDirectory + "/clean.sh", "wrong");
  collect();
  downloads.refuse(kScript);
  store.rows.clear();
  collect();
  downloads.refuse(kDataDocument);
  collect();

  std::map<std::pair<std::string, int>, std::string> operations;
  for (const doubles::LogRecord& record : records) {
    EXPECT_GT(record.line, 0) << record.message;
    // One line of a source belongs to one operation and one message.
    const std::string kind = record.operation + record.message.substr(0, 12);
    const auto [known, fresh] = operations.try_emplace({record.source, record.line}, kind);
    EXPECT_EQ(known->second, kind);
  }
  EXPECT_GE(operations.size(), 10U);
}

}  // namespace
