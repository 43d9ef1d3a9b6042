// Downloads over HTTP that are tried again, and those that are not.

#include <gtest/gtest.h>

#include <stdexcept>

#include "DownloadRetries.h"
#include "support/DownloadFixture.h"
#include "support/Gzip.h"
#include "support/HttpServer.h"

namespace {

using namespace std::chrono_literals;
using std::chrono::milliseconds;
using Names = std::vector<std::string>;
using Then = HttpServer::Then;

class HttpRetry : public DownloadFixture {
 protected:
  void SetUp() override {
    settings.retries = 2;
    settings.waitForRetry = [this](milliseconds pause) {
      pauses.push_back(pause);
      namesInPause = base.names();
    };
    useServer(server.url());
  }

  /// Expects the line that announces another try, with this cause.
  static void expectAnnounced(const std::string& line, const std::string& cause) {
    EXPECT_TRUE(line.starts_with(
        "info HttpHandlermac downloadFileWithRootPermission(fromURL:toPath:): Trying again in "))
        << line;
    EXPECT_NE(line.find(" s: the download of a failed: " + cause), line.npos) << line;
  }

  /// Downloads "a", which is answered with `first` and then as it should be.
  void expectSecondTry(const HttpServer::Answer& first, const std::string& cause) {
    SCOPED_TRACE(first.bytes.substr(0, 80));
    const std::size_t linesBefore = log.lines().size();
    const std::size_t requestsBefore = server.requests().size();
    const std::size_t pausesBefore = pauses.size();
    // On a connection that was used before, curl itself asks a second time.
    server.answerInTurn("/a", {first, {httpAnswer("200 OK", "whole"), Then::close}});
    EXPECT_TRUE(download("a", base / "target"));
    EXPECT_EQ(readFile(base / "target"), "whole");
    EXPECT_EQ(base.names(), Names{"target"});
    EXPECT_EQ(server.requests().size(), requestsBefore + 2);
    ASSERT_EQ(pauses.size(), pausesBefore + 1);
    EXPECT_GE(pauses.back(), 500ms);
    EXPECT_LE(pauses.back(), 1500ms);
    ASSERT_EQ(log.lines().size(), linesBefore + 1);
    expectAnnounced(log.lines().back(), cause);
  }

  /// Downloads "a" with this answer, and expects it to be asked for once.
  void expectNoSecondTry(const std::string& answer) {
    SCOPED_TRACE(answer.substr(0, 80));
    const std::size_t before = server.requests().size();
    server.answer("/a", answer);
    expectFailureWith("a", "");
    EXPECT_EQ(server.requests().size(), before + 1);
    EXPECT_EQ(pauses.size(), 0u);
  }

