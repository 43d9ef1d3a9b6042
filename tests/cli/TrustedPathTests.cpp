// Whose hands a path is in: which owners, modes, links and second names are refused, and which
// component is named.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "TrustedPath.h"
#include "support/TemporaryDirectory.h"

namespace VarnScripts {
namespace {

constexpr uid_t kOther = 4242;

/// Each test has the directory `top_`/a/b with the file "file" in it.
class TrustedPath : public testing::Test {
 protected:
  void SetUp() override {
    std::filesystem::create_directories(top_ + "/a/b");
    std::ofstream(top_ + "/a/b/file") << "text";
    for (const char* const path : {"", "/a", "/a/b"}) mode(path, 0755);
    mode("/a/b/file", 0644);
  }

  void mode(const std::string& path, mode_t mode) const {
    ASSERT_EQ(::chmod((top_ + path).c_str(), mode), 0) << path;
  }
  void giveAway(const std::string& path) const {
    ASSERT_EQ(::lchown((top_ + path).c_str(), kOther, kOther), 0) << path;
  }
  void link(const std::string& target, const std::string& path) const {
    ASSERT_EQ(::symlink(target.c_str(), (top_ + path).c_str()), 0) << path;
  }

  [[nodiscard]] std::string refusal(const std::string& path, PathEnd end,
                                    MissingDirectory missing = MissingDirectory::left) const {
    const std::string text = examinePath(top_ + path, end, ::geteuid(), missing).refusal;
    return text.starts_with(top_) ? text.substr(top_.size()) : text;
  }

