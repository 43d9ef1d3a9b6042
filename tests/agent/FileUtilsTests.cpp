// Existence and creation of files and directories.

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include "AgentUtils.h"
#include "support/Files.h"
#include "support/TemporaryDirectory.h"

using AgentUtils::FileUtils;

namespace {

using namespace std::string_literals;

class Files : public testing::Test {
 protected:
  TemporaryDirectory directory;
  FileUtils files;
};

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

TEST_F(Files, AnExistingDirectoryKeepsItsMode) {
  ASSERT_EQ(::mkdir((directory / "there").c_str(), 0755), 0);
  EXPECT_TRUE(files.createDirectory(directory / "there", true));
  EXPECT_EQ(modeOf(directory / "there"), 0755u);
}

TEST_F(Files, AreNotWhatStandsBeforeANul) {
  writeFile(directory / "file", "");
  EXPECT_FALSE(files.isFileExists(directory / "file\0x"s));
  EXPECT_FALSE(files.createDirectory(directory / "x\0y"s, true));
  EXPECT_EQ(directory.names(), std::vector<std::string>{"file"});
}

TEST_F(Files, LinkedParentsAndDoubledSlashesAreFollowed) {
  ASSERT_EQ(::mkdir((directory / "real").c_str(), 0700), 0);
  ASSERT_EQ(::symlink("real", (directory / "link").c_str()), 0);
  EXPECT_TRUE(files.createDirectory(directory / "link//deep//deeper", true));
  EXPECT_TRUE(files.isFileExists(directory / "real/deep/deeper"));
}

}  // namespace