  HttpServer server;
  std::vector<milliseconds> pauses;
  Names namesInPause;
};

TEST_F(HttpRetry, FollowsAStatusThatMayPass) {
  for (const std::string status : {"408", "425", "429", "500", "502", "503", "504"}) {
    expectSecondTry(httpAnswer(status + " Status", "page"),
                    "the server answered with status " + status);
  }
}

TEST_F(HttpRetry, FollowsAConnectionThatBreaksOff) {
  const std::string whole = httpAnswer("200 OK", std::string(100000, 'x'));
  expectSecondTry({whole.substr(0, 50000), Then::close}, "");
  expectSecondTry({whole.substr(0, 50000), Then::reset}, "");
  expectSecondTry({"", Then::close}, "Empty reply");
  expectSecondTry({"", Then::reset}, "");
  expectSecondTry({"HTTP/1.1 200 OK\r\nX-Fil", Then::close}, "");
  expectSecondTry({"HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n3\r\nab", Then::close},
                  "");
  const std::string cut = gzipped(std::string(1000, 'x')).substr(0, 10);
  expectSecondTry({"HTTP/1.0 200 OK\r\nContent-Encoding: gzip\r\n\r\n" + cut, Then::close},
                  "the compressed body is cut short");
}

TEST_F(HttpRetry, LeavesNothingOfTheFirstTryDuringThePause) {
  const std::string whole = httpAnswer("200 OK", std::string(100000, 'x'));
  server.answerInTurn("/a", {{whole.substr(0, 50000), Then::reset}, whole});
  namesInPause = {"not looked at"};
  EXPECT_TRUE(download("a", base / "target"));
  EXPECT_EQ(namesInPause, Names{});
  EXPECT_TRUE(readFile(base / "target") == std::string(100000, 'x'));
}

TEST_F(HttpRetry, DoesNotFollowWhatWouldBeTheSame) {
  for (const std::string status : {"201", "204", "206", "304", "400", "401", "403", "404", "407",
                                   "410", "412", "416", "451", "501", "505", "507"}) {
    expectNoSecondTry(httpAnswer(status + " Status", "page"));
  }
  expectNoSecondTry(httpAnswer("200 OK", "abc") + "d");
  expectNoSecondTry(httpAnswer("200 OK", "plain text", "Content-Encoding: gzip\r\n"));
  expectNoSecondTry(httpAnswer("200 OK", "abc", "Content-Encoding: br\r\n"));
  expectNoSecondTry(httpAnswer("302 Found", "", "Location: ftp://127.0.0.1/a\r\n"));
  expectNoSecondTry("hello\r\n\r\n");
  settings.maxDownload = 2;
  useServer(server.url());
  expectNoSecondTry(httpAnswer("200 OK", "abc"));
}

TEST_F(HttpRetry, DoesNotFollowAFailureOfThisComputer) {
  server.answer("/a", httpAnswer("200 OK", "abc"));
  EXPECT_FALSE(download("a", base / "missing/target"));
  settings.beforeFileUse = [](const std::string&) { throw std::runtime_error("refused"); };
  useServer(server.url());
  expectFailure("a", "refused");
  EXPECT_EQ(server.requests().size(), 2u);
  EXPECT_EQ(pauses.size(), 0u);
}

TEST_F(HttpRetry, EndsWithTheLastTryAndItsOneResult) {
  int failures = 0;
  settings.onFailure = [&](const std::string&, const std::string&) { ++failures; };
  useServer(server.url());
  server.answer("/a", httpAnswer("503 Busy", "page"));
  EXPECT_FALSE(download("a", base / "target"));
  EXPECT_EQ(server.requests().size(), 3u);
  EXPECT_EQ(failures, 1);
  ASSERT_EQ(pauses.size(), 2u);
  EXPECT_GE(pauses[1], 1000ms);
  EXPECT_LE(pauses[1], 3000ms);
  ASSERT_EQ(log.lines().size(), 3u);
  const std::string cause = "the server answered with status 503";
  expectAnnounced(log.lines()[0], cause);
  expectAnnounced(log.lines()[1], cause);
  EXPECT_EQ(log.lines()[2], kFailed + "a failed: " + cause);
  EXPECT_EQ(base.names(), Names{});
}

TEST_F(HttpRetry, IsMadeForAServerThatIsNotThere) {
  std::string url;
  {
    const HttpServer gone;
    url = gone.url();
  }
  useServer(url);
  EXPECT_FALSE(download("a", base / "target"));
  EXPECT_EQ(pauses.size(), 2u);
  useServer("http://no-such-host.invalid");
  EXPECT_FALSE(download("a", base / "target"));
  EXPECT_EQ(pauses.size(), 4u);
}

TEST_F(HttpRetry, IsNotMadeWithNoneAllowed) {
  settings.retries = 0;
  useServer(server.url());
  expectNoSecondTry(httpAnswer("503 Busy", "page"));
}

TEST_F(HttpRetry, WaitsAsLongAsTheServerAsks) {
  server.answerInTurn("/a", {httpAnswer("503 Busy", "", "Retry-After: 30\r\n"),
                             httpAnswer("429 Many", "",
                                        "Date: Sun, 06 Nov 1994 08:49:37 GMT\r\n"
                                        "Retry-After: Sun, 06 Nov 1994 08:50:17 GMT\r\n"),
                             httpAnswer("200 OK", "whole")});
  EXPECT_TRUE(download("a", base / "target"));
  ASSERT_EQ(pauses.size(), 2u);
  EXPECT_GE(pauses[0], 30s);
  EXPECT_LE(pauses[0], 31s);
  EXPECT_GE(pauses[1], 40s);
  EXPECT_LE(pauses[1], 42s);
}

TEST_F(HttpRetry, IsNotMadeWhenTheServerAsksForMoreThanAMinute) {
  expectNoSecondTry(httpAnswer("503 Busy", "page", "Retry-After: 61\r\n"));
  expectNoSecondTry(httpAnswer("503 Busy", "page", "Retry-After: 99999999999999999999\r\n"));
}

TEST_F(HttpRetry, BeginsWithTheFirstURLAgain) {
  HttpServer other;
  other.answerInTurn("/b", {httpAnswer("503 Busy", ""), httpAnswer("200 OK", "there")});
  server.answer("/a", httpAnswer("302 Found", "", "Location: " + other.url() + "/b\r\n"));
  EXPECT_TRUE(download("a", base / "target"));
  EXPECT_EQ(readFile(base / "target"), "there");
  EXPECT_EQ(server.requests().size(), 2u);
  EXPECT_EQ(other.requests().size(), 2u);
}

TEST_F(HttpRetry, AsksForWhatIsHereOnlyWhenItHasChanged) {
  const std::string tag = "ETag: \"v1\"\r\n";
  server.answer("/a", httpAnswer("200 OK", "first", tag));
  EXPECT_TRUE(download("a", base / "target"));
  server.answerInTurn("/a",
                      {httpAnswer("503 Busy", ""), "HTTP/1.1 304 Not Modified\r\n" + tag + "\r\n",
                       httpAnswer("200 OK", "second")});
  EXPECT_TRUE(download("a", base / "target"));
  ASSERT_EQ(server.requests().size(), 3u);
  if (server.requests()[1].find("If-None-Match") == std::string::npos) {
    GTEST_SKIP() << "the file system here keeps no attributes";
  }
  EXPECT_NE(server.requests()[2].find("If-None-Match: \"v1\""), std::string::npos);
  EXPECT_EQ(readFile(base / "target"), "first");
}

TEST_F(HttpRetry, EndsWhenTheHostDoesNotWait) {
  settings.waitForRetry = [](milliseconds) { throw std::runtime_error("stopped"); };
  useServer(server.url());
  server.answer("/a", httpAnswer("503 Busy", "page"));
  EXPECT_FALSE(download("a", base / "target"));
  EXPECT_EQ(server.requests().size(), 1u);
  EXPECT_EQ(log.lines().back(), kFailed + "a failed: stopped");
}

TEST_F(HttpRetry, FollowsAProxyThatIsOverloadedAndNotOneThatRefuses) {
  ::unsetenv("no_proxy");
  settings.proxy = server.url();
  settings.serverURL = "https://host.invalid";
  AgentUtils::configure(settings);
  server.answer("host.invalid:443", httpAnswer("503 Busy", ""));
  EXPECT_FALSE(download("a", base / "target"));
  EXPECT_EQ(server.requests().size(), 3u);
  for (const char* const status : {"403 Forbidden", "407 Proxy Authentication Required"}) {
    pauses.clear();
    server.answer("host.invalid:443", httpAnswer(status, ""));
    EXPECT_FALSE(download("a", base / "target"));
    EXPECT_EQ(pauses.size(), 0u) << status;
  }
}

TEST_F(HttpRetry, FollowsAHandshakeThatBreaksOff) {
  // The server hangs up on what is no HTTP.
  settings.serverURL = "https" + server.url().substr(4);
  AgentUtils::configure(settings);
  EXPECT_FALSE(download("a", base / "target"));
  EXPECT_EQ(pauses.size(), 2u);
}

using AgentUtils::askedPause;
using AgentUtils::DownloadRetries;

constexpr DownloadRetries::Clock::time_point kBegin(1000s);

TEST(DownloadRetries, PauseLongerEachTime) {
  const struct {
    double chance;
    std::vector<milliseconds> pauses;
  } rows[] = {
      {0, {500ms, 1s, 2s, 4s, 8s, 16s, 16s}},
      {0.5, {1s, 2s, 4s, 8s, 16s, 32s, 32s}},
      {1, {1500ms, 3s, 6s, 12s, 24s, 48s, 48s}},
  };
  for (const auto& [chance, pauses] : rows) {
    DownloadRetries retries(7, kBegin);
    for (const milliseconds pause : pauses) {
      EXPECT_EQ(retries.next(std::nullopt, chance, kBegin), pause) << chance;
    }
    EXPECT_EQ(retries.next(std::nullopt, chance, kBegin), std::nullopt);
  }
}

TEST(DownloadRetries, AreNotShorterThanAsked) {
  DownloadRetries retries(10, kBegin);
  EXPECT_EQ(retries.next(0s, 0, kBegin), 500ms);
  EXPECT_EQ(retries.next(60s, 0, kBegin), 60s);
  EXPECT_EQ(retries.next(60s, 1, kBegin), 64s);
  EXPECT_EQ(retries.next(61s, 0, kBegin), std::nullopt);
}

TEST(DownloadRetries, DoNotBeginAfterFiveMinutes) {
  DownloadRetries retries(10, kBegin);
  EXPECT_EQ(retries.next(std::nullopt, 0.5, kBegin + 299s + 1ms), std::nullopt);
  EXPECT_EQ(retries.next(std::nullopt, 0.5, kBegin + 299s), 1s);
  EXPECT_EQ(retries.next(std::nullopt, 0.5, kBegin + 299s), std::nullopt);
}

TEST(AskedPause, IsANumberOfSecondsOrATimeAfterTheAnswers) {
  const std::string date = "Sun, 06 Nov 1994 08:49:37 GMT";
  EXPECT_EQ(askedPause("0", ""), 0s);
  EXPECT_EQ(askedPause("120", ""), 120s);
  EXPECT_EQ(askedPause("86401", ""), 86400s);
  EXPECT_EQ(askedPause("99999999999999999999", ""), 86400s);
  EXPECT_EQ(askedPause("Sun, 06 Nov 1994 08:50:37 GMT", date), 60s);
  EXPECT_EQ(askedPause("Sun, 06 Nov 1994 08:00:00 GMT", date), 0s);
  EXPECT_EQ(askedPause("Sun, 06 Nov 2094 08:00:00 GMT", date), 86400s);
  EXPECT_EQ(askedPause("Sun, 06 Nov 1994 08:50:37 GMT", ""), std::nullopt);
  for (const char* const none : {"", "soon", "1.5", "1 s", "+1"}) {
    EXPECT_EQ(askedPause(none, date), std::nullopt) << none;
  }
  EXPECT_EQ(askedPause("-5", date), 0s);
}

}  // namespace
