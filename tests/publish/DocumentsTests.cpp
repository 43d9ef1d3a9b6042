// The documents of a script, the names of what is published, and the version stamp.

#include <gtest/gtest.h>

#include "ScriptRules.h"
#include "publish/Documents.h"
#include "publish/XMLDocument.h"

namespace VarnScripts::publishing {
namespace {

using MarkupParser::XML;
using VarnScriptRepository::ScriptRepoAllMetaData;
using VarnScriptRepository::ScriptRoot;
using VarnScriptRepository::ScriptsRepoMetaRoot;
using VarnScriptRepository::serverPath;

constexpr const char* kDigest = "914cefaded94d45f313fa21b0af05991c33df3566f4ca6814c3652f4b92b7c8c";

SourceScript exampleScript() {
  SourceScript script{};
  script.entry.id.value = "42";
  script.entry.file.value = "a.sh";
  script.entry.arguments.value = "-x \"two words\"";
  script.entry.acceptedCodes.value = "0,3";
  script.entry.name.value = "First";
  script.entry.description.value = "Says a.";
  script.entry.platform.value = "Mac";
  script.extension = "sh";
  script.size = 7;
  script.sha256 = kDigest;
  script.checksum = "fe08476cb37197e892beb9d781aada5a340aefb0";
  return script;
}

TEST(Documents, HaveEveryFieldOfTheScript) {
  const ScriptRoot root = documentOf(exampleScript(), {"sha1", true}, "7");
  ASSERT_EQ(root.script.size(), 1U);
  const auto& item = root.script[0];
  ASSERT_EQ(item.scriptRepo.size(), 1U);
  const auto& repo = item.scriptRepo[0];
  EXPECT_EQ(repo.scriptID, "42");
  EXPECT_EQ(repo.scriptName, "a.sh");
  EXPECT_EQ(repo.fileID, "42");
  EXPECT_EQ(repo.dbUpdatedTime, "0");
  EXPECT_EQ(repo.customerID, "7");
  EXPECT_EQ(repo.scriptType, "sh");
  EXPECT_EQ(repo.description, "Says a.");
  EXPECT_EQ(repo.osPlatform, "Mac");
  EXPECT_EQ(repo.createdTime, "0");
  EXPECT_EQ(repo.scriptFile, "a.sh");
  EXPECT_EQ(repo.scriptArgs, "-x \"two words\"");
  EXPECT_EQ(repo.exitCode, "0,3");
  EXPECT_EQ(repo.modifiedTime, "437d6c971f937f375ccdbe4372bce711");

  ASSERT_EQ(item.checksumValues.size(), 1U);
  const auto& checksum = item.checksumValues[0];
  EXPECT_EQ(checksum.downloadURLChecksum, "");
  EXPECT_EQ(checksum.checksumID, "1");
  EXPECT_EQ(checksum.checksumType, "sha1");
  EXPECT_EQ(checksum.downloadURL,
            "/client-data/7/scriptrepo/files/"
            "914cefaded94d45f313fa21b0af05991c33df3566f4ca6814c3652f4b92b7c8c.sh");
  EXPECT_EQ(checksum.checksumVal, "fe08476cb37197e892beb9d781aada5a340aefb0");
}

TEST(Documents, HaveTheFileInTheServersNotation) {
  const ScriptRoot root = documentOf(exampleScript(), {"sha1", true}, "7");
  ASSERT_EQ(root.script.at(0).files.size(), 1U);
  const auto& file = root.script[0].files[0];
  EXPECT_EQ(file.fileStatusRemarks, "");
  EXPECT_EQ(file.contentType, "text/x-shellscript");
  EXPECT_EQ(file.fileID, "42");
  EXPECT_EQ(file.moduleName, "script-repository");
  EXPECT_EQ(file.customerID, "7");
  EXPECT_EQ(file.contentLength, "7");
  EXPECT_EQ(file.fileSystemLocation,
            "..\\webapps\\Quillandermoor\\client-data\\7\\scriptrepo\\files\\"
            "914cefaded94d45f313fa21b0af05991c33df3566f4ca6814c3652f4b92b7c8c.sh");
  EXPECT_EQ(file.fileName, "a.sh");
  EXPECT_EQ(file.expiryTime, "0");
  EXPECT_EQ(file.fileStatus, "available");
  ASSERT_EQ(file.csToVyFiles.size(), 1U);
  EXPECT_EQ(file.csToVyFiles[0].checksumID, "1");
}

TEST(Documents, OfTheListNameTheDataDocument) {
  const auto entry = entryOf(exampleScript(), "data/x.xml", "7");
  EXPECT_EQ(entry.scriptName, "First");
  EXPECT_EQ(entry.description, "Says a.");
  EXPECT_EQ(entry.scriptID, "42");
  EXPECT_EQ(entry.scriptFile, "a.sh");
  EXPECT_EQ(entry.dbUpdatedTime, std::nullopt);
  EXPECT_EQ(entry.fileID, "42");
  EXPECT_EQ(entry.customerID, "7");
  EXPECT_EQ(entry.osPlatform, "Mac");
  EXPECT_EQ(entry.modifiedTime, "437d6c971f937f375ccdbe4372bce711");
  EXPECT_EQ(entry.createdTime, std::nullopt);
  EXPECT_EQ(entry.encType, std::nullopt);
  ASSERT_TRUE(entry.scriptPathMapping);
  ASSERT_EQ(entry.scriptPathMapping->size(), 1U);
  EXPECT_EQ(entry.scriptPathMapping->at(0).filepath, "/client-data/7/scriptrepo/data/x.xml");
}

TEST(Documents, DecodeToWhatWasEncoded) {
  SourceScript script = exampleScript();
  script.entry.id.value = "<42> & \"caf\u00e9\"";
  script.entry.arguments.value = " \t\"a\nb\" \r\r\n ]]> <!-- & -->  ";
  script.entry.acceptedCodes.value = "";
  script.entry.name.value = "";
  script.entry.description.value = "\n\U0001F600\u00a0";
  const ScriptRoot root = documentOf(script, {"sha256", false}, "a & b");
  const auto decoded = XML::parse(xmlDocument(root), std::nullopt, false).toStruct<ScriptRoot>();
  ASSERT_TRUE(decoded);
  ASSERT_EQ(decoded->size(), 1U);
  EXPECT_EQ(decoded->front(), root);

  const ScriptsRepoMetaRoot list{{ScriptRepoAllMetaData{{entryOf(script, "data/x.xml", "a & b")}}}};
  const auto decodedList =
      XML::parse(xmlDocument(list), std::nullopt, false).toStruct<ScriptsRepoMetaRoot>();
  ASSERT_TRUE(decodedList);
  EXPECT_EQ(decodedList->front(), list);
}

// ---- Version stamp ---------------------------------------------------------------------------

TEST(VersionStamp, IsMadeOfWhatAClientRuns) {
  EXPECT_EQ(versionStamp(exampleScript()), "437d6c971f937f375ccdbe4372bce711");
  const auto changed = [](auto change) {
    SourceScript script = exampleScript();
    change(script);
    return versionStamp(script) != versionStamp(exampleScript());
  };
  EXPECT_TRUE(changed([](SourceScript& script) { script.sha256[0] = '0'; }));
  EXPECT_TRUE(changed([](SourceScript& script) { script.entry.file.value = "b.sh"; }));
  EXPECT_TRUE(changed([](SourceScript& script) { script.entry.arguments.value += " "; }));
  EXPECT_TRUE(changed([](SourceScript& script) { script.entry.acceptedCodes.value = "3,0"; }));
}

TEST(VersionStamp, StaysWhenNothingElseThanTheDescriptionChanges) {
  SourceScript script = exampleScript();
  script.entry.id.value = "43";
  script.entry.name.value = "Second";
  script.entry.description.value = "Says more.";
  script.entry.platform.value = "Linux";
  script.checksum = "other";
  EXPECT_EQ(versionStamp(script), "437d6c971f937f375ccdbe4372bce711");
}

TEST(VersionStamp, TellsWhereOneTextEndsAndTheNextBegins) {
  SourceScript a = exampleScript();
  a.entry.arguments.value = "0";
  a.entry.acceptedCodes.value = "";
  SourceScript b = exampleScript();
  b.entry.arguments.value = "";
  b.entry.acceptedCodes.value = "0";
  EXPECT_NE(versionStamp(a), versionStamp(b));
}

// ---- Content names ---------------------------------------------------------------------------

TEST(ContentName, IsADigestAndAKnownExtension) {
  const std::string digest = kDigest;
  EXPECT_EQ(scriptFileName(exampleScript()), "files/" + digest + ".sh");
  EXPECT_EQ(documentName("document"),
            "data/43cc23fa52b87b4cc1d02b5b114154151d6adddb17c9fddc06b027fa99e24008.xml");
  for (const std::string& name :
       {"data/" + digest + ".xml", "files/" + digest + ".sh", "files/" + digest + ".py",
        "files/" + digest + ".pl", "files/" + digest + ".scpt"}) {
    EXPECT_TRUE(isContentName(name)) << name;
  }
  for (const std::string& name :
       {std::string(), std::string("data/"), "data/" + digest, "data/" + digest + ".sh",
        "files/" + digest + ".xml", "files/" + digest + "0.sh", "file/" + digest + ".sh",
        "files/" + digest.substr(1) + ".sh", "files/F" + digest.substr(1) + ".sh",
        "files/../" + digest + ".sh", "/files/" + digest + ".sh", digest + ".sh"}) {
    EXPECT_FALSE(isContentName(name)) << name;
  }
}

TEST(ContentName, IsFoundInServerPathsAndLocations) {
  const std::string name = std::string("files/") + kDigest + ".sh";
  const std::string backslashed = std::string("files\\") + kDigest + ".sh";
  const std::string directory = "client-data/7/scriptrepo";
  EXPECT_EQ(contentNameIn("/client-data/7/scriptrepo/" + name, directory), name);
  EXPECT_EQ(contentNameIn("client-data/7/scriptrepo/" + name, directory), name);
  EXPECT_EQ(contentNameIn("..\\webapps\\Quillandermoor\\client-data\\7\\scriptrepo\\" + backslashed,
                          directory),
            name);
  EXPECT_EQ(contentNameIn("/client-data/8/scriptrepo/" + name, directory), std::nullopt);
  EXPECT_EQ(contentNameIn("/client-data/7/scriptrepo/scripts/1.sh", directory), std::nullopt);
  EXPECT_EQ(contentNameIn("", directory), std::nullopt);
}

TEST(Location, BecomesAServerPathAsClientsRewriteIt) {
  EXPECT_EQ(serverPath("..\\webapps\\Quillandermoor\\a\\b.sh"), "a/b.sh");
  EXPECT_EQ(serverPath("a/b.sh"), "a/b.sh");
  EXPECT_EQ(serverPath("x..\\webapps\\Quillandermoor\\..\\webapps\\Quillandermoor\\y"), "xy");
  EXPECT_EQ(serverPath("..\\webapps\\quillandermoor\\a"), "../webapps/quillandermoor/a");
}

TEST(Signatures, AreNamedByTheDigestOfTheirList) {
  const std::string digest = kDigest;
  const std::pair<std::string, std::optional<std::string>> rows[] = {
      {"signatures/" + digest + ".minisig", digest},
      {"signatures/" + digest + ".293CBC668E52E64C.minisig", digest},
      {"signatures/" + digest + ".293cbc668e52e64c.minisig", std::nullopt},
      {"signatures/" + digest + ".293CBC668E52E64.minisig", std::nullopt},
      {"signatures/" + digest + "..minisig", std::nullopt},
      {"signatures/" + digest + ".minisig.gz", std::nullopt},
      {"signatures/" + digest, std::nullopt},
      {"signatures/" + digest.substr(1) + ".minisig", std::nullopt},
      {"signatures/A" + digest.substr(1) + ".minisig", std::nullopt},
      {"signatures/", std::nullopt},
      {digest + ".minisig", std::nullopt},
      {"data/" + digest + ".minisig", std::nullopt},
  };
  for (const auto& [name, list] : rows) EXPECT_EQ(signedListIn(name), list) << name;
}

}  // namespace
}  // namespace VarnScripts::publishing
