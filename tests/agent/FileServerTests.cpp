// Downloads from a server that is a directory.

#include <sys/stat.h>
#include <unistd.h>

#include "support/DownloadFixture.h"

namespace {

using namespace std::string_literals;

class FileServer : public DownloadFixture {
 protected:
  void SetUp() override {
    ASSERT_EQ(::mkdir((repository / "sub").c_str(), 0755), 0);
    useServer("file://" + repository.path());
  }

  TemporaryDirectory repository;
};

TEST_F(FileServer, GivesTheFileOfThePath) {
  writeFile(repository / "sub/a b?#%.sh", "content\0\xFF"s);
  EXPECT_TRUE(download("/sub/a b?#%.sh", base / "target"));
  EXPECT_EQ(readFile(base / "target"), "content\0\xFF"s);
  EXPECT_TRUE(download("sub/a%20b?#%.sh", base / "escaped"));
  EXPECT_EQ(readFile(base / "escaped"), "content\0\xFF"s);
  EXPECT_EQ(log.lines(), std::vector<std::string>{});
}

TEST_F(FileServer, GivesEmptyAndLargeFilesWhole) {
  writeFile(repository / "empty", "");
  EXPECT_TRUE(download("empty", base / "empty"));
  EXPECT_EQ(readFile(base / "empty"), "");
  const std::string large(1000001, 'x');
  writeFile(repository / "large", large);
  EXPECT_TRUE(download("large", base / "large"));
  EXPECT_TRUE(readFile(base / "large") == large);
}

TEST_F(FileServer, WhatIsNotThereIsAFailure) {
  expectFailure("missing", repository / "missing: No such file or directory");
}

TEST_F(FileServer, WhatIsNoFileIsAFailureWithoutWaiting) {
  expectFailure("sub", repository / "sub is not a file");
  ASSERT_EQ(::mkfifo((repository / "fifo").c_str(), 0600), 0);
  expectFailure("fifo", repository / "fifo is not a file");
}

TEST_F(FileServer, AFileOfAnotherLengthThanItSaidIsAFailure) {
  // The kernel's own files say that they are empty.
  if (::access("/proc/version", R_OK) != 0) GTEST_SKIP() << "no such files here";
  useServer("file:///proc");
  expectFailure("version", "/proc/version changed while it was read");
}

TEST_F(FileServer, APathThatLeadsOutIsRefusedHoweverItIsWritten) {
  useServer("file://" + (repository / "sub"));
  writeFile(repository / "outside", "secret");
  for (const char* const path : {"../outside", "/../outside", "x/../../outside", "%2e%2E/outside",
                                 ".%2e/outside", "%2e%2e%2foutside", "sub/.."}) {
    expectFailure(path, "the server path leads out of the server's directory");
  }
}

TEST_F(FileServer, ANulInThePathIsAFailure) {
  writeFile(repository / "a", "content");
  expectFailure("a%00b", "no local path in the URL");
  expectFailure("a\0b"s, "no local path in the URL");
}

TEST_F(FileServer, OfAnotherHostIsAFailure) {
  useServer("file://otherhost" + repository.path());
  expectFailure("a", "no local path in the URL");
}

TEST_F(FileServer, MoreThanMayBeDownloadedIsAFailure) {
  writeFile(repository / "a", "12345");
  settings.maxDownload = 5;
  useServer("file://" + repository.path());
  EXPECT_TRUE(download("a", base / "target"));
  settings.maxDownload = 4;
  useServer("file://" + repository.path());
  expectFailure("a", "larger than max_download allows (4 bytes)");
}

TEST_F(FileServer, OfNoKnownSchemeIsAFailure) {
  for (const std::string url : {"", "ftp://127.0.0.1", "/srv/repository", "scp://h"}) {
    useServer(url);
    expectFailure("a", "no server of a known kind is configured");
  }
}

}  // namespace
