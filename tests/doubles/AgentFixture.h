// What every test of the units stands on: a directory of its own, global settings that point into
// it, and a fresh journal. In journal entries "<agent>" stands for the base directory and "<data>"
// for the data directory.

#pragma once

#include <gtest/gtest.h>

#include <optional>
#include <string>
#include <vector>

#include "AgentUtils.h"
#include "AgentUtilsDouble.h"
#include "Journal.h"
#include "MarkupParserDouble.h"
#include "support/TemporaryDirectory.h"

namespace doubles {

void writeFile(const std::string& path, const std::string& content);
/// The content of the file, or nothing when it can't be read.
std::optional<std::string> readFile(const std::string& path);
bool exists(const std::string& path);
void makeDirectories(const std::string& path);
void removeTree(const std::string& path);

class AgentFixture : public testing::Test {
 protected:
  AgentFixture();
  ~AgentFixture() override;

  Journal& journal = Journal::shared();
  Downloads& downloads = Downloads::shared();
  Checksums& checksums = Checksums::shared();
  Store& store = Store::shared();
  ParserCalls& parser = ParserCalls::shared();

  /// Writes a file below the test's directory: "agent/client-data/…".
  TemporaryDirectory directory;
  AgentUtils::GlobalVariables globals;

  /// "<agent>/client-data/7/scripts-repository-data" as a real path.
  std::string dataDirectory;
  /// "<agent>/client-data/7/scripts-repository" as a real path.
  std::string scriptsDirectory;
};

/// The data document of one script in the fake parser's notation. The defaults are those of script
/// 42, whose file is 10 bytes long. The fields that are only carried hold what would show if they
/// were used: another platform, customer, interpreter, version, length and checksum.
struct DataDocument {
  std::string scriptID = "42";
  std::string scriptName = "clean.sh";
  std::string scriptArgs = "-a";
  std::string exitCode = "0";
  std::string fileID = "f1";
  std::string fileSystemLocation = R"(..\webapps\Quillandermoor\scripts\42\clean.sh)";
  std::string fileName = "clean.sh";
  std::string linkedChecksumID = "c1";
  std::string checksumID = "c1";
  std::string checksumType = "T";
  std::string checksumVal = "10";

  std::string scriptRepo() const;
  std::string checksumValue() const;
  std::string file() const;
  /// The whole document.
  std::string text() const;
};

/// One entry of the metadata document: "ScriptRepo(…)". Here, too, what is only carried would show.
std::string metadataEntry(const std::string& scriptID, const std::string& modifiedTime,
                          const std::string& fileID = "f1");

/// The metadata document of `entries`.
std::string metadataDocument(const std::string& entries);

}  // namespace doubles
