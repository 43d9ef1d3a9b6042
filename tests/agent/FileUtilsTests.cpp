// Existence and creation of files and directories.

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include "AgentUtils.h"
#include "support/TemporaryDirectory.h"

using AgentUtils::FileUtils;

namespace {

using namespace std::string_literals;

class Files : public testing::Test {
 protected:
  TemporaryDirectory directory;
  FileUtils files;
};

TEST_F(Files, ExistWhenTheyOrWhatTheyLinkToExist) {
  writeFile(directory / "file", "");
  ASSERT_EQ(symlink("file", (directory / "link").c_str()), 0);
  ASSERT_EQ(symlink("missing", (directory / "broken").c_str()), 0);
  EXPECT_TRUE(files.isFileExists(directory / "file"));
  EXPECT_TRUE(files.isFileExists(directory / "link"));
  EXPECT_TRUE(files.isFileExists(directory.path()));
  EXPECT_FALSE(files.isFileExists(directory / "broken"));
  EXPECT_FALSE(files.isFileExists(directory / "missing"));
  EXPECT_FALSE(files.isFileExists(directory / "file/below"));
  EXPECT_FALSE(files.isFileExists(""));
  EXPECT_FALSE(files.isFileExists(directory / "file\0x"s));
}

TEST_F(Files, DirectoriesAreCreatedWithTheirParentsForTheOwnerAlone) {
  for (const mode_t mask : {0000u, 0022u, 0277u}) {
    const Umask umask(mask);
    const std::string top = directory / std::to_string(mask);
    EXPECT_TRUE(files.createDirectory(top + "/middle/bottom", true));
    EXPECT_EQ(modeOf(top), 0700u);
    EXPECT_EQ(modeOf(top + "/middle"), 0700u);
    EXPECT_EQ(modeOf(top + "/middle/bottom"), 0700u);
  }
}

TEST_F(Files, AnExistingDirectoryCountsAsCreatedOnlyWithIntermediates) {
  ASSERT_EQ(mkdir((directory / "there").c_str(), 0755), 0);
  EXPECT_TRUE(files.createDirectory(directory / "there", true));
  EXPECT_TRUE(files.createDirectory(directory / "there/", true));
  EXPECT_FALSE(files.createDirectory(directory / "there", false));
  EXPECT_EQ(modeOf(directory / "there"), 0755u);
}

TEST_F(Files, ADirectoryIsNotCreatedWithoutItsParentUnlessAskedFor) {
  EXPECT_FALSE(files.createDirectory(directory / "a/b", false));
  EXPECT_FALSE(files.isFileExists(directory / "a"));
  EXPECT_TRUE(files.createDirectory(directory / "a", false));
}

TEST_F(Files, AFileInTheWayIsAFailure) {
  writeFile(directory / "file", "kept");
  EXPECT_FALSE(files.createDirectory(directory / "file", true));
  EXPECT_FALSE(files.createDirectory(directory / "file/below", true));
  EXPECT_FALSE(files.createDirectory("", true));
  EXPECT_FALSE(files.createDirectory(directory / "x\0y"s, true));
  EXPECT_EQ(directory.names(), std::vector<std::string>{"file"});
  EXPECT_EQ(readFile(directory / "file"), "kept");
}

TEST_F(Files, LinkedParentsAndDoubledSlashesAreFollowed) {
  ASSERT_EQ(mkdir((directory / "real").c_str(), 0700), 0);
  ASSERT_EQ(symlink("real", (directory / "link").c_str()), 0);
  EXPECT_TRUE(files.createDirectory(directory / "link//deep//deeper", true));
  EXPECT_TRUE(files.isFileExists(directory / "real/deep/deeper"));
}

}  // namespace
