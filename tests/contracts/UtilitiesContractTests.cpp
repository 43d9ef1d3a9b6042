// What AgentUtils.h promises of files, downloads and checksums.

#include <gmock/gmock.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <sstream>

#include "AgentUtils.h"
#include "Contract.h"

namespace {

using namespace std::string_literals;

class UtilitiesContract : public contracts::Contract {
 protected:
  std::string at(const std::string& name) const { return agent->directory() + "/" + name; }

  static void write(const std::string& path, const std::string& content) {
    std::ofstream(path, std::ios::binary) << content;
  }

  static std::string content(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    return file ? (std::ostringstream() << file.rdbuf()).str() : "(none)";
  }

  /// The names in the agent's directory.
  std::vector<std::string> names() const {
    std::vector<std::string> found;
    for (const auto& entry : std::filesystem::directory_iterator(agent->directory())) {
      found.push_back(entry.path().filename());
    }
    return found;
  }
};

// ---- Files -----------------------------------------------------------------------------------

class FilesContract : public UtilitiesContract {
 protected:
  AgentUtils::FileUtils files;
};

TEST_F(FilesContract, ExistWhenTheyOrWhatTheyLinkToExist) {
  write(at("file"), "");
  ASSERT_EQ(::symlink("file", at("link").c_str()), 0);
  ASSERT_EQ(::symlink("missing", at("broken").c_str()), 0);

  EXPECT_TRUE(files.isFileExists(at("file")));
  EXPECT_TRUE(files.isFileExists(at("link")));
  EXPECT_TRUE(files.isFileExists(agent->directory()));
  EXPECT_FALSE(files.isFileExists(at("broken")));
  EXPECT_FALSE(files.isFileExists(at("missing")));
  EXPECT_FALSE(files.isFileExists(at("file/below")));
  EXPECT_FALSE(files.isFileExists(""));
}

TEST_F(FilesContract, DirectoriesAreCreatedWithTheirParentsWhenAskedFor) {
  EXPECT_FALSE(files.createDirectory(at("top/middle/bottom"), false));
  EXPECT_FALSE(files.isFileExists(at("top")));

  EXPECT_TRUE(files.createDirectory(at("top/middle/bottom"), true));
  EXPECT_TRUE(files.createDirectory(at("top/middle/other"), false));

  EXPECT_TRUE(std::filesystem::is_directory(at("top/middle/bottom")));
  EXPECT_TRUE(std::filesystem::is_directory(at("top/middle/other")));
}

TEST_F(FilesContract, AnExistingDirectoryCountsAsCreatedOnlyWithIntermediates) {
  ASSERT_EQ(::mkdir(at("there").c_str(), 0700), 0);

  EXPECT_TRUE(files.createDirectory(at("there"), true));
  EXPECT_TRUE(files.createDirectory(at("there/"), true));
  EXPECT_FALSE(files.createDirectory(at("there"), false));
}

TEST_F(FilesContract, AFileInTheWayIsAFailure) {
  write(at("file"), "kept");

  for (const bool intermediates : {false, true}) {
    EXPECT_FALSE(files.createDirectory(at("file"), intermediates));
    EXPECT_FALSE(files.createDirectory(at("file/below"), intermediates));
    EXPECT_FALSE(files.createDirectory("", intermediates));
  }

  EXPECT_EQ(content(at("file")), "kept");
}

// ---- Downloads -------------------------------------------------------------------------------

class DownloadContract : public UtilitiesContract {
 protected:
  bool download(const std::string& fromURL, const std::string& toPath) {
    return downloader.downloadFileWithRootPermission(fromURL, toPath);
  }

  AgentUtils::HttpHandlermac downloader = AgentUtils::HttpHandlermac::initWithServerInfo();
};

TEST_F(DownloadContract, PutsTheWholeContentInThePlaceOfWhatWasThere) {
  for (const std::string& served :
       {"echo\n"s, ""s, "\r\n\0\x1A\xFF"s, std::string(300000, 'x') + "\0y"s}) {
    write(at("target"), "old and longer");
    agent->serve("a.sh", served);

    EXPECT_TRUE(download("a.sh", at("target")));

    EXPECT_EQ(content(at("target")), served);
    EXPECT_EQ(names(), std::vector<std::string>{"target"});
  }
}

TEST_F(DownloadContract, ThatFailsLeavesEverythingAsItWas) {
  write(at("target"), "old");

  EXPECT_FALSE(download("missing", at("target")));
  EXPECT_FALSE(download("missing", at("new")));

  EXPECT_EQ(content(at("target")), "old");
  EXPECT_EQ(names(), std::vector<std::string>{"target"});
}

TEST_F(DownloadContract, MakesNoDirectoryAndReplacesNone) {
  ASSERT_EQ(::mkdir(at("directory").c_str(), 0700), 0);
  agent->serve("a.sh", "new");

  EXPECT_FALSE(download("a.sh", at("directory")));
  EXPECT_FALSE(download("a.sh", at("missing/target")));

  EXPECT_TRUE(std::filesystem::is_empty(at("directory")));
  EXPECT_EQ(names(), std::vector<std::string>{"directory"});
}

TEST_F(DownloadContract, OneDownloaderServesOneAfterAnotherWithOrWithoutALeadingSlash) {
  EXPECT_FALSE(download("scripts/a.sh", at("target")));
  agent->serve("scripts/a.sh", "a");
  EXPECT_TRUE(download("/scripts/a.sh", at("target")));
  EXPECT_EQ(content(at("target")), "a");

  agent->serve("b #?.sh", "b");
  EXPECT_TRUE(download("b #?.sh", at("target")));
  EXPECT_EQ(content(at("target")), "b");
}

TEST_F(DownloadContract, FetchesWhatWasAskedFor) {
  for (const char* const name : {"a", "A", "b/a", "a b"}) agent->serve(name, name);

  for (const std::string name : {"a b", "b/a", "A", "a"}) {
    EXPECT_TRUE(download(name, at("target")));
    EXPECT_EQ(content(at("target")), name);
    EXPECT_FALSE(download(name + "x", at("target")));
  }
}

// ---- Checksums -------------------------------------------------------------------------------

class ChecksumContract : public UtilitiesContract {
 protected:
  bool valid(const std::string& type, const std::string& value) const {
    return AgentUtils::VyCryptography::validateCheckSumForFile(at("file"), type, value);
  }

  const contracts::Agent::Checksum abc = agent->checksumOfABC();
};

TEST_F(ChecksumContract, IsOfTheFilesContent) {
  write(at("file"), "abc");
  EXPECT_TRUE(valid(abc.type, abc.value));

  for (const char* const other : {"abcd", "ab", ""}) {
    write(at("file"), other);
    EXPECT_FALSE(valid(abc.type, abc.value)) << other;
  }
}

TEST_F(ChecksumContract, OfAnotherAlgorithmOrValueIsNone) {
  write(at("file"), "abc");

  EXPECT_FALSE(valid("no such algorithm", abc.value));
  EXPECT_FALSE(valid("", abc.value));
  EXPECT_FALSE(valid(abc.value, abc.type));
  EXPECT_FALSE(valid(abc.type, ""));
  EXPECT_FALSE(valid(abc.type, abc.value + "0"));
}

TEST_F(ChecksumContract, OfWhatIsNoFileIsNone) {
  EXPECT_FALSE(valid(abc.type, abc.value));
  ASSERT_EQ(::mkdir(at("file").c_str(), 0700), 0);
  EXPECT_FALSE(valid(abc.type, abc.value));
}

}  // namespace
