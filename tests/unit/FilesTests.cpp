// Files as the library needs them: reads, existence, removal, the words of an error.

#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>
#include <system_error>

#include "AgentFixture.h"
#include "Sanitizers.h"
#include "support/Files.h"

namespace {

namespace files = VarnScriptRepository::files;

class Files : public testing::Test {
 protected:
  std::string path(const std::string& name) const { return directory.path() + "/" + name; }

  TemporaryDirectory directory;
};

TEST_F(Files, AWholeFileIsRead) {
  for (const std::string& content :
       {std::string(), std::string("t"), std::string("text"), std::string("a\0b\n", 4),
        std::string(16384, 'x'), std::string(16385, 'x'), std::string(1 << 20, 'x')}) {
    doubles::writeFile(path("file"), content);
    std::error_code error = std::make_error_code(std::errc::io_error);
    EXPECT_EQ(files::readWhole(path("file"), error), content);
    EXPECT_FALSE(error);
  }
}

TEST_F(Files, AFileOfUnknownSizeIsRead) {
  std::error_code error;
  EXPECT_THAT(files::readWhole("/proc/self/status", error), testing::HasSubstr("Pid:"));
  EXPECT_FALSE(error);
}

TEST_F(Files, AReadThroughALinkReadsItsTarget) {
  doubles::writeFile(path("target"), "text");
  ASSERT_EQ(::symlink("target", path("link").c_str()), 0);
  std::error_code error;
  EXPECT_EQ(files::readWhole(path("link"), error), "text");
}

TEST_F(Files, AFailedReadSaysWhy) {
  std::error_code error;
  EXPECT_EQ(files::readWhole(path("missing"), error), "");
  EXPECT_EQ(error, std::errc::no_such_file_or_directory);
  EXPECT_EQ(files::readWhole(directory.path(), error), "");
  EXPECT_EQ(error, std::errc::is_a_directory);
}

TEST_F(Files, AReadOfANamedPipeFailsAndDoesNotWait) {
  ASSERT_EQ(::mkfifo(path("pipe").c_str(), 0600), 0);
  std::error_code error;
  EXPECT_EQ(files::readWhole(path("pipe"), error), "");
  EXPECT_TRUE(error);
}

TEST_F(Files, ExistenceFollowsLinks) {
  doubles::writeFile(path("file"), "");
  ASSERT_EQ(::symlink("file", path("link").c_str()), 0);
  ASSERT_EQ(::symlink("missing", path("dangling").c_str()), 0);

  EXPECT_TRUE(files::exists(path("file")));
  EXPECT_TRUE(files::exists(path("link")));
  EXPECT_TRUE(files::exists(directory.path()));
  EXPECT_FALSE(files::exists(path("dangling")));
  EXPECT_FALSE(files::exists(path("missing")));
  EXPECT_FALSE(files::exists(""));
}

TEST_F(Files, AnItemIsRemovedWithAllThatIsInIt) {
  doubles::writeFile(path("file"), "");
  doubles::writeFile(path("tree/inner/file"), "");
  std::error_code error = std::make_error_code(std::errc::io_error);

  files::removeItem(path("file"), error);
  EXPECT_FALSE(error);
  files::removeItem(path("tree"), error);
  EXPECT_FALSE(error);

  EXPECT_FALSE(files::exists(path("file")));
  EXPECT_FALSE(files::exists(path("tree")));
}

TEST_F(Files, RemovalOfALinkLeavesItsTarget) {
  doubles::writeFile(path("tree/file"), "text");
  ASSERT_EQ(::symlink("tree", path("link").c_str()), 0);
  std::error_code error;

  files::removeItem(path("link"), error);

  EXPECT_FALSE(error);
  EXPECT_FALSE(files::exists(path("link")));
  EXPECT_EQ(doubles::readFile(path("tree/file")), "text");
}

TEST_F(Files, RemovalOfALinkWithASlashBehindItLeavesItsTarget) {
  doubles::writeFile(path("tree/file"), "text");
  ASSERT_EQ(::symlink("tree", path("link").c_str()), 0);
  std::error_code error;

  files::removeItem(path("link//"), error);

  EXPECT_FALSE(error);
  EXPECT_NE(::access(path("link").c_str(), F_OK), 0);
  EXPECT_EQ(doubles::readFile(path("tree/file")), "text");
}

TEST_F(Files, WhatHasNoNameIsNotRemoved) {
  doubles::writeFile(path("tree/file"), "text");
  for (const char* const item : {"/tree/.", "/tree/./", "/tree/inner/..", "/tree/.//"}) {
    doubles::makeDirectories(path("tree/inner"));
    std::error_code error;
    files::removeItem(directory.path() + item, error);
    EXPECT_EQ(error, std::errc::invalid_argument) << item;
    EXPECT_EQ(doubles::readFile(path("tree/file")), "text");
  }
}

TEST_F(Files, APathWithANULIsNoPath) {
  using namespace std::string_literals;
  doubles::writeFile(path("file"), "text");
  const std::string withNUL = path("file\0.sh"s);
  std::error_code error;

  EXPECT_FALSE(files::exists(withNUL));
  EXPECT_EQ(files::readWhole(withNUL, error), "");
  EXPECT_EQ(error, std::errc::invalid_argument);
  error.clear();
  files::removeItem(withNUL, error);
  EXPECT_EQ(error, std::errc::invalid_argument);
  EXPECT_EQ(doubles::readFile(path("file")), "text");
}

/// At most as many descriptors as are open and `more`, for as long as the object lives.
class FewDescriptors {
 public:
  explicit FewDescriptors(rlim_t more) {
    ::getrlimit(RLIMIT_NOFILE, &before_);
    const int free = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
    ::close(free);
    const rlimit few{static_cast<rlim_t>(free) + more, before_.rlim_max};
    ::setrlimit(RLIMIT_NOFILE, &few);
  }
  FewDescriptors(const FewDescriptors&) = delete;
  FewDescriptors& operator=(const FewDescriptors&) = delete;
  ~FewDescriptors() { ::setrlimit(RLIMIT_NOFILE, &before_); }

