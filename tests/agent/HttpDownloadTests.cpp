// Downloads over HTTP from a server that behaves.

#include <cstdint>
#include <stdexcept>

#include "support/DownloadFixture.h"
#include "support/Gzip.h"
#include "support/HttpServer.h"

namespace {

using Names = std::vector<std::string>;

class HttpDownload : public DownloadFixture {
 protected:
  void SetUp() override { useServer(server.url()); }

  HttpServer server;
};

TEST_F(HttpDownload, TakesTheWholeBody) {
  const std::string body(300000, 'b');
  server.answer("/dir/a%20b.sh", httpAnswer("200 OK", body));
  EXPECT_TRUE(download("/dir/a b.sh", base / "target"));
  EXPECT_TRUE(readFile(base / "target") == body);
  EXPECT_EQ(base.names(), Names{"target"});
  EXPECT_EQ(log.lines(), Names{});
}

TEST_F(HttpDownload, TakesAnEmptyBody) {
  server.answer("/a", httpAnswer("200 OK", ""));
  EXPECT_TRUE(download("a", base / "target"));
  EXPECT_EQ(readFile(base / "target"), "");
}

TEST_F(HttpDownload, TakesABodyInChunks) {
  server.answer(
      "/a",
      "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n3\r\nabc\r\n2\r\nde\r\n0\r\n\r\n");
  EXPECT_TRUE(download("a", base / "target"));
  EXPECT_EQ(readFile(base / "target"), "abcde");
}

TEST_F(HttpDownload, TakesABodyThatEndsWithTheConnection) {
  server.answer("/a", "HTTP/1.0 200 OK\r\n\r\nabc");
  EXPECT_TRUE(download("a", base / "target"));
  EXPECT_EQ(readFile(base / "target"), "abc");
}

TEST_F(HttpDownload, TakesTheAnswerBehindAnInterimOne) {
  server.answer("/a", "HTTP/1.1 103 Early Hints\r\nContent-Encoding: br\r\n\r\n" +
                          httpAnswer("200 OK", "abc"));
  EXPECT_TRUE(download("a", base / "target"));
  EXPECT_EQ(readFile(base / "target"), "abc");
}

TEST_F(HttpDownload, AsksForCompressionAndDecodesIt) {
  const std::string body(100000, 'z');
  server.answer("/a", httpAnswer("200 OK", gzipped(body), "Content-Encoding: gzip\r\n"));
  EXPECT_TRUE(download("a", base / "target"));
  EXPECT_TRUE(readFile(base / "target") == body);
  ASSERT_EQ(server.requests().size(), 1u);
  EXPECT_NE(server.requests().front().find("Accept-Encoding: gzip"), std::string::npos);
}

TEST_F(HttpDownload, LeavesAFileThatIsItselfCompressedAsItIs) {
  const std::string file = gzipped("content");
  server.answer("/a.gz", httpAnswer("200 OK", file, "Content-Type: application/gzip\r\n"));
  EXPECT_TRUE(download("a.gz", base / "target"));
  EXPECT_EQ(readFile(base / "target"), file);
}

TEST_F(HttpDownload, ServesSeveralDownloadersOverOneConnection) {
  for (const char* const path : {"/a", "/b", "/c"}) {
    server.answer(path, httpAnswer("200 OK", path), HttpServer::Then::keep);
    EXPECT_TRUE(download(path, base / "target"));
    EXPECT_EQ(readFile(base / "target"), path);
  }
  EXPECT_EQ(server.connections(), 1);
}

TEST_F(HttpDownload, FollowsFiveRedirects) {
  for (int hop = 1; hop <= 5; ++hop) {
    const std::string status[] = {"301 M", "302 F", "303 S", "307 T", "308 P"};
    server.answer(
        "/" + std::to_string(hop),
        httpAnswer(status[hop - 1], "moved", "Location: " + std::to_string(hop + 1) + "\r\n"));
  }
  server.answer("/6", httpAnswer("200 OK", "here"));
  EXPECT_TRUE(download("1", base / "target"));
  EXPECT_EQ(readFile(base / "target"), "here");
}

TEST_F(HttpDownload, FollowsARedirectToAnotherServer) {
  HttpServer other;
  other.answer("/b", httpAnswer("200 OK", "there"));
  server.answer("/a", httpAnswer("302 Found", "", "Location: " + other.url() + "/b\r\n"));
  EXPECT_TRUE(download("a", base / "target"));
  EXPECT_EQ(readFile(base / "target"), "there");
}

TEST_F(HttpDownload, TellsItsProgress) {
  std::uint64_t received = 0;
  std::uint64_t total = 0;
  settings.onDownloadProgress = [&](std::uint64_t now, std::uint64_t announced) {
    received = now;
    total = announced;
  };
  useServer(server.url());
  server.answer("/a", httpAnswer("200 OK", std::string(1000, 'x')));
  EXPECT_TRUE(download("a", base / "target"));
  EXPECT_EQ(received, 1000u);
  EXPECT_EQ(total, 1000u);
}

TEST_F(HttpDownload, FailsWhenTheProgressCallThrows) {
  settings.onDownloadProgress = [](std::uint64_t, std::uint64_t) {
    throw std::runtime_error("stopped");
  };
  useServer(server.url());
  server.answer("/a", httpAnswer("200 OK", "abc"));
  expectFailure("a", "stopped");
}

}  // namespace
