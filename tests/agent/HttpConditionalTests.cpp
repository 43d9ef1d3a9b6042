// Downloads of what is here already: when the server is asked whether it has changed, and what
// comes of the answer.

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <functional>
#include <utility>

#include "FileAttributes.h"
#include "support/DownloadFixture.h"
#include "support/Gzip.h"
#include "support/HttpServer.h"
#include "support/SmallRecords.h"

namespace {

using namespace std::string_literals;
using Names = std::vector<std::string>;

constexpr const char* kAttribute = "user.varn.download";
constexpr std::size_t kMuch = 65536;
const std::string kTag = "ETag: \"v1\"\r\n";
const std::string kDates =
    "Date: Sun, 06 Nov 1994 08:49:37 GMT\r\nLast-Modified: Sun, 06 Nov 1994 07:00:00 GMT\r\n";

std::string attributeOf(const std::string& path) {
  const posix::FileDescriptor file(::open(path.c_str(), O_RDONLY));
  return AgentUtils::fileAttribute(file, kAttribute, kMuch);
}

void setAttribute(const std::string& path, const std::string& value) {
  const posix::FileDescriptor file(::open(path.c_str(), O_RDWR));
  AgentUtils::setFileAttribute(file, kAttribute, value);
}

struct stat statusOf(const std::string& path) {
  struct stat status {};
  EXPECT_EQ(::lstat(path.c_str(), &status), 0) << path;
  return status;
}

class HttpConditional : public DownloadFixture {
 protected:
  void SetUp() override {
    useServer(server.url());
    writeFile(base / "probe", "");
    setAttribute(base / "probe", "x");
    const bool hasAttributes = attributeOf(base / "probe") == "x";
    ::unlink((base / "probe").c_str());
    if (!hasAttributes) GTEST_SKIP() << "the file system here keeps no attributes";
  }

  /// A first download of "/a" to the target, with these headers in the answer.
  void fetchFirst(const std::string& headers, const std::string& body = "first") {
    server.answer("/a", httpAnswer("200 OK", body, headers), HttpServer::Then::keep);
    ASSERT_TRUE(download("a", target));
    ASSERT_EQ(condition(), "");
  }

  void answerNotModified(const std::string& headers = "") {
    server.answer("/a", "HTTP/1.1 304 Not Modified\r\n" + headers + "\r\n", HttpServer::Then::keep);
  }

  /// The condition in the request that came last but `before`: its header line, or nothing.
  std::string condition(std::size_t before = 0) const {
    const std::vector<std::string> requests = server.requests();
    const std::string& head = requests.at(requests.size() - 1 - before) + "\r\n";
    std::string lines;
    for (std::size_t at = head.find("\r\nIf-"); at != head.npos;
         at = head.find("\r\nIf-", at + 2)) {
      lines += head.substr(at + 2, head.find("\r\n", at + 2) - at - 2);
    }
    return lines;
  }

  /// Downloads "/a" once more; expects it to be asked for whole, and the target to be replaced.
  void expectWholeDownload(const char* what) {
    const std::size_t before = server.requests().size();
    server.answer("/a", httpAnswer("200 OK", "whole", kTag), HttpServer::Then::keep);
    EXPECT_TRUE(download("a", target)) << what;
    EXPECT_EQ(server.requests().size(), before + 1) << what;
    EXPECT_EQ(condition(), "") << what;
    EXPECT_EQ(readFile(target), "whole") << what;
    EXPECT_EQ(modeOf(target), 0600u) << what;
    EXPECT_EQ(log.lines(), Names{}) << what;
  }

