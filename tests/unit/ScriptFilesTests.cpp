// The files of one script: its data document, its download, its checksum.

#include <gmock/gmock.h>

#include <string>
#include <utility>
#include <vector>

#include "AgentFixture.h"
#include "ScriptRepositoryLocalMetaProcessor.h"
#include "ScriptRepositoryProcessorRequest.h"

namespace {

using namespace VarnScriptRepository;
using doubles::DataDocument;
using testing::ElementsAre;
using testing::IsEmpty;

class ScriptFiles : public doubles::AgentFixture {
 protected:
  ScriptFiles() { ScriptRepositoryLocalMetaProcessor::shared(); }

  /// A request for script 42 whose construction is not in the journal.
  ScriptRequest& request() {
    if (!request_) {
      request_.emplace("42");
      journal.reset();
    }
    return *request_;
  }

  std::string documentPath() const { return dataDirectory + "/42.xml"; }

 private:
  std::optional<ScriptRequest> request_;
};

// ---- getScriptItemData -----------------------------------------------------------------------

class GetScriptItemData : public ScriptFiles {};

TEST_F(GetScriptItemData, GivesTheFirstItemOfTheDocumentOnDisk) {
  DataDocument first;
  DataDocument second;
  second.scriptName = "second.sh";
  doubles::writeFile(documentPath(), first.text() + second.text());

  const auto item = request().getScriptItemData();

  ASSERT_TRUE(item);
  ASSERT_THAT(item->scriptRepo, testing::SizeIs(1));
  EXPECT_EQ(item->scriptRepo[0].scriptName, "clean.sh");
  EXPECT_THAT(journal.entries(), IsEmpty());
  EXPECT_THAT(parser.calls,
              ElementsAre(doubles::ParserCalls::Call{first.text() + second.text(), false, false}));
}

TEST_F(GetScriptItemData, OfAMissingDocumentNamesPathAndError) {
  EXPECT_EQ(request().getScriptItemData(), std::nullopt);

  EXPECT_THAT(
      journal.entries(),
      ElementsAre("info ScriptRepositoryProcessor getScriptItemData(): Error while reading file "
                  "<agent>/client-data/7/scripts-repository-data/42.xml No such file or "
                  "directory"));
}

TEST_F(GetScriptItemData, OfAnUnreadableDocumentNamesPathAndError) {
  doubles::makeDirectories(documentPath());

  EXPECT_EQ(request().getScriptItemData(), std::nullopt);

  EXPECT_THAT(
      journal.entries(),
      ElementsAre("info ScriptRepositoryProcessor getScriptItemData(): Error while reading file "
                  "<agent>/client-data/7/scripts-repository-data/42.xml Is a directory"));
}

TEST_F(GetScriptItemData, OfWhatHoldsNoItemIsOneLine) {
  struct Row {
    const char* name;
    const char* document;
  };
  for (const Row& row : {Row{"not a document", "script("}, Row{"empty file", ""},
                         Row{"a required key is missing", "script(VyFiles(file_id<f1>))"},
                         Row{"an empty script list", "other()"}}) {
    SCOPED_TRACE(row.name);
    request();
    journal.reset();
    doubles::writeFile(documentPath(), row.document);

    EXPECT_EQ(request().getScriptItemData(), std::nullopt);

    EXPECT_THAT(
        journal.entries(),
        ElementsAre("info ScriptRepositoryProcessor getScriptItemData(): Unable to get file data"));
  }
}

TEST_F(GetScriptItemData, OfAParserThatThrowsIsOneLine) {
  doubles::writeFile(documentPath(), DataDocument{}.text());
  for (const std::string operation : {"parse", "decode"}) {
    for (const auto what : {doubles::Thrown::exception, doubles::Thrown::somethingElse}) {
      SCOPED_TRACE(operation);
      request();
      journal.reset();
      journal.throwAlways(operation, what);

      EXPECT_EQ(request().getScriptItemData(), std::nullopt);

      EXPECT_THAT(journal.entries(),
                  ElementsAre("info ScriptRepositoryProcessor getScriptItemData(): Unable to get "
                              "file data"));
    }
  }
}

// ---- downloadScript --------------------------------------------------------------------------

class DownloadScript : public ScriptFiles {};

TEST_F(DownloadScript, FetchesTheFileAndRecordsItsPath) {
  store.rows["42"] = {{"version", "4"}};
  downloads.serve("a/b.sh", "content");

  EXPECT_TRUE(request().downloadScript(R"(..\webapps\Quillandermoor\a\b.sh)", "b.sh"));

  EXPECT_THAT(
      journal.entries(),
      ElementsAre("download a/b.sh to <agent>/client-data/7/scripts-repository/b.sh", "fetch 42",
                  "update 42 version=4 "
                  "scriptPath=<agent>/client-data/7/scripts-repository/b.sh"));
  EXPECT_EQ(request().scriptFilePath, scriptsDirectory + "/b.sh");
  EXPECT_EQ(doubles::readFile(scriptsDirectory + "/b.sh"), "content");
  EXPECT_EQ(downloads.made, 1U);
}

TEST_F(DownloadScript, SetsThePathAlsoWhenTheDownloadFails) {
  store.rows["42"] = {{"version", "4"}};

  EXPECT_FALSE(request().downloadScript("a/b.sh", "b.sh"));

  EXPECT_EQ(request().scriptFilePath, scriptsDirectory + "/b.sh");
  EXPECT_THAT(journal.entries(),
              ElementsAre("download a/b.sh to <agent>/client-data/7/scripts-repository/b.sh"));
  EXPECT_EQ(store.row("42"), "version=4");
}

TEST_F(DownloadScript, SetsThePathAlsoWhenTheDownloaderThrows) {
  for (const std::string operation : {"download", "make downloader"}) {
    for (const auto what : {doubles::Thrown::exception, doubles::Thrown::somethingElse}) {
      SCOPED_TRACE(operation);
      request().scriptFilePath.reset();
      journal.reset();
      journal.throwAlways(operation, what);

      EXPECT_FALSE(request().downloadScript("a/b.sh", "b.sh"));

      EXPECT_EQ(request().scriptFilePath, scriptsDirectory + "/b.sh");
      EXPECT_THAT(journal.log(), IsEmpty());
      EXPECT_THAT(store.rows, IsEmpty());
    }
  }
}

TEST_F(DownloadScript, APathThatCannotBeRecordedDoesNotFailTheDownload) {
  downloads.serve("a/b.sh", "content");
  request();
  journal.throwAlways("update");

  EXPECT_TRUE(request().downloadScript("a/b.sh", "b.sh"));
  EXPECT_THAT(journal.log(), IsEmpty());
}

TEST_F(DownloadScript, TakesTheFileNameAsItStands) {
  for (const std::string name : {"100%@ %d.sh", "sub/clean.sh", "../clean.sh", "/bin/sh",
                                 " clean.sh ", "a\\b.sh", ".", ""}) {
    request();
    journal.reset();

    EXPECT_FALSE(request().downloadScript("a", name));

    EXPECT_EQ(request().scriptFilePath, scriptsDirectory + "/" + name);
    EXPECT_THAT(journal.entries(),
                ElementsAre("download a to <agent>/client-data/7/scripts-repository/" + name));
  }
}

TEST_F(DownloadScript, RewritesTheServersLocation) {
  struct Row {
    const char* location;
    const char* serverPath;
  };
  for (const Row& row : {
           Row{R"(..\webapps\Quillandermoor\a\b.sh)", "a/b.sh"},
           Row{R"(..\webapps\Quillandermoor\scripts\12\clean.sh)", "scripts/12/clean.sh"},
           Row{"scripts/12/clean.sh", "scripts/12/clean.sh"},
           Row{"/scripts/12/clean.sh", "/scripts/12/clean.sh"},
           Row{R"(scripts\12\clean.sh)", "scripts/12/clean.sh"},
           // The literal is not anchored.
           Row{R"(x\..\webapps\Quillandermoor\y)", "x/y"},
           Row{R"(..\webapps\Quillandermoor\..\webapps\Quillandermoor\y)", "y"},
           Row{R"(a\..\webapps\Quillandermoor\b\..\webapps\Quillandermoor\c)", "a/b/c"},
           Row{R"(a\..\webapps\Quillandermoor\)", "a/"},
           // One pass: what comes together by a removal stays.
           Row{R"(..\webapps\Quill..\webapps\Quillandermoor\andermoor\y)",
               "../webapps/Quillandermoor/y"},
           // Exact and case-sensitive, with its own backslashes.
           Row{R"(..\webapps\quillandermoor\y)", "../webapps/quillandermoor/y"},
           Row{R"(..\Webapps\Quillandermoor\y)", "../Webapps/Quillandermoor/y"},
           Row{"../webapps/Quillandermoor/y", "../webapps/Quillandermoor/y"},
           Row{R"(..\webapps\Quillandermoor)", "../webapps/Quillandermoor"},
           Row{R"(...\webapps\Quillandermoor\y)", ".y"},
           Row{R"(a\\b)", "a//b"},
           Row{"", ""},
       }) {
    SCOPED_TRACE(row.location);
    request();
    journal.reset();

    EXPECT_FALSE(request().downloadScript(row.location, "b.sh"));

    EXPECT_THAT(journal.entries(),
                ElementsAre("download " + std::string(row.serverPath) +
                            " to <agent>/client-data/7/scripts-repository/b.sh"));
  }
}

// ---- isValidChecksumForFile ------------------------------------------------------------------

class IsValidChecksumForFile : public ScriptFiles {
 protected:
  static VyFile fileWithLinks(const std::vector<std::string>& checksumIDs) {
    VyFile file;
    for (const std::string& id : checksumIDs) file.csToVyFiles.push_back({id});
    return file;
  }

