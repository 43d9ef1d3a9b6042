// What would become of the making, opening and removing of files, and that none of it is done.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <fstream>
#include <string>
#include <system_error>

#include "Writability.h"
#include "support/TemporaryDirectory.h"

namespace VarnScripts {
namespace {

class Writability : public testing::Test {
 protected:
  void SetUp() override {
    std::filesystem::create_directory(top_ + "/directory");
    std::ofstream(top_ + "/file") << "text";
    ASSERT_EQ(::symlink("nowhere", (top_ + "/link").c_str()), 0);
  }

  const TemporaryDirectory directory_;
  const std::string& top_ = directory_.path();
};

TEST_F(Writability, AFileCanBeMadeInADirectoryThatIsThereOrWouldBeMade) {
  EXPECT_EQ(whyNoFileIn(top_ + "/directory").value(), 0);
  EXPECT_EQ(whyNoFileIn(top_ + "/directory/a/b").value(), 0);
  EXPECT_FALSE(std::filesystem::exists(top_ + "/directory/a"));
}

TEST_F(Writability, NoFileCanBeMadeInAFile) {
  EXPECT_EQ(whyNoFileIn(top_ + "/file").value(), ENOTDIR);
  EXPECT_EQ(whyNoFileIn(top_ + "/file/below").value(), ENOTDIR);
}

TEST_F(Writability, AFileIsOpenedOrMade) {
  EXPECT_EQ(whyNotOpened(top_ + "/file").value(), 0);
  EXPECT_EQ(whyNotOpened(top_ + "/new").value(), 0);
  EXPECT_FALSE(std::filesystem::exists(top_ + "/new"));
  EXPECT_EQ(whyNotOpened(top_ + "/directory").value(), EISDIR);
  EXPECT_EQ(whyNotOpened(top_ + "/link").value(), ELOOP);
  EXPECT_EQ(whyNotOpened(top_ + "/file/below").value(), ENOTDIR);
}

TEST_F(Writability, AFileOrALinkOrNothingIsRemoved) {
  EXPECT_EQ(whyNotRemoved(top_ + "/file").value(), 0);
  EXPECT_EQ(whyNotRemoved(top_ + "/link").value(), 0);
  EXPECT_EQ(whyNotRemoved(top_ + "/new").value(), 0);
  EXPECT_EQ(whyNotRemoved(top_ + "/directory").value(), EISDIR);
  EXPECT_TRUE(std::filesystem::exists(top_ + "/file"));
}

TEST_F(Writability, WhatThePermissionsForbidIsFound) {
  std::ofstream(top_ + "/directory/inside") << "text";
  ASSERT_EQ(::chmod((top_ + "/directory").c_str(), 0555), 0);
  ASSERT_EQ(::chmod((top_ + "/file").c_str(), 0444), 0);
  ASSERT_EQ(::chmod(top_.c_str(), 0755), 0);
  // Root is never forbidden.
  const bool isRoot = ::geteuid() == 0;
  if (isRoot) {
    ASSERT_EQ(::seteuid(4242), 0);
  }
  EXPECT_EQ(whyNoFileIn(top_ + "/directory").value(), EACCES);
  EXPECT_EQ(whyNoFileIn(top_ + "/directory/below").value(), EACCES);
  EXPECT_EQ(whyNotOpened(top_ + "/file").value(), EACCES);
  EXPECT_EQ(whyNotRemoved(top_ + "/directory/inside").value(), EACCES);
  if (isRoot) {
    ASSERT_EQ(::seteuid(0), 0);
  }
  ASSERT_EQ(::chmod((top_ + "/directory").c_str(), 0755), 0);
}

}  // namespace
}  // namespace VarnScripts
