// The processor's state after construction, its directories, and the settings behind them.

#include <gmock/gmock.h>

#include <array>
#include <string>

#include "AgentFixture.h"
#include "Directories.h"
#include "ScriptRepositoryProcessorRequest.h"
#include "VarnScriptRepository/ScriptRepositoryProcessor.h"
#include "support/Together.h"

namespace {

using testing::ElementsAre;
using VarnScriptRepository::ScriptRepositoryProcessor;

class Directories : public doubles::AgentFixture {};

TEST_F(Directories, ConstructionCreatesBothWithTheirParentsDataDirectoryFirst) {
  const ScriptRepositoryProcessor processor("42");

  EXPECT_THAT(journal.entries(),
              ElementsAre("exists <agent>/client-data/7/scripts-repository-data",
                          "create <agent>/client-data/7/scripts-repository-data with parents",
                          "exists <agent>/client-data/7/scripts-repository",
                          "create <agent>/client-data/7/scripts-repository with parents"));
  EXPECT_TRUE(doubles::exists(directory.path() + "/agent/client-data/7/scripts-repository-data"));
  EXPECT_TRUE(doubles::exists(directory.path() + "/agent/client-data/7/scripts-repository"));
}

TEST_F(Directories, ConstructionCreatesNothingWhenBothExist) {
  doubles::makeDirectories(dataDirectory);
  doubles::makeDirectories(scriptsDirectory);

  const ScriptRepositoryProcessor processor("42");

  EXPECT_THAT(journal.entries(), ElementsAre("exists <agent>/client-data/7/scripts-repository-data",
                                             "exists <agent>/client-data/7/scripts-repository"));
}

TEST_F(Directories, OnlyTheMissingOneIsCreated) {
  doubles::makeDirectories(dataDirectory);

  const ScriptRepositoryProcessor processor("42");

  EXPECT_THAT(journal.entries(),
              ElementsAre("exists <agent>/client-data/7/scripts-repository-data",
                          "exists <agent>/client-data/7/scripts-repository",
                          "create <agent>/client-data/7/scripts-repository with parents"));
}

TEST_F(Directories, AFailureToCreateThemIsIgnored) {
  // A file stands where a directory has to be.
  doubles::writeFile(directory.path() + "/agent/client-data", "in the way");

  const ScriptRepositoryProcessor processor("42");

  EXPECT_THAT(journal.entries(),
              ElementsAre("exists <agent>/client-data/7/scripts-repository-data",
                          "create <agent>/client-data/7/scripts-repository-data with parents",
                          "exists <agent>/client-data/7/scripts-repository",
                          "create <agent>/client-data/7/scripts-repository with parents"));
}

TEST_F(Directories, AreConcatenatedFromBasePathAndCustomer) {
  globals.vyagentBasePath = "/opt/agent";
  globals.vyCustomerID = "7";

  EXPECT_EQ(VarnScriptRepository::basePath(), "/opt/agent");
  EXPECT_EQ(VarnScriptRepository::customerID(), "7");
  EXPECT_EQ(VarnScriptRepository::scriptRepoDataDirectory(),
            "/opt/agent/client-data/7/scripts-repository-data");
  EXPECT_EQ(VarnScriptRepository::scriptRepoScriptsDirectory(),
            "/opt/agent/client-data/7/scripts-repository");
}

TEST_F(Directories, ATrailingSlashInTheBasePathStays) {
  globals.vyagentBasePath += "/";

  const VarnScriptRepository::ScriptRequest request("42");

  EXPECT_THAT(journal.entries(),
              ElementsAre("exists <agent>//client-data/7/scripts-repository-data",
                          "create <agent>//client-data/7/scripts-repository-data with parents",
                          "exists <agent>//client-data/7/scripts-repository",
                          "create <agent>//client-data/7/scripts-repository with parents"));
  EXPECT_EQ(request.scriptDataFilePath,
            directory.path() + "/agent//client-data/7/scripts-repository-data/42.xml");
}

TEST_F(Directories, AnEmptyCustomerLeavesADoubleSlash) {
  globals.vyagentBasePath = "/opt/agent";
  globals.vyCustomerID = "";

  EXPECT_EQ(VarnScriptRepository::scriptRepoDataDirectory(),
            "/opt/agent/client-data//scripts-repository-data");
}

TEST_F(Directories, AreFixedByTheirFirstUse) {
  const std::string before = VarnScriptRepository::scriptRepoDataDirectory();
  globals.vyagentBasePath = "/elsewhere";
  globals.vyCustomerID = "8";

  EXPECT_EQ(VarnScriptRepository::scriptRepoDataDirectory(), before);
  EXPECT_EQ(VarnScriptRepository::basePath(), directory.path() + "/agent");
}

TEST_F(Directories, AreMadeOnceUnderConcurrentFirstUse) {
  globals.vyagentBasePath = "/opt/agent";
  constexpr std::size_t kThreads = 16;
  std::array<std::array<const std::string*, 4>, kThreads> seen{};
  together(kThreads, [&](std::size_t index) {
    seen[index] = {&VarnScriptRepository::scriptRepoDataDirectory(),
                   &VarnScriptRepository::scriptRepoScriptsDirectory(),
                   &VarnScriptRepository::basePath(), &VarnScriptRepository::customerID()};
  });

  EXPECT_THAT(seen, testing::Each(seen.front()));
  EXPECT_EQ(*seen.front()[0], "/opt/agent/client-data/7/scripts-repository-data");
  EXPECT_EQ(*seen.front()[1], "/opt/agent/client-data/7/scripts-repository");
  EXPECT_EQ(*seen.front()[2], "/opt/agent");
  EXPECT_EQ(*seen.front()[3], "7");
}

TEST_F(Directories, DataDocumentIsNamedAfterTheScriptID) {
  struct Row {
    const char* scriptID;
    const char* fileName;
  };
  for (const Row& row : {Row{"42", "/42.xml"}, Row{"a/b", "/a/b.xml"}, Row{"", "/.xml"},
                         Row{"100%@d", "/100%@d.xml"}, Row{" 7 ", "/ 7 .xml"}}) {
    SCOPED_TRACE(row.scriptID);
    EXPECT_EQ(VarnScriptRepository::ScriptRequest(row.scriptID).scriptDataFilePath,
              dataDirectory + row.fileName);
  }
}

TEST_F(Directories, ASlashInTheScriptIDCreatesNoSubdirectory) {
  const ScriptRepositoryProcessor processor("a/b");

  EXPECT_TRUE(doubles::exists(dataDirectory));
  EXPECT_FALSE(doubles::exists(dataDirectory + "/a"));
}

TEST_F(Directories, AFreshRequestHoldsItsIDAndNothingElse) {
  const VarnScriptRepository::ScriptRequest request("42");

  EXPECT_EQ(request.scriptID, "42");
  EXPECT_EQ(request.scriptFilePath, std::nullopt);
  EXPECT_EQ(ScriptRepositoryProcessor("42").overrideExpectedReturnCode, std::nullopt);
}

}  // namespace