  HttpServer server;
  const std::string target = base / "target";
};

TEST_F(HttpConditional, LeavesAnUnchangedFileAsItIs) {
  fetchFirst(kTag);
  const struct stat before = statusOf(target);
  answerNotModified();
  EXPECT_TRUE(download("a", target));
  EXPECT_EQ(condition(), "If-None-Match: \"v1\"");
  const struct stat after = statusOf(target);
  EXPECT_EQ(after.st_ino, before.st_ino);
  EXPECT_EQ(AgentUtils::changeTime(after), AgentUtils::changeTime(before));
  EXPECT_EQ(after.st_mode, before.st_mode);
  EXPECT_EQ(readFile(target), "first");
  EXPECT_EQ(base.names(), Names{"target"});
  EXPECT_EQ(log.lines(), Names{});
  EXPECT_EQ(server.connections(), 1);
}

TEST_F(HttpConditional, AsksAgainEachTime) {
  fetchFirst(kTag);
  answerNotModified(kTag);
  for (int time = 0; time < 3; ++time) {
    EXPECT_TRUE(download("a", target));
    EXPECT_EQ(condition(), "If-None-Match: \"v1\"");
  }
  EXPECT_EQ(readFile(target), "first");
}

TEST_F(HttpConditional, ANotModifiedThatIsCutShortIsNone) {
  fetchFirst(kTag);
  const std::string answer = "HTTP/1.1 304 Not Modified\r\n" + kTag + "\r\n";
  for (std::size_t length = 0; length < answer.size(); ++length) {
    server.answer("/a", answer.substr(0, length));
    EXPECT_FALSE(download("a", target)) << answer.substr(0, length);
  }
}

TEST_F(HttpConditional, AsksWithAWeakTag) {
  fetchFirst("ETag: W/\"v1\"\r\n");
  answerNotModified(kTag);
  EXPECT_TRUE(download("a", target));
  EXPECT_EQ(condition(), "If-None-Match: W/\"v1\"");
}

TEST_F(HttpConditional, AsksWithTheDateWithoutATag) {
  fetchFirst(kDates);
  answerNotModified(kDates);
  EXPECT_TRUE(download("a", target));
  EXPECT_EQ(condition(), "If-Modified-Since: Sun, 06 Nov 1994 07:00:00 GMT");
  EXPECT_EQ(readFile(target), "first");
}

TEST_F(HttpConditional, TakesNoOtherDateForTheOneAskedWith) {
  // Servers that compare dates say "not modified" of every file that is older than the one asked
  // with, and some do not say which date it has.
  const std::string answers[] = {"", "Last-Modified: Sun, 06 Nov 1994 06:00:00 GMT\r\n",
                                 "Last-Modified: yesterday\r\n", "ETag: \"v0\"\r\n",
                                 "Last-Modified: Sun, 06 Nov 1994 07:00:00 GMT\r\n"
                                 "Last-Modified: Sun, 06 Nov 1994 07:00:00 GMT\r\n"};
  for (const std::string& answer : answers) {
    fetchFirst(kDates);
    server.answerInTurn("/a", {"HTTP/1.1 304 Not Modified\r\n" + answer + "\r\n",
                               httpAnswer("200 OK", "older", kDates)});
    EXPECT_TRUE(download("a", target)) << answer;
    EXPECT_EQ(condition(1), "If-Modified-Since: Sun, 06 Nov 1994 07:00:00 GMT") << answer;
    EXPECT_EQ(condition(), "") << answer;
    EXPECT_EQ(readFile(target), "older") << answer;
    ::unlink(target.c_str());
  }
}

TEST_F(HttpConditional, AsksForTheWholeFileOnceItsChecksumWasWrong) {
  fetchFirst(kTag);
  ASSERT_FALSE(
      AgentUtils::VyCryptography::validateCheckSumForFile(target, "sha256", std::string(64, '0')));
  // The next process is told so too.
  EXPECT_EQ(attributeOf(target), "");
  server.answer("/b", httpAnswer("200 OK", "other", kTag), HttpServer::Then::keep);
  EXPECT_TRUE(download("b", base / "other"));
  expectWholeDownload("after a wrong checksum");
  answerNotModified(kTag);
  EXPECT_TRUE(download("a", target));
  EXPECT_EQ(condition(), "If-None-Match: \"v1\"");
}

TEST_F(HttpConditional, AWrongChecksumTakesTheValidatorsOfTheDocumentsThatLedToIt) {
  server.answer("/list", httpAnswer("200 OK", "list", kTag), HttpServer::Then::keep);
  ASSERT_TRUE(download("list", base / "list"));
  writeFile(base / "changed here", "text");
  EXPECT_FALSE(AgentUtils::VyCryptography::validateCheckSumForFile(base / "changed here", "sha256",
                                                                   std::string(64, '0')));
  EXPECT_NE(attributeOf(base / "list"), "");
  fetchFirst(kTag);
  EXPECT_FALSE(
      AgentUtils::VyCryptography::validateCheckSumForFile(target, "sha256", std::string(64, '0')));
  EXPECT_EQ(attributeOf(base / "list"), "");
}

TEST_F(HttpConditional, AsksForTheWholeFileOnceItDidNotDecode) {
  const struct {
    const char* document;
    bool isKept;
  } rows[] = {
      {"<box><item><id>1</id></item></box>", true},
      {"<box/>", true},
      {"<box><item/></box>", false},
      {"<box>", false},
      {"", false},
      {"<html/>", false},
  };
  for (const auto& row : rows) {
    fetchFirst(kTag, row.document);
    static_cast<void>(decodedItems(row.document));
    EXPECT_EQ(attributeOf(target).empty(), !row.isKept) << row.document;
    ::unlink(target.c_str());
  }
}

TEST_F(HttpConditional, AsksWithTheTagAfterTheChecksumWasRight) {
  fetchFirst(kTag, "abc");
  ASSERT_TRUE(AgentUtils::VyCryptography::validateCheckSumForFile(
      target, "sha256", "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad"));
  answerNotModified(kTag);
  EXPECT_TRUE(download("a", target));
  EXPECT_EQ(condition(), "If-None-Match: \"v1\"");
}

TEST_F(HttpConditional, AsksWithTheTagAloneWhenThereAreBoth) {
  fetchFirst(kTag + kDates);
  answerNotModified(kTag);
  EXPECT_TRUE(download("a", target));
  EXPECT_EQ(condition(), "If-None-Match: \"v1\"");
}

TEST_F(HttpConditional, TakesAChangedFileAndItsTag) {
  fetchFirst(kTag);
  server.answer("/a", httpAnswer("200 OK", "second", "ETag: \"v2\"\r\n"), HttpServer::Then::keep);
  EXPECT_TRUE(download("a", target));
  EXPECT_EQ(condition(), "If-None-Match: \"v1\"");
  EXPECT_EQ(readFile(target), "second");
  answerNotModified();
  EXPECT_TRUE(download("a", target));
  EXPECT_EQ(condition(), "If-None-Match: \"v2\"");
  EXPECT_EQ(readFile(target), "second");
}

TEST_F(HttpConditional, ForgetsTheTagOfAFileThatComesWithoutOne) {
  fetchFirst(kTag);
  server.answer("/a", httpAnswer("200 OK", "second"), HttpServer::Then::keep);
  EXPECT_TRUE(download("a", target));
  expectWholeDownload("no tag");
}

TEST_F(HttpConditional, KeepsTheTagOfACompressedAnswer) {
  fetchFirst("ETag: W/\"v1\"\r\nContent-Encoding: gzip\r\n", gzipped("first"));
  answerNotModified();
  EXPECT_TRUE(download("a", target));
  EXPECT_EQ(condition(), "If-None-Match: W/\"v1\"");
  EXPECT_NE(server.requests().back().find("Accept-Encoding: gzip"), std::string::npos);
  EXPECT_EQ(readFile(target), "first");
}

TEST_F(HttpConditional, KeepsTheTagOfAnEmptyFile) {
  fetchFirst(kTag, "");
  answerNotModified();
  EXPECT_TRUE(download("a", target));
  EXPECT_EQ(condition(), "If-None-Match: \"v1\"");
  EXPECT_EQ(readFile(target), "");
}

TEST_F(HttpConditional, IgnoresTheTagOfAnInterimAnswer) {
  server.answer("/a", "HTTP/1.1 103 Early Hints\r\nETag: \"early\"\r\n\r\n" +
                          httpAnswer("200 OK", "first", kTag));
  EXPECT_TRUE(download("a", target));
  answerNotModified();
  EXPECT_TRUE(download("a", target));
  EXPECT_EQ(condition(), "If-None-Match: \"v1\"");
}

TEST_F(HttpConditional, KeepsNoTagThatIsNone) {
  const std::string answers[] = {"ETag: v1\r\n",
                                 "ETag: \"\"\r\n",
                                 "ETag:\r\n",
                                 "ETag: \"a b\"\r\n",
                                 "ETag: \"a\tb\"\r\n",
                                 "ETag: \"a\x01\"\r\n",
                                 "ETag: \"a\xFF\"\r\n",
                                 "ETag: \"" + std::string(300, 'x') + "\"\r\n",
                                 kTag + kTag,
                                 kTag + "ETag: \"v2\"\r\n",
                                 "Last-Modified: Sun, 06 Nov 1994 07:00:00 GMT\r\n",
                                 "Date: Sun, 06 Nov 1994 08:49:37 GMT\r\nLast-Modified: then\r\n"};
  for (const std::string& headers : answers) {
    fetchFirst(headers);
    EXPECT_EQ(attributeOf(target), "") << headers;
    expectWholeDownload(headers.c_str());
    ASSERT_EQ(::unlink(target.c_str()), 0);
  }
}

TEST_F(HttpConditional, KeepsNothingOfAFileThatMayStillChange) {
  fetchFirst(kTag +
             "Date: Sun, 06 Nov 1994 08:49:37 GMT\r\n"
             "Last-Modified: Sun, 06 Nov 1994 08:48:38 GMT\r\n");
  expectWholeDownload("59 seconds old");
}

TEST_F(HttpConditional, AsksForTheWholeFileWhenTheTargetIsNotTheOneThatCame) {
  const std::pair<const char*, std::function<void()>> changes[] = {
      {"missing", [&] { ::unlink(target.c_str()); }},
      {"another byte, same size and time",
       [&] {
         const struct stat status = statusOf(target);
         const posix::FileDescriptor file(::open(target.c_str(), O_WRONLY));
         EXPECT_EQ(::pwrite(file.get(), "F", 1, 0), 1);
         const timespec times[] = {status.st_atim, status.st_mtim};
         EXPECT_EQ(::futimens(file.get(), times), 0);
       }},
      {"longer", [&] { EXPECT_EQ(::truncate(target.c_str(), 6), 0); }},
      {"shorter", [&] { EXPECT_EQ(::truncate(target.c_str(), 4), 0); }},
      {"emptied", [&] { EXPECT_EQ(::truncate(target.c_str(), 0), 0); }},
      {"replaced by an equal file",
       [&] {
         ::unlink(target.c_str());
         writeFile(target, "first");
         EXPECT_EQ(::chmod(target.c_str(), 0600), 0);
       }},
      {"a link to the file that came",
       [&] {
         EXPECT_EQ(std::rename(target.c_str(), (base / "moved").c_str()), 0);
         EXPECT_EQ(::symlink("moved", target.c_str()), 0);
       }},
      {"writable by others", [&] { EXPECT_EQ(::chmod(target.c_str(), 0666), 0); }},
      {"readable by others", [&] { EXPECT_EQ(::chmod(target.c_str(), 0644), 0); }},
      {"executable", [&] { EXPECT_EQ(::chmod(target.c_str(), 0700), 0); }},
      {"without attribute", [&] { setAttribute(target, ""); }},
  };
  for (const auto& [what, change] : changes) {
    fetchFirst(kTag);
    change();
    expectWholeDownload(what);
    ::unlink(target.c_str());
    ::unlink((base / "moved").c_str());
  }
}

TEST_F(HttpConditional, AsksForTheWholeFileWhenAnotherUserOwnsTheTarget) {
  if (::geteuid() != 0) GTEST_SKIP() << "only root gives files away";
  fetchFirst(kTag);
  ASSERT_EQ(::chown(target.c_str(), 1, 1), 0);
  expectWholeDownload("another owner");
  EXPECT_EQ(statusOf(target).st_uid, 0u);
}

TEST_F(HttpConditional, AsksForTheWholeFileWhenTheAttributeIsNotAsItWasWritten) {
  fetchFirst(kTag);
  const std::string attribute = attributeOf(target);
  const std::size_t tag = attribute.find("\"v1\"");
  ASSERT_NE(tag, std::string::npos);
  const std::string start = attribute.substr(0, tag);
  ::unlink(target.c_str());
  const std::string attributes[] = {
      "x",
      "\n\n\n",
      start,
      start + "\n",
      start + "\"v1\"",
      start + "\"v1\"\n\n",
      start + "\"v1\"\r\nX-More: y\n",
      start + "v1\n",
      start + "\"v1\"\nthen",
      start + "\"v1\0\"\n"s,
      start + "\"" + std::string(300, 'x') + "\"\n",
      "sha256:" + attribute,
      std::string(3500, 'x'),
  };
  for (const std::string& changed : attributes) {
    fetchFirst(kTag);
    setAttribute(target, changed);
    ASSERT_EQ(attributeOf(target), changed);
    expectWholeDownload(changed.c_str());
    ::unlink(target.c_str());
  }
}

TEST_F(HttpConditional, AsksForTheWholeFileWhenTheTargetCameFromAnotherURL) {
  server.answer("/b", httpAnswer("200 OK", "other", kTag), HttpServer::Then::keep);
  ASSERT_TRUE(download("b", target));
  expectWholeDownload("another path");
  HttpServer other;
  other.answer("/a", httpAnswer("200 OK", "there", kTag), HttpServer::Then::keep);
  useServer(other.url());
  EXPECT_TRUE(download("a", target));
  EXPECT_EQ(other.requests().back().find("If-"), std::string::npos);
  EXPECT_EQ(readFile(target), "there");
}

TEST_F(HttpConditional, KeepsNothingWhenTheURLIsTooLong) {
  const std::string path = "/" + std::string(4000, 'u');
  server.answer(path, httpAnswer("200 OK", "first", kTag), HttpServer::Then::keep);
  EXPECT_TRUE(download(path, target));
  EXPECT_EQ(attributeOf(target), "");
  EXPECT_TRUE(download(path, target));
  EXPECT_EQ(condition(), "");
  EXPECT_EQ(log.lines(), Names{});
}

TEST_F(HttpConditional, AsksForTheWholeFileWhenTheTargetIsLargerThanAllowed) {
  fetchFirst(kTag, std::string(1001, 'x'));
  settings.maxDownload = 1000;
  useServer(server.url());
  expectWholeDownload("too large");
}

TEST_F(HttpConditional, AsksForTheWholeFileWhenTheTargetChangesMeanwhile) {
  fetchFirst(kTag);
  server.answerInTurn("/a", {"HTTP/1.1 304 Not Modified\r\n\r\n"s, httpAnswer("200 OK", "whole")});
  bool isChanged = false;
  settings.onDownloadProgress = [&](std::uint64_t, std::uint64_t) {
    if (!std::exchange(isChanged, true)) writeFile(target, "first");
  };
  useServer(server.url());
  EXPECT_TRUE(download("a", target));
  EXPECT_TRUE(isChanged);
  EXPECT_EQ(condition(1), "If-None-Match: \"v1\"");
  EXPECT_EQ(condition(), "");
  EXPECT_EQ(readFile(target), "whole");
  EXPECT_EQ(log.lines(), Names{});
}

TEST_F(HttpConditional, AsksForTheWholeFileWhenTheAnswerIsAboutAnother) {
  const std::string answers[] = {
      "HTTP/1.1 304 Not Modified\r\nETag: \"v2\"\r\n\r\n",
      "HTTP/1.1 304 Not Modified\r\nLast-Modified: Sun, 06 Nov 1994 06:00:00 GMT\r\n\r\n",
      httpAnswer("412 Precondition Failed", "page")};
  for (const std::string& answer : answers) {
    fetchFirst(kTag + kDates);
    const std::size_t before = server.requests().size();
    server.answerInTurn("/a", {answer, httpAnswer("200 OK", "whole")});
    EXPECT_TRUE(download("a", target)) << answer;
    ASSERT_EQ(server.requests().size(), before + 2) << answer;
    EXPECT_EQ(condition(1), "If-None-Match: \"v1\"") << answer;
    EXPECT_EQ(condition(), "") << answer;
    EXPECT_EQ(readFile(target), "whole") << answer;
    ::unlink(target.c_str());
  }
  EXPECT_EQ(log.lines(), Names{});
}

TEST_F(HttpConditional, TakesANotModifiedThatCarriesABody) {
  for (const HttpServer::Then then : {HttpServer::Then::keep, HttpServer::Then::close}) {
    fetchFirst(kTag);
    server.answer("/a", httpAnswer("304 Not Modified", "HTTP/1.1 200 OK\r\n\r\nevil", kTag), then);
    EXPECT_TRUE(download("a", target));
    EXPECT_EQ(readFile(target), "first");
    // What the body left on the connection is not taken for the next answer.
    server.answer("/b", httpAnswer("200 OK", "other"), HttpServer::Then::keep);
    EXPECT_TRUE(download("b", base / "b"));
    EXPECT_EQ(readFile(base / "b"), "other");
    ::unlink(target.c_str());
  }
  EXPECT_EQ(log.lines(), Names{});
}

TEST_F(HttpConditional, TakesANotModifiedThatNamesTheFilesLength) {
  fetchFirst(kTag);
  answerNotModified("Content-Length: 5\r\n" + kTag);
  EXPECT_TRUE(download("a", target));
  EXPECT_EQ(readFile(target), "first");
}

TEST_F(HttpConditional, ANotModifiedBehindARedirectIsAFailure) {
  fetchFirst(kTag);
  server.answer("/a", httpAnswer("302 Found", "", "Location: /b\r\n"), HttpServer::Then::keep);
  server.answer("/b", "HTTP/1.1 304 Not Modified\r\n" + kTag + "\r\n", HttpServer::Then::keep);
  EXPECT_FALSE(download("a", target));
  EXPECT_EQ(condition(1), "If-None-Match: \"v1\"");
  EXPECT_EQ(condition(), "");
  EXPECT_EQ(readFile(target), "first");
  EXPECT_EQ(base.names(), Names{"target"});
  EXPECT_EQ(log.lines(), Names{kFailed + "a failed: the server answered with status 304"});
}

TEST_F(HttpConditional, TakesAFileBehindARedirectWholeAndKeepsNothing) {
  server.answer("/a", httpAnswer("302 Found", "", "Location: /b\r\n"), HttpServer::Then::keep);
  server.answer("/b", httpAnswer("200 OK", "moved", kTag), HttpServer::Then::keep);
  for (int time = 0; time < 2; ++time) {
    EXPECT_TRUE(download("a", target));
    EXPECT_EQ(condition(1), "");
    EXPECT_EQ(condition(), "");
    EXPECT_EQ(readFile(target), "moved");
    EXPECT_EQ(attributeOf(target), "");
  }
}

TEST_F(HttpConditional, AsksAgainWithTheTagAfterAFailure) {
  fetchFirst(kTag);
  const std::string whole = httpAnswer("200 OK", std::string(1000, 'x'), "ETag: \"v2\"\r\n");
  const std::string answers[] = {httpAnswer("500 Broken", ""), whole.substr(0, whole.size() - 1),
                                 whole + "excess", ""};
  for (const std::string& answer : answers) {
    server.answer("/a", answer);
    EXPECT_FALSE(download("a", target)) << answer;
    EXPECT_EQ(condition(), "If-None-Match: \"v1\"") << answer;
    EXPECT_EQ(readFile(target), "first") << answer;
    EXPECT_EQ(base.names(), Names{"target"}) << answer;
  }
}

TEST_F(HttpConditional, LeavesTheConnectionToTheProcessThatMadeIt) {
  fetchFirst(kTag);
  ASSERT_EQ(server.connections(), 1);
  server.answer("/b", httpAnswer("200 OK", "child's", kTag), HttpServer::Then::keep);
  const std::string childsTarget = base / "child";
  const int child = ::fork();
  if (child == 0) ::_exit(download("b", childsTarget) ? 0 : 1);
  int status = -1;
  ASSERT_EQ(::waitpid(child, &status, 0), child);
  EXPECT_EQ(status, 0);
  EXPECT_EQ(readFile(childsTarget), "child's");
  EXPECT_EQ(server.connections(), 2);
  answerNotModified();
  EXPECT_TRUE(download("a", target));
  EXPECT_EQ(server.connections(), 2);
}

TEST_F(HttpConditional, SweepsWhatKilledDownloadsLeft) {
  fetchFirst(kTag);
  writeFile(base / ".varn-download-abc123", "left");
  answerNotModified();
  EXPECT_TRUE(download("a", target));
  EXPECT_EQ(base.names(), Names{"target"});
}

TEST_F(HttpConditional, DoesNotTakeTheTargetFromWhoeverHoldsIt) {
  // The host's lock is for replacing; a file that stays needs none.
  fetchFirst(kTag);
  Names held;
  settings.beforeFileUse = [&](const std::string& path) { held.push_back(path); };
  useServer(server.url());
  answerNotModified();
  EXPECT_TRUE(download("a", target));
  EXPECT_EQ(held, Names{});
  server.answer("/a", httpAnswer("200 OK", "second"), HttpServer::Then::keep);
  EXPECT_TRUE(download("a", target));
  EXPECT_EQ(held, Names{target});
}

}  // namespace