 private:
  rlimit before_{};
};

TEST_F(Files, WithoutAFreeDescriptorAFileALinkAndAnEmptyDirectoryAreRemoved) {
  if (kSanitized) GTEST_SKIP() << "a sanitizer looks at objects through descriptors";
  doubles::writeFile(path("file"), "text");
  doubles::makeDirectories(path("empty"));
  ASSERT_EQ(::symlink("missing", path("link").c_str()), 0);
  const FewDescriptors none(0);
  for (const char* const item : {"file", "empty", "link"}) {
    std::error_code error;
    files::removeItem(path(item), error);
    EXPECT_FALSE(error) << item << ": " << error.message();
    EXPECT_NE(::faccessat(AT_FDCWD, path(item).c_str(), F_OK, AT_SYMLINK_NOFOLLOW), 0) << item;
  }
}

TEST_F(Files, ATreeOfAnyDepthIsRemovedWithTwoDescriptors) {
  if (kSanitized) GTEST_SKIP() << "a sanitizer looks at objects through descriptors";
  doubles::writeFile(path("tree/file"), "text");
  int here = ::open(path("tree").c_str(), O_RDONLY | O_CLOEXEC);
  for (int level = 0; level < 300; ++level) {
    ASSERT_EQ(::mkdirat(here, "d", 0700), 0);
    ASSERT_EQ(::mkdirat(here, "e", 0700), 0);
    ASSERT_EQ(::symlinkat("..", here, "link"), 0);
    const int inner = ::openat(here, "d", O_RDONLY | O_CLOEXEC);
    ::close(here);
    here = inner;
  }
  ::close(here);
  const FewDescriptors two(2);
  std::error_code error;

  files::removeItem(path("tree"), error);

  EXPECT_FALSE(error) << error.message();
  EXPECT_FALSE(files::exists(path("tree")));
}

TEST_F(Files, WithoutDescriptorsAFullDirectorySaysWhy) {
  if (kSanitized) GTEST_SKIP() << "a sanitizer looks at objects through descriptors";
  doubles::writeFile(path("tree/file"), "text");
  const FewDescriptors none(0);
  std::error_code error;
  files::removeItem(path("tree"), error);
  EXPECT_EQ(error, std::errc::too_many_files_open);
}

TEST_F(Files, AFailedRemovalSaysWhy) {
  std::error_code error;
  // Nothing can be removed from the kernel's own file system, not by root either.
  files::removeItem("/proc/version", error);
  EXPECT_TRUE(error);
  EXPECT_TRUE(files::exists("/proc/version"));
}

TEST_F(Files, ANameBelowADirectoryIsThatOfThePlaceWhereTheFileIs) {
  const std::string top = path("top");
  doubles::makeDirectories(top + "/sub");
  doubles::makeDirectories(path("top-elsewhere"));
  doubles::writeFile(path("file"), "");
  ASSERT_EQ(::symlink("../top/sub", (path("top-elsewhere/way")).c_str()), 0);
  ASSERT_EQ(::symlink("../file", (top + "/link").c_str()), 0);

  EXPECT_EQ(files::nameBelow(top, top + "/a.sh"), "a.sh");
  EXPECT_EQ(files::nameBelow(top, top + "/sub/a.sh"), "sub/a.sh");
  EXPECT_EQ(files::nameBelow(top, path("top-elsewhere/../top//sub/./a.sh")), "sub/a.sh");
  EXPECT_EQ(files::nameBelow(top, path("top-elsewhere/way/a.sh")), "sub/a.sh");
  // The file itself may be a link, and need not be there.
  EXPECT_EQ(files::nameBelow(top, top + "/link"), "link");
  for (const std::string& none :
       {path("file"), path("top-elsewhere/a.sh"), top + "/missing/a.sh", top + "/", top + "/.",
        top + "/..", top + "/sub/..", std::string("a.sh"), std::string(), top}) {
    EXPECT_EQ(files::nameBelow(top, none), "") << none;
  }
  EXPECT_EQ(files::nameBelow(path("missing"), path("missing/a.sh")), "");
}

TEST(ErrorDescriptions, AreTheSystemsPlainWords) {
  EXPECT_EQ(files::description(std::make_error_code(std::errc::no_such_file_or_directory)),
            "No such file or directory");
  EXPECT_EQ(files::description(std::make_error_code(std::errc::permission_denied)),
            "Permission denied");
  EXPECT_EQ(files::description({EPERM, std::system_category()}), "Operation not permitted");
}

}  // namespace