  const TemporaryDirectory directory_;
  const std::string& top_ = directory_.path();
};

TEST_F(TrustedPath, OfThisUserAloneIsNotRefused) {
  EXPECT_EQ(refusal("/a/b", PathEnd::directory), "");
  EXPECT_EQ(refusal("/a/b/file", PathEnd::ownFile), "");
  EXPECT_EQ(refusal("/a/b/file", PathEnd::givenFile), "");
  EXPECT_EQ(refusal("/a/./b//file", PathEnd::ownFile), "");
  EXPECT_TRUE(
      examinePath(top_ + "/a/b/file", PathEnd::ownFile, ::geteuid()).writableByGroup.empty());
}

TEST_F(TrustedPath, IsRefusedByItsModes) {
  struct Row {
    std::string changed;
    mode_t mode;
    std::string path;
    PathEnd end;
    std::string refusal;
  };
  const std::string open = " may be written to by all users";
  const std::vector<Row> rows = {
      {"/a", 0757, "/a/b/file", PathEnd::ownFile, "/a" + open},
      {"/a/b", 0757, "/a/b/file", PathEnd::ownFile, "/a/b" + open},
      {"/a/b/file", 0646, "/a/b/file", PathEnd::ownFile, "/a/b/file" + open},
      {"/a/b/file", 0646, "/a/b/file", PathEnd::givenFile, "/a/b/file" + open},
      {"/a", 0777, "/a/none", PathEnd::directory, "/a" + open},
      {"/a", 01777, "/a/b/file", PathEnd::ownFile, ""},
      {"/a", 01777, "/a/b", PathEnd::directory, ""},
      // Anybody may add a file to it, whatever the sticky bit keeps from being replaced.
      {"/a/b", 01777, "/a/b", PathEnd::directory, "/a/b" + open},
      {"/a/b", 01777, "/a/b/file", PathEnd::ownFile, ""},
      {"/a", 0775, "/a/b/file", PathEnd::ownFile, ""},
  };
  for (const Row& row : rows) {
    mode(row.changed, row.mode);
    EXPECT_EQ(refusal(row.path, row.end), row.refusal) << row.changed << ' ' << row.mode;
    mode(row.changed, row.changed == "/a/b/file" ? 0644 : 0755);
  }
}

TEST_F(TrustedPath, OfAnotherUserIsRefusedByTheNameOfTheComponent) {
  if (::geteuid() != 0) GTEST_SKIP() << "only root gives files away";
  const std::string user = " belongs to user 4242";
  for (const std::string component : {"/a", "/a/b", "/a/b/file"}) {
    giveAway(component);
    EXPECT_EQ(refusal("/a/b/file", PathEnd::ownFile), component + user);
    EXPECT_EQ(refusal("/a/b/file", PathEnd::givenFile), component + user);
    EXPECT_EQ(examinePath(top_ + "/a/b/file", PathEnd::ownFile, kOther).refusal, "");
    ASSERT_EQ(::chown((top_ + component).c_str(), 0, 0), 0);
  }
  giveAway("/a");
  EXPECT_EQ(refusal("/a/none/none", PathEnd::directory), "/a" + user);
}

TEST_F(TrustedPath, LeadsThroughLinksOfThisUser) {
  link("b", "/a/relative");
  link(top_ + "/a/b", "/a/absolute");
  link("../relative/file", "/a/b/chain");
  for (const std::string path : {"/a/relative/file", "/a/absolute/file", "/a/b/chain"}) {
    EXPECT_EQ(refusal(path, PathEnd::ownFile), "") << path;
  }
  mode("/a/b/file", 0666);
  EXPECT_EQ(refusal("/a/relative/file", PathEnd::ownFile),
            "/a/relative/file may be written to by all users");
  EXPECT_EQ(refusal("/a/b/chain", PathEnd::ownFile),
            "/a/b/../relative/file may be written to by all users");
}

TEST_F(TrustedPath, IsRefusedWhenALinkLeadsToWhatIsOpen) {
  std::filesystem::create_directories(top_ + "/open/inner");
  mode("/open", 0777);
  link("../../open/inner", "/a/b/out");
  EXPECT_EQ(refusal("/a/b/out", PathEnd::directory),
            "/a/b/../../open may be written to by all users");
}

TEST_F(TrustedPath, WithALinkOfAnotherUserIsRefused) {
  if (::geteuid() != 0) GTEST_SKIP() << "only root gives files away";
  mode("/a", 01777);
  link("b", "/a/link");
  giveAway("/a/link");
  EXPECT_EQ(refusal("/a/link/file", PathEnd::ownFile), "/a/link is a symbolic link of user 4242");
  EXPECT_EQ(refusal("/a/link", PathEnd::directory), "/a/link is a symbolic link of user 4242");
}

TEST_F(TrustedPath, ThatGoesInCirclesIsRefused) {
  link("two", "/a/one");
  link("one", "/a/two");
  EXPECT_THAT(refusal("/a/one", PathEnd::ownFile),
              testing::EndsWith("leads through too many symbolic links"));
}

TEST_F(TrustedPath, OfAnOwnFileHasOneName) {
  std::filesystem::create_hard_link(top_ + "/a/b/file", top_ + "/a/second");
  EXPECT_EQ(refusal("/a/b/file", PathEnd::ownFile), "/a/b/file has 2 names (hard links)");
  EXPECT_EQ(refusal("/a/b/file", PathEnd::givenFile), "");
}

TEST_F(TrustedPath, MayBeMissing) {
  for (const PathEnd end : {PathEnd::directory, PathEnd::ownFile, PathEnd::givenFile}) {
    EXPECT_EQ(refusal("/a/none/none", end), "");
    EXPECT_EQ(refusal("/a/b/file/below", end), "");
    EXPECT_EQ(refusal("/a/" + std::string(300, 'x'), end), "");
  }
  EXPECT_FALSE(std::filesystem::exists(top_ + "/a/none"));
}

TEST_F(TrustedPath, ThatAnybodyMayMakeIsMadeOrRefused) {
  mode("/a", 01777);
  EXPECT_EQ(refusal("/a/none/none", PathEnd::givenFile),
            "/a/none is missing, and any user may make it");
  EXPECT_EQ(refusal("/a/none/none", PathEnd::ownFile), "");
  EXPECT_FALSE(std::filesystem::exists(top_ + "/a/none"));
  EXPECT_EQ(refusal("/a/none/none", PathEnd::ownFile, MissingDirectory::made), "");
  // The one that is open to all; what is below it is nobody else's to make.
  EXPECT_TRUE(std::filesystem::is_directory(top_ + "/a/none"));
  EXPECT_FALSE(std::filesystem::exists(top_ + "/a/none/none"));
  EXPECT_EQ(std::filesystem::status(top_ + "/a/none").permissions(),
            std::filesystem::perms::owner_all);
}

TEST_F(TrustedPath, TellsWhatTheGroupMayWrite) {
  mode("/a", 0775);
  mode("/a/b/file", 0664);
  const PathVerdict verdict = examinePath(top_ + "/a/b/file", PathEnd::ownFile, ::geteuid());
  EXPECT_EQ(verdict.refusal, "");
  EXPECT_EQ(verdict.writableByGroup, (std::vector<std::string>{top_ + "/a", top_ + "/a/b/file"}));
}

TEST_F(TrustedPath, OfSeveralInOneDirectoryIsRefusedAsEachIsAlone) {
  std::ofstream(top_ + "/a/b/open") << "text";
  mode("/a/b/open", 0666);
  link("open", "/a/b/link");
  std::filesystem::create_directories(top_ + "/a/b/c");
  mode("/a/b/c", 0777);
  mode("/a/b", 01777);
  struct Row {
    std::string path;
    PathEnd end;
    std::string refusal;
  };
  const std::string open = " may be written to by all users";
  const std::vector<Row> rows = {
      {"/a/b/file", PathEnd::ownFile, ""},
      {"/a/b/open", PathEnd::ownFile, "/a/b/open" + open},
      {"/a/b/file", PathEnd::ownFile, ""},
      {"/a/b/none", PathEnd::ownFile, ""},
      {"/a/b/none", PathEnd::givenFile, "/a/b/none is missing, and any user may make it"},
      {"/a/b/file", PathEnd::ownFile, ""},
      {"/a/b/c", PathEnd::directory, "/a/b/c" + open},
      {"/a/b/file", PathEnd::ownFile, ""},
      {"/a/b/link", PathEnd::ownFile, "/a/b/open" + open},
      {"/a/b/file", PathEnd::ownFile, ""},
      {"/a/b", PathEnd::directory, "/a/b" + open},
      {"/a/b/file", PathEnd::ownFile, ""},
      {"/a/b/", PathEnd::directory, "/a/b" + open},
      {"/a/b/./file", PathEnd::ownFile, ""},
      {"/a/b/c/none", PathEnd::ownFile, "/a/b/c" + open},
      {"/a/b/c/none", PathEnd::ownFile, "/a/b/c" + open},
  };
  PathExaminer examiner(::geteuid());
  for (const Row& row : rows) {
    const std::string refusal = examiner.examine(top_ + row.path, row.end).refusal;
    EXPECT_EQ(refusal, row.refusal.empty() ? "" : top_ + row.refusal) << row.path;
  }
}

TEST_F(TrustedPath, OfSeveralIsWalkedOnceWhereTheyAreOne) {
  std::filesystem::create_directories(top_ + "/a/c");
  mode("/a/c", 0755);
  PathExaminer examiner(::geteuid());
  EXPECT_EQ(examiner.examine(top_ + "/a/b/file", PathEnd::ownFile).refusal, "");
  mode("/a", 0757);
  EXPECT_EQ(examiner.examine(top_ + "/a/b/none", PathEnd::ownFile).refusal, "");
  EXPECT_EQ(examiner.examine(top_ + "/a/b", PathEnd::directory).refusal, "");
  EXPECT_EQ(examiner.examine(top_ + "/a/c/none", PathEnd::ownFile).refusal, "");
  const std::string open = top_ + "/a may be written to by all users";
  EXPECT_EQ(examiner.examine(top_ + "/a", PathEnd::directory).refusal, open);
  EXPECT_EQ(examiner.examine(top_ + "/a/b/file", PathEnd::ownFile).refusal, open);
}

TEST_F(TrustedPath, OfSeveralIsWalkedAnewBehindALink) {
  link("b", "/a/link");
  PathExaminer examiner(::geteuid());
  EXPECT_EQ(examiner.examine(top_ + "/a/link/file", PathEnd::ownFile).refusal, "");
  std::filesystem::remove(top_ + "/a/link");
  std::filesystem::create_directories(top_ + "/a/link");
  mode("/a/link", 0777);
  EXPECT_EQ(examiner.examine(top_ + "/a/link/file", PathEnd::ownFile).refusal,
            top_ + "/a/link may be written to by all users");
}

TEST_F(TrustedPath, OfSeveralMayHaveManyDirectories) {
  std::string deep = top_ + "/a/b";
  for (int level = 0; level < 100; ++level) deep += "/d";
  std::filesystem::create_directories(deep);
  PathExaminer examiner(::geteuid());
  EXPECT_EQ(examiner.examine(deep + "/none", PathEnd::ownFile).refusal, "");
  EXPECT_EQ(examiner.examine(deep, PathEnd::directory).refusal, "");
  mode("/a", 0757);
  EXPECT_EQ(examiner.examine(top_ + "/a/b/file", PathEnd::ownFile).refusal,
            top_ + "/a may be written to by all users");
}

TEST_F(TrustedPath, OfTheNullDeviceIsNotRefused) {
  EXPECT_EQ(examinePath("/dev/null", PathEnd::givenFile, ::geteuid()).refusal, "");
}

}  // namespace
}  // namespace VarnScripts