  static ChecksumValue record(const std::string& id, const std::string& type,
                              const std::string& value) {
    ChecksumValue made;
    made.checksumID = id;
    made.checksumType = type;
    made.checksumVal = value;
    return made;
  }

  void setScript(const std::string& content) {
    doubles::writeFile(scriptsDirectory + "/clean.sh", content);
    request().scriptFilePath = scriptsDirectory + "/clean.sh";
  }
};

TEST_F(IsValidChecksumForFile, IsTrueForAMatchWithoutALine) {
  setScript("0123456789");

  EXPECT_TRUE(request().isValidChecksumForFile(fileWithLinks({"c1"}), {record("c1", "T", "10")}));

  EXPECT_THAT(journal.entries(),
              ElementsAre("checksum <agent>/client-data/7/scripts-repository/clean.sh type T "
                          "value 10"));
}

TEST_F(IsValidChecksumForFile, WithoutLinksIsOneLineAndNoTest) {
  setScript("0123456789");

  EXPECT_FALSE(request().isValidChecksumForFile(fileWithLinks({}), {record("c1", "T", "10")}));

  EXPECT_THAT(
      journal.entries(),
      ElementsAre("info ScriptRepositoryProcessor "
                  "isValidChecksumForFile(withFileData:allChecksumData:): Unable to get checksum "
                  "ID"));
}

TEST_F(IsValidChecksumForFile, WithoutAMatchingRecordIsOneLineAndNoTest) {
  setScript("0123456789");
  for (const auto& records : std::vector<std::vector<ChecksumValue>>{
           {}, {record("c2", "T", "10")}, {record("C1", "T", "10"), record(" c1", "T", "10")}}) {
    journal.reset();
    EXPECT_FALSE(request().isValidChecksumForFile(fileWithLinks({"c1"}), records));
    EXPECT_THAT(
        journal.entries(),
        ElementsAre("info ScriptRepositoryProcessor "
                    "isValidChecksumForFile(withFileData:allChecksumData:): Unable to get checksum "
                    "data"));
  }
}

TEST_F(IsValidChecksumForFile, UsesTheFirstLinkAlone) {
  setScript("0123456789");

  EXPECT_FALSE(
      request().isValidChecksumForFile(fileWithLinks({"c1", "c2"}), {record("c2", "T", "10")}));
  journal.reset();
  EXPECT_TRUE(request().isValidChecksumForFile(fileWithLinks({"c1", "c2"}),
                                               {record("c2", "T", "1"), record("c1", "T", "10")}));
  EXPECT_THAT(journal.entries(), testing::SizeIs(1));
}

TEST_F(IsValidChecksumForFile, UsesTheFirstRecordOfAnIDAlone) {
  setScript("0123456789");

  EXPECT_FALSE(request().isValidChecksumForFile(fileWithLinks({"c1"}),
                                                {record("c1", "T", "9"), record("c1", "U", "10")}));

  EXPECT_THAT(
      journal.entries(),
      ElementsAre("checksum <agent>/client-data/7/scripts-repository/clean.sh type T value 9",
                  "info ScriptRepositoryProcessor "
                  "isValidChecksumForFile(withFileData:allChecksumData:): Checksum mismatch ID c1 "
                  "Server Checksum 9 Server Checksum Type T"));
}

TEST_F(IsValidChecksumForFile, TakesCanonicallyEquivalentIDsForEqual) {
  setScript("0123456789");

  EXPECT_TRUE(
      request().isValidChecksumForFile(fileWithLinks({"\u00e9"}), {record("e\u0301", "T", "10")}));
}

TEST_F(IsValidChecksumForFile, WithoutAPathIsFalseWithoutALine) {
  EXPECT_FALSE(request().isValidChecksumForFile(fileWithLinks({"c1"}), {record("c1", "T", "10")}));

  EXPECT_THAT(journal.entries(), IsEmpty());
}

TEST_F(IsValidChecksumForFile, TakesEmptyTextsLikeAnyOther) {
  struct Row {
    const char* id;
    const char* type;
    const char* value;
    bool valid;
  };
  setScript("0123456789");
  for (const Row& row : {Row{"", "T", "10", true}, Row{"c1", "", "10", false},
                         Row{"c1", "T", "", false}, Row{"", "", "", false}}) {
    journal.reset();
    EXPECT_EQ(request().isValidChecksumForFile(fileWithLinks({row.id}),
                                               {record(row.id, row.type, row.value)}),
              row.valid);
    EXPECT_EQ(journal.effects().size(), 1U);
  }
}

TEST_F(IsValidChecksumForFile, LooksForLinkAndRecordBeforeThePath) {
  EXPECT_FALSE(request().isValidChecksumForFile(fileWithLinks({}), {record("c1", "T", "10")}));
  EXPECT_FALSE(request().isValidChecksumForFile(fileWithLinks({"c2"}), {record("c1", "T", "10")}));

  EXPECT_THAT(
      journal.entries(),
      ElementsAre("info ScriptRepositoryProcessor "
                  "isValidChecksumForFile(withFileData:allChecksumData:): Unable to get checksum "
                  "ID",
                  "info ScriptRepositoryProcessor "
                  "isValidChecksumForFile(withFileData:allChecksumData:): Unable to get checksum "
                  "data"));
}

TEST_F(IsValidChecksumForFile, LeavesTheChecksumOfTheDownloadAddressAlone) {
  setScript("0123456789");
  ChecksumValue filled = record("c1", "T", "9");
  filled.downloadURLChecksum = "10";
  filled.downloadURL = "/scripts/42/clean.sh";

  EXPECT_FALSE(request().isValidChecksumForFile(fileWithLinks({"c1"}), {filled}));

  std::swap(filled.checksumVal, filled.downloadURLChecksum);
  EXPECT_TRUE(request().isValidChecksumForFile(fileWithLinks({"c1"}), {filled}));
}

TEST_F(IsValidChecksumForFile, OfAMismatchNamesValueBeforeType) {
  setScript("0123456789");
  journal.reset();

  EXPECT_FALSE(request().isValidChecksumForFile(fileWithLinks({"5"}), {record("5", "T", "abc")}));

  EXPECT_THAT(
      journal.log(),
      ElementsAre("info ScriptRepositoryProcessor "
                  "isValidChecksumForFile(withFileData:allChecksumData:): Checksum mismatch ID 5 "
                  "Server Checksum abc Server Checksum Type T"));
}

TEST_F(IsValidChecksumForFile, OfAMismatchNamesTheIDAsTheRecordSpellsIt) {
  setScript("0123456789");
  journal.reset();

  EXPECT_FALSE(
      request().isValidChecksumForFile(fileWithLinks({"\u00e9"}), {record("e\u0301", "T", "abc")}));

  EXPECT_THAT(
      journal.log(),
      ElementsAre("info ScriptRepositoryProcessor "
                  "isValidChecksumForFile(withFileData:allChecksumData:): Checksum mismatch ID "
                  "e\u0301 Server Checksum abc Server Checksum Type T"));
}

TEST_F(IsValidChecksumForFile, HandsTypeAndValueOnAsTheyStand) {
  setScript("0123456789");
  checksums.answers = {true};

  EXPECT_TRUE(request().isValidChecksumForFile(fileWithLinks({"c1"}),
                                               {record("c1", " sHa-256 ", " AbC ")}));

  EXPECT_THAT(journal.entries(),
              ElementsAre("checksum <agent>/client-data/7/scripts-repository/clean.sh type  "
                          "sHa-256  value  AbC "));
}

TEST_F(IsValidChecksumForFile, OfAValidatorThatThrowsIsAMismatch) {
  setScript("0123456789");
  for (const auto what : {doubles::Thrown::exception, doubles::Thrown::somethingElse}) {
    journal.reset();
    journal.throwAlways("checksum", what);

    EXPECT_FALSE(
        request().isValidChecksumForFile(fileWithLinks({"c1"}), {record("c1", "T", "10")}));

    EXPECT_THAT(
        journal.log(),
        ElementsAre("info ScriptRepositoryProcessor "
                    "isValidChecksumForFile(withFileData:allChecksumData:): Checksum mismatch ID "
                    "c1 Server Checksum 10 Server Checksum Type T"));
  }
}

}  // namespace
