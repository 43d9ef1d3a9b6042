// Downloads with trusted keys: what a list, and what lies below it, must be to take its place; what
// is asked of the server for it; and the one sentence that tells why it does not count.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "Digest.h"
#include "DownloadTrust.h"
#include "FileAttributes.h"
#include "signing/ListSignature.h"
#include "signing/TrustState.h"
#include "signing/TrustStateFile.h"
#include "support/DownloadFixture.h"
#include "support/HttpServer.h"
#include "support/Signer.h"

namespace {

using namespace AgentUtils::signing;
using namespace std::string_literals;
using Names = std::vector<std::string>;

constexpr char kListPath[] = "/client-data/acme/scriptrepo/scripts-meta.xml";
constexpr char kPlace[] = "/client-data/acme/scriptrepo/";
constexpr char kList[] = "<scripts-meta/>\n";
constexpr char kAttribute[] = "user.varn.download";
const std::string kTag = "ETag: \"v1\"\r\n";

std::string digestOf(const std::string& bytes) {
  return AgentUtils::hexDigest(AgentUtils::usualDigest(), bytes);
}

class SignedList : public DownloadFixture {
 protected:
  void SetUp() override { trust({"first"}); }

  /// Trusts these keys, of which `needed` have to have signed.
  void trust(const Names& keys, std::uint32_t needed = 1) {
    settings.customerID = "acme";
    settings.dataPath = data.path();
    settings.trustedKeys.clear();
    for (const std::string& key : keys) {
      settings.trustedKeys.push_back(publicKeyLine(vectorKey(key)));
    }
    settings.signaturesNeeded = needed;
    settings.clock = [this] { return at(clock); };
    settings.onListJudged = [this](const AgentUtils::ListJudgement& judgement) {
      judgements.push_back(judgement);
    };
    useServer(server.url());
  }

  void serve(const std::string& path, const std::string& body, const std::string& headers = "") {
    server.answer(path, httpAnswer("200 OK", body, headers), HttpServer::Then::keep);
  }

  void serveList(const std::string& list, const std::string& headers = "") {
    serve(kListPath, list, headers);
  }

  static std::string signaturePath(const std::string& list, const std::string& name = "") {
    return kPlace + "signatures/"s + digestOf(list) + name + ".minisig";
  }

  /// Serves `list` with a signature by the key `key`.
  void publish(const std::string& list, const std::string& comment, const std::string& headers = "",
               const std::string& key = "first") {
    serveList(list, headers);
    serve(signaturePath(list), Signer(key).sign(list, comment));
  }

  bool fetch() { return download(kListPath, target); }

  /// Has the list come at `time`.
  void receivedAt(std::string_view time) const {
    const timespec then{std::chrono::system_clock::to_time_t(at(time)), 0};
    const timespec times[] = {then, then};
    ASSERT_EQ(::utimensat(AT_FDCWD, target.c_str(), times, 0), 0);
  }

  /// Whether the last request for the list asked if it is unchanged.
  [[nodiscard]] bool wasConditional() const {
    bool isConditional = false;
    for (const std::string& head : server.requests()) {
      if (!head.starts_with("GET "s + kListPath + ' ')) continue;
      isConditional = head.find("If-None-Match: \"v1\"") != head.npos;
    }
    return isConditional;
  }

  /// The paths that were asked for since the last call.
  Names asked() {
    Names paths;
    const Names requests = server.requests();
    for (; seen < requests.size(); ++seen) {
      const std::string& head = requests[seen];
      const std::size_t start = head.find(' ') + 1;
      paths.push_back(head.substr(start, head.find(' ', start) - start));
    }
    return paths;
  }

  /// Downloads `fromURL` over a target that is there, which stays, with this cause.
  void expectRefused(const std::string& cause, const std::string& fromURL = kListPath) {
    writeFile(target, "old");
    EXPECT_FALSE(download(fromURL, target)) << cause;
    EXPECT_EQ(readFile(target), "old") << cause;
    EXPECT_EQ(base.names(), Names{"target"}) << cause;
    ASSERT_FALSE(log.lines().empty());
    EXPECT_EQ(log.lines().back(), kFailed + fromURL + " failed: " + cause);
    ::unlink(target.c_str());
  }

  std::string state() const { return data / "Configuration-Framework/AcceptedLists"; }

  HttpServer server;
  TemporaryDirectory data;
  std::string clock{kMeanwhile};
  const std::string target = base / "target";
  std::vector<AgentUtils::ListJudgement> judgements;
  std::size_t seen = 0;
};

TEST_F(SignedList, CountsWithTheSignatureOfATrustedKey) {
  publish(kList, commentWith("7"));
  EXPECT_TRUE(fetch());
  EXPECT_EQ(readFile(target), kList);
  EXPECT_EQ(asked(), (Names{kListPath, signaturePath(kList)}));
  EXPECT_EQ(log.lines(),
            Names{"info DownloadTrust acceptList(_:use:): The list is signed by 808CC446AE5308A3 "
                  "for the customer acme, serial 7, until 2026-12-22T11:30:00Z"});
  ASSERT_EQ(judgements.size(), 1U);
  EXPECT_EQ(judgements[0].refusal, "");
  EXPECT_EQ(judgements[0].signedBy, Names{"808CC446AE5308A3"});
  EXPECT_EQ(judgements[0].serial, 7U);
  EXPECT_EQ(judgements[0].expires, "2026-12-22T11:30:00Z");
  EXPECT_EQ(base.names(), Names{"target"});
}

TEST_F(SignedList, IsSaidToBeVerifiedOrNotBeforeAnyIsAskedFor) {
  trust({"first", "second"}, 2);
  useServer("http://host.invalid");
  AgentUtils::prepareDownloads();
  // Nobody on the way decides anything, so that no warning follows.
  EXPECT_EQ(log.lines(), Names{"info DownloadTrust prepareDownloads(): Lists are verified: "
                               "signatures by 2 of 2 trusted keys are needed"});
  settings.trustedKeys.clear();
  settings.signaturesNeeded = 1;
  useServer("file:///nowhere");
  AgentUtils::prepareDownloads();
  EXPECT_EQ(log.lines().back(),
            "info DownloadTrust prepareDownloads(): Lists are not verified: no key is trusted");
}

TEST_F(SignedList, IsRememberedBeforeItTakesItsPlace) {
  publish(kList, commentWith("7"));
  std::string remembered;
  settings.beforeFileUse = [&](const std::string&) { remembered = readFile(state()); };
  useServer(server.url());
  EXPECT_TRUE(fetch());
  EXPECT_NE(remembered.find(' ' + digestOf(kList) + ' '), remembered.npos);
}

TEST_F(SignedList, ThatIsUnchangedCostsOneRequest) {
  publish(kList, commentWith("7"), kTag);
  ASSERT_TRUE(fetch());
  receivedAt(clock);
  asked();
  for (const char* const answer : {"304 Not Modified", "200 OK"}) {
    const bool isWhole = answer == "200 OK"s;
    server.answer(kListPath,
                  isWhole ? httpAnswer(answer, kList) : "HTTP/1.1 304 Not Modified\r\n\r\n",
                  HttpServer::Then::keep);
    EXPECT_TRUE(fetch()) << answer;
    EXPECT_EQ(asked(), Names{kListPath}) << answer;
    EXPECT_TRUE(wasConditional()) << answer;
    EXPECT_EQ(readFile(target), kList) << answer;
  }
  EXPECT_EQ(judgements.size(), 3U);
}

// Nobody signs validators: who held the server may have given those of a newer list.
TEST_F(SignedList, IsAskedForWholeAnHourAfterItCame) {
  publish(kList, commentWith("7"), kTag);
  ASSERT_TRUE(fetch());
  struct Row {
    std::string received;
    bool isConditional;
  };
  // The clock stands at the beginning of December.
  const std::vector<Row> rows = {{"2026-11-30T23:00:01Z", true},  {"2026-12-01T00:00:00Z", true},
                                 {"2026-11-30T23:00:00Z", false}, {"2026-11-01T00:00:00Z", false},
                                 {"2026-12-01T00:00:01Z", false}, {"2027-12-01T00:00:00Z", false}};
  for (const Row& row : rows) {
    receivedAt(row.received);
    EXPECT_TRUE(fetch()) << row.received;
    EXPECT_EQ(wasConditional(), row.isConditional) << row.received;
  }
  // That it is unchanged makes it no younger.
  server.answer(kListPath, "HTTP/1.1 304 Not Modified\r\n\r\n", HttpServer::Then::keep);
  receivedAt("2026-11-30T23:00:01Z");
  EXPECT_TRUE(fetch());
  clock = "2026-12-01T00:00:01Z";
  serveList(kList, kTag);
  EXPECT_TRUE(fetch());
  EXPECT_FALSE(wasConditional());
}

TEST_F(SignedList, WhoseSignatureHasRunOutIsAskedForANewOne) {
  publish(kList, commentWith("7"), kTag);
  ASSERT_TRUE(fetch());
  asked();
  clock = "2026-12-23T00:00:00Z";
  receivedAt(clock);
  serve(signaturePath(kList), Signer("first").sign(kList, commentWith("8", "2026-12-20T00:00:00Z",
                                                                      "2027-01-20T00:00:00Z")));
  server.answer(kListPath, "HTTP/1.1 304 Not Modified\r\n\r\n", HttpServer::Then::keep);
  EXPECT_TRUE(fetch());
  EXPECT_EQ(asked(), (Names{kListPath, signaturePath(kList)}));
  EXPECT_TRUE(fetch());
  EXPECT_EQ(asked(), Names{kListPath});
}

TEST_F(SignedList, ThatIsNotRenewedExpiresForEver) {
  publish(kList, commentWith("7"), kTag);
  ASSERT_TRUE(fetch());
  clock = "2026-12-22T11:30:00Z";
  EXPECT_FALSE(fetch());
  EXPECT_EQ(log.lines().back(), kFailed + kListPath +
                                    " failed: the signature by the key 808CC446AE5308A3 expired at "
                                    "2026-12-22T11:30:00Z");
  EXPECT_EQ(judgements.back().refusal,
            "the signature by the key 808CC446AE5308A3 expired at 2026-12-22T11:30:00Z");
  // Set back, the clock revives what was not seen before, and nothing that was.
  publish("<newer/>", commentWith("8", "2026-12-21T00:00:00Z", "2027-01-21T00:00:00Z"));
  ASSERT_TRUE(fetch());
  clock = "2026-12-19T00:00:00Z";
  publish("<newest/>", commentWith("9", "2026-11-01T00:00:00Z", "2026-12-20T00:00:00Z"));
  EXPECT_FALSE(fetch());
}

TEST_F(SignedList, ThatCantBeHadAfterItsExpirySaysSinceWhen) {
  settings.retries = 0;
  trust({"first"});
  publish(kList, commentWith("7"), kTag);
  ASSERT_TRUE(fetch());
  const std::string notModified = "HTTP/1.1 304 Not Modified\r\n\r\n";
  const std::string none = "the list is not signed: signatures/" + digestOf(kList) + ".minisig: ";
  struct Row {
    std::string list;
    std::string signature;
    std::string cause;
  };
  const std::vector<Row> rows = {
      {notModified, notModified, "the server answered with status 304"},
      {notModified, httpAnswer("503 Service Unavailable", ""),
       "signatures/" + digestOf(kList) + ".minisig: the server answered with status 503"},
      {httpAnswer("404 Not Found", ""), notModified, "the server answered with status 404"},
      {httpAnswer("503 Service Unavailable", ""), notModified,
       "the server answered with status 503"},
      {httpAnswer("200 OK", kList), httpAnswer("404 Not Found", ""),
       none + "the server answered with status 404"},
      // However much else the server says.
      {httpAnswer("302 Found", "", "Location: ftp://" + std::string(4000, 'x') + "/\r\n"),
       notModified, "redirected to ftp://" + std::string(492, 'x') + "…"},
  };
  clock = "2026-12-22T11:30:00Z";
  for (const Row& row : rows) {
    receivedAt(clock);
    server.answer(kListPath, row.list, HttpServer::Then::keep);
    server.answer(signaturePath(kList), row.signature, HttpServer::Then::keep);
    EXPECT_FALSE(fetch()) << row.cause;
    EXPECT_EQ(log.lines().back(),
              kFailed + kListPath + " failed: " + row.cause +
                  "; the list that was accepted last counts no more: the signature by the key "
                  "808CC446AE5308A3 expired at 2026-12-22T11:30:00Z");
  }
  // Before it has expired, or of what is no list, there is nothing to say of it.
  const std::string document = kPlace + ("data/" + digestOf("") + ".xml");
  server.answer(document, httpAnswer("404 Not Found", ""), HttpServer::Then::keep);
  EXPECT_FALSE(download(document, base / "document"));
  EXPECT_EQ(log.lines().back(),
            kFailed + document + " failed: the server answered with status 404");
  clock = "2026-12-22T11:29:59Z";
  server.answer(kListPath, httpAnswer("404 Not Found", ""), HttpServer::Then::keep);
  EXPECT_FALSE(fetch());
  EXPECT_EQ(log.lines().back(),
            kFailed + kListPath + " failed: the server answered with status 404");
}

TEST_F(SignedList, KeptFromATimeWithoutKeysNeedsASignature) {
  settings.trustedKeys.clear();
  useServer(server.url());
  serveList(kList, kTag);
  ASSERT_TRUE(fetch());
  receivedAt(clock);
  asked();
  trust({"first"});
  server.answerInTurn(kListPath,
                      {"HTTP/1.1 304 Not Modified\r\n\r\n"s, httpAnswer("200 OK", kList, kTag)});
  EXPECT_FALSE(fetch());
  EXPECT_EQ(asked(),
            (Names{kListPath, signaturePath(kList), signaturePath(kList, ".808CC446AE5308A3"),
                   kListPath, signaturePath(kList), signaturePath(kList, ".808CC446AE5308A3")}));
  serve(signaturePath(kList), Signer("first").sign(kList, commentWith("7")));
  EXPECT_TRUE(fetch());
}

TEST_F(SignedList, ThatWasExchangedOnTheDiskIsAskedForWhole) {
  publish(kList, commentWith("7"), kTag);
  ASSERT_TRUE(fetch());
  asked();
  // With everything that a download leaves with its file.
  const std::string url = server.url() + kListPath;
  writeFile(target, "<evil/>");
  receivedAt(clock);
  ::chmod(target.c_str(), 0600);
  const posix::FileDescriptor file(::open(target.c_str(), O_RDWR));
  AgentUtils::setFileAttribute(file, kAttribute,
                               "sha256:" + digestOf("<evil/>") + '\n' + url + "\n\"v1\"\n");
  if (AgentUtils::fileAttribute(file, kAttribute, 4096).empty()) {
    GTEST_SKIP() << "the file system here keeps no attributes";
  }
  server.answerInTurn(kListPath,
                      {"HTTP/1.1 304 Not Modified\r\n\r\n"s, httpAnswer("200 OK", kList, kTag)});
  EXPECT_TRUE(fetch());
  EXPECT_EQ(readFile(target), kList);
  EXPECT_EQ(asked().back(), kListPath);
  // And when the server goes on to say that nothing has changed, nothing counts.
  writeFile(target, "<evil/>");
  receivedAt(clock);
  AgentUtils::setFileAttribute(file, kAttribute,
                               "sha256:" + digestOf("<evil/>") + '\n' + url + "\n\"v1\"\n");
  server.answer(kListPath, "HTTP/1.1 304 Not Modified\r\n\r\n", HttpServer::Then::keep);
  EXPECT_FALSE(fetch());
}

// ---- Bad input ---------------------------------------------------------------------------------

TEST_F(SignedList, IsRefusedWithASignatureThatIsNone) {
  serveList(kList);
  const std::string good = Signer("first").sign(kList, commentWith("7"));
  std::string whole = good;
  whole.replace(whole.find('\n') + 1, 4, "RWSj");
  std::string changed = good;
  changed.replace(changed.find("serial:7"), 8, "serial:8");
  const std::string by = "the signature by the key 808CC446AE5308A3";
  const std::string in = "in " + by + ", ";
  const std::string none = "the list is not signed: signatures/" + digestOf(kList) + ".minisig: ";
  const std::string noNumber =
      "the signed comment has serial that is no whole number from 0 to 18446744073709551615: ";
  struct Row {
    std::string file;
    std::string cause;
  };
  const auto commented = [](const std::string& comment) {
    return Signer("first").sign(kList, comment);
  };
  const std::vector<Row> rows = {
      {"", none + "the signature file is empty"},
      {good.substr(0, good.size() / 2), none + "the signature file is cut: it has 3 of four lines"},
      {good + "more\n", none + "the signature file has more than four lines"},
      {vectorFile("whole.minisig"),
       none +
           "the signature file is of the algorithm Ed, which does not hash the list first; ED is "
           "wanted"},
      {Signer("second").sign(kList, commentWith("7")),
       "the key C3CC33B19BA09674, by which the list is signed, is not trusted"},
      {Signer("first").sign("<other/>", commentWith("7")), by + " is not over this list"},
      {changed, "the comment of " + by + " was changed"},
      {commented("customer:acme\tserial:7\tpublished:2026-11-22T11:30:00Z"),
       in + "the signed comment has no expires"},
      {commented(commentWith("7", "2026-11-22T11:30:00Z", "2026-11-30T00:00:00Z")),
       by + " expired at 2026-11-30T00:00:00Z"},
      {commented(commentWith("7", "2026-11-22T11:30:00Z", "soon")),
       in +
           "the signed comment has expires that is no time such as 2026-11-22T11:30:00Z: \"soon\""},
      {commented(commentWith("-7")), in + noNumber + "\"-7\""},
      {commented(commentWith("seven")), in + noNumber + "\"seven\""},
      {commented(commentWith("18446744073709551616")), in + noNumber + "\"18446744073709551616\""},
      {commented(commentWith("7", "2026-11-22T11:30:00Z", "2026-12-22T11:30:00Z", "other")),
       by + " is for the customer \"other\", not for \"acme\""},
      {commented(commentWith("7", "2026-12-01T00:05:01Z")),
       by + " was made at 2026-12-01T00:05:01Z, and the clock of this computer stands before that, "
            "at 2026-12-01T00:00:00Z"},
  };
  for (const Row& row : rows) {
    serve(signaturePath(kList), row.file);
    expectRefused(row.cause);
  }
  serve(signaturePath(kList), good);
  EXPECT_TRUE(fetch());
}

TEST_F(SignedList, IsRefusedWithASignatureThatIsTooLong) {
  serveList(kList);
  const std::string good = Signer("first").sign(kList, commentWith("7"));
  const std::string path = "signatures/" + digestOf(kList) + ".minisig";
  serve(signaturePath(kList), good + std::string(4097 - good.size(), '\n'));
  expectRefused("the list is not signed: " + path +
                ": longer than a signature file may be (4096 bytes)");
  // Endless data end there as well.
  server.answer(signaturePath(kList), "HTTP/1.1 200 OK\r\n\r\n" + std::string(1 << 20, 'x'),
                HttpServer::Then::again);
  expectRefused("the list is not signed: " + path +
                ": longer than a signature file may be (4096 bytes)");
}

TEST_F(SignedList, IsRefusedWithASignatureThatCrawls) {
  settings.slowestWindow = std::chrono::seconds(1);
  useServer(server.url());
  serveList(kList);
  server.answer(signaturePath(kList), "HTTP/1.1 200 OK\r\nContent-Length: 300\r\n\r\nuntrusted",
                HttpServer::Then::keep);
  EXPECT_FALSE(fetch());
  EXPECT_FALSE(std::filesystem::exists(target));
  EXPECT_NE(log.lines().back().find("the list is not signed: signatures/" + digestOf(kList) +
                                    ".minisig: too slow: "),
            std::string::npos)
      << log.lines().back();
}

TEST_F(SignedList, WithoutASignatureIsRefusedByThatName) {
  serveList(kList);
  expectRefused("the list is not signed: signatures/" + digestOf(kList) +
                ".minisig: the server answered with status 404");
  EXPECT_EQ(judgements.size(), 1U);
  EXPECT_NE(judgements[0].refusal, "");
  EXPECT_FALSE(std::filesystem::exists(state()));
}

TEST_F(SignedList, SignedTwiceByOneKeyHasOneSignature) {
  trust({"first", "second"}, 2);
  serveList(kList);
  const std::string by = Signer("first").sign(kList, commentWith("7"));
  serve(signaturePath(kList), by);
  serve(signaturePath(kList, ".C3CC33B19BA09674"), by);
  expectRefused(
      "the list has 1 of the 2 signatures that are needed, and none by the key C3CC33B19BA09674");
  serve(signaturePath(kList, ".C3CC33B19BA09674"), Signer("second").sign(kList, commentWith("7")));
  asked();
  EXPECT_TRUE(fetch());
  EXPECT_EQ(asked(),
            (Names{kListPath, signaturePath(kList), signaturePath(kList, ".C3CC33B19BA09674")}));
  // In the order of their numbers.
  EXPECT_EQ(judgements.back().signedBy, (Names{"C3CC33B19BA09674", "808CC446AE5308A3"}));
}

TEST_F(SignedList, IsFoundUnderTheNameOfTheKeyThatIsStillTrusted) {
  trust({"second"});
  serveList(kList);
  serve(signaturePath(kList), Signer("first").sign(kList, commentWith("7")));
  serve(signaturePath(kList, ".C3CC33B19BA09674"), Signer("second").sign(kList, commentWith("7")));
  EXPECT_TRUE(fetch());
  EXPECT_EQ(judgements.back().signedBy, Names{"C3CC33B19BA09674"});
}

// From one key to the next, of which both have signed each list meanwhile.
TEST_F(SignedList, OfAnOlderSerialIsRefusedAfterTheFirstOfTwoKeysIsTrustedNoMore) {
  trust({"first", "second"});
  publish("<old/>", commentWith("7"));
  serve(signaturePath("<old/>", ".C3CC33B19BA09674"),
        Signer("second").sign("<old/>", commentWith("7")));
  publish("<new/>", commentWith("8"));
  serve(signaturePath("<new/>", ".C3CC33B19BA09674"),
        Signer("second").sign("<new/>", commentWith("8")));
  ASSERT_TRUE(fetch());
  EXPECT_EQ(asked(), (Names{kListPath, signaturePath("<new/>"),
                            signaturePath("<new/>", ".C3CC33B19BA09674")}));
  EXPECT_EQ(judgements.back().signedBy, (Names{"C3CC33B19BA09674", "808CC446AE5308A3"}));
  trust({"second"});
  serveList("<old/>");
  expectRefused(
      "the list is an older one: it has the serial 7 by the key C3CC33B19BA09674, and 8 was "
      "accepted before");
}

TEST_F(SignedList, CountsAlsoWhenTheSignaturesThatAreNotNeededCantBeHad) {
  trust({"first", "second"});
  const std::string further = ".C3CC33B19BA09674";
  const std::vector<std::string> answers = {httpAnswer("404 Not Found", ""),
                                            httpAnswer("503 Service Unavailable", ""),
                                            httpAnswer("200 OK", "rubbish")};
  for (std::size_t i = 0; i < answers.size(); ++i) {
    const std::string serial = std::to_string(i);
    const std::string list = "<list" + serial + "/>";
    publish(list, commentWith(serial));
    server.answer(signaturePath(list, further), answers[i], HttpServer::Then::keep);
    EXPECT_TRUE(fetch()) << answers[i];
    EXPECT_EQ(readFile(target), list);
    EXPECT_EQ(asked(), (Names{kListPath, signaturePath(list), signaturePath(list, further)}));
    EXPECT_EQ(judgements.back().signedBy, Names{"808CC446AE5308A3"});
  }
}

TEST_F(SignedList, OfAnOlderSerialIsRefused) {
  publish("<new/>", commentWith("8"));
  ASSERT_TRUE(fetch());
  publish(kList, commentWith("7"));
  expectRefused(
      "the list is an older one: it has the serial 7 by the key 808CC446AE5308A3, and 8 was "
      "accepted before");
  publish(kList, commentWith("8"));
  expectRefused(
      "the list is another one under the same serial: it has 8 by the key 808CC446AE5308A3, and 8 "
      "was accepted before");
}

TEST_F(SignedList, AfterAStolenKeyIsTrustedNoMoreCountsAgain) {
  publish("<stolen/>", commentWith("18446744073709551615"));
  ASSERT_TRUE(fetch());
  publish(kList, commentWith("9"), "", "second");
  trust({"second"});
  EXPECT_TRUE(fetch());
}

TEST_F(SignedList, LongerThanAllowedIsRefused) {
  settings.maxDownload = 8;
  trust({"first"});
  publish(kList, commentWith("7"));
  expectRefused("larger than max_download allows (8 bytes)");
}

TEST_F(SignedList, WithoutARecordThatCanBeUsedIsRefused) {
  publish(kList, commentWith("7"));
  ASSERT_TRUE(fetch());
  const std::string text = readFile(state());
  const std::string record = "the record of accepted lists ";
  struct Row {
    std::string text;
    mode_t mode;
    std::string cause;
  };
  const TrustState other{"other", {}};
  const std::vector<Row> rows = {
      {text.substr(0, text.size() / 2), 0600, "is cut or damaged (" + state() + ")"},
      {"something else\n", 0600, "is none: it holds something else (" + state() + ")"},
      {trustStateText(other), 0600,
       "is of the customer \"other\", not of \"acme\" (" + state() + ")"},
      {text, 0602, state() + " is not used: others may write to it"},
      {text, 0620, state() + " is not used: others may write to it"},
  };
  for (const Row& row : rows) {
    writeFile(state(), row.text);
    ::chmod(state().c_str(), row.mode);
    asked();
    expectRefused(record + row.cause);
    // No signature would help.
    EXPECT_EQ(asked(), Names{kListPath});
    EXPECT_EQ(readFile(state()), row.text);
  }
}

TEST_F(SignedList, WhoseRecordCantBeWrittenIsRefused) {
  publish(kList, commentWith("7"));
  writeFile(data / "Configuration-Framework", "in the way");
  expectRefused("the record of accepted lists " + state() + " can't be read: Not a directory");
}

// ---- The way there -----------------------------------------------------------------------------

TEST_F(SignedList, WhoseSignatureIsLateIsTriedAgain) {
  settings.retries = 1;
  std::vector<std::chrono::milliseconds> pauses;
  settings.waitForRetry = [&](auto pause) { pauses.push_back(pause); };
  trust({"first"});
  publish(kList, commentWith("7"));
  server.answerInTurn(signaturePath(kList),
                      {httpAnswer("503 Service Unavailable", ""),
                       httpAnswer("200 OK", Signer("first").sign(kList, commentWith("7")))});
  EXPECT_TRUE(fetch());
  EXPECT_EQ(pauses.size(), 1U);
  EXPECT_NE(log.lines()[0].find("signatures/" + digestOf(kList) +
                                ".minisig: the server answered with status 503"),
            std::string::npos)
      << log.lines()[0];
}

TEST_F(SignedList, ThatARedirectLeadsToNeedsTheSignatureOfItsOwnBytes) {
  HttpServer other;
  other.answer("/evil", httpAnswer("200 OK", "<evil/>"), HttpServer::Then::keep);
  other.answer("/good", httpAnswer("200 OK", kList), HttpServer::Then::keep);
  publish(kList, commentWith("7"));
  const auto redirected = [&](const std::string& path) {
    server.answer(
        kListPath,
        "HTTP/1.1 302 Found\r\nContent-Length: 0\r\nLocation: " + other.url() + path + "\r\n\r\n",
        HttpServer::Then::keep);
  };
  redirected("/evil");
  expectRefused("the list is not signed: signatures/" + digestOf("<evil/>") +
                ".minisig: the server answered with status 404");
  redirected("/good");
  EXPECT_TRUE(fetch());
  EXPECT_EQ(readFile(target), kList);
}

TEST_F(SignedList, OfADirectoryNeedsASignatureTheSame) {
  const TemporaryDirectory tree;
  std::filesystem::create_directories(tree / "client-data/acme/scriptrepo/signatures");
  writeFile(tree.path() + kListPath, kList);
  useServer("file://" + tree.path());
  EXPECT_FALSE(fetch());
  writeFile(tree.path() + signaturePath(kList), Signer("first").sign(kList, commentWith("7")));
  EXPECT_TRUE(fetch());
  EXPECT_EQ(readFile(target), kList);
  std::filesystem::remove_all(tree / "client-data/acme/scriptrepo/signatures");
  EXPECT_TRUE(fetch());
}

TEST_F(SignedList, IsHeldAgainstTheRecordByAHostThatOnlyLooks) {
  settings.remembersLists = false;
  trust({"first"});
  publish(kList, commentWith("7"));
  EXPECT_TRUE(fetch());
  EXPECT_EQ(data.names(), Names{});
  settings.remembersLists = true;
  trust({"first"});
  publish("<new/>", commentWith("8"));
  ASSERT_TRUE(fetch());
  const std::string before = readFile(state());
  settings.remembersLists = false;
  trust({"first"});
  asked();
  EXPECT_TRUE(fetch());
  EXPECT_EQ(asked(), Names{kListPath});
  publish(kList, commentWith("7"));
  EXPECT_FALSE(fetch());
  publish("<newest/>", commentWith("9"));
  EXPECT_TRUE(fetch());
  EXPECT_EQ(readFile(state()), before);
}

TEST_F(SignedList, ThatTheHostCantTakeNoteOfCountsAllTheSame) {
  settings.onListJudged = [](const AgentUtils::ListJudgement&) { throw std::bad_alloc(); };
  useServer(server.url());
  publish(kList, commentWith("7"));
  EXPECT_TRUE(fetch());
}

// ---- Below the list ----------------------------------------------------------------------------

class BoundFile : public SignedList {};

TEST_F(BoundFile, IsWhatItsPathSays) {
  const std::string path = kPlace + "data/"s + digestOf("document") + ".xml";
  serve(path, "document");
  EXPECT_TRUE(download(path, target));
  EXPECT_EQ(readFile(target), "document");
  EXPECT_EQ(asked(), Names{path});
  EXPECT_FALSE(std::filesystem::exists(state()));
}

TEST_F(BoundFile, WithAnotherContentIsRefused) {
  const std::string path = kPlace + "data/"s + digestOf("document") + ".xml";
  serve(path, "other");
  expectRefused("what came for " + path + " is not what the signed list names: its SHA-256 is " +
                    digestOf("other"),
                path);
}

TEST_F(BoundFile, WithoutADigestInItsPathIsNotEvenAskedFor) {
  std::string capitals = digestOf("document");
  for (char& c : capitals) c = static_cast<char>(std::toupper(c));
  const Names paths = {
      "/client-data/acme/scriptrepo/data/42.xml",
      kPlace + "data/"s + capitals + ".xml",
      kPlace + "data/"s + digestOf("document").substr(1) + ".xml",
      kPlace + digestOf("document") + "/42.xml",
      "/client-data/other/scriptrepo/scripts-meta.xml",
      "client-data/acme/scriptrepo/scripts-meta.xml",
      "/client-data/acme/scriptrepo/scripts-meta.xml?",
  };
  for (const std::string& path : paths) {
    serve(path, "document");
    expectRefused(path + " is not bound to the signed list: its name has no SHA-256 of its content",
                  path);
  }
  EXPECT_EQ(asked(), Names{});
}

TEST_F(BoundFile, ThatWasExchangedOnTheDiskIsAskedForWhole) {
  const std::string path = kPlace + "data/"s + digestOf("document") + ".xml";
  serve(path, "document", kTag);
  ASSERT_TRUE(download(path, target));
  const std::string url = server.url() + path;
  writeFile(target, "evil");
  const posix::FileDescriptor file(::open(target.c_str(), O_RDWR));
  AgentUtils::setFileAttribute(file, kAttribute,
                               "sha256:" + digestOf("evil") + '\n' + url + "\n\"v1\"\n");
  if (AgentUtils::fileAttribute(file, kAttribute, 4096).empty()) {
    GTEST_SKIP() << "the file system here keeps no attributes";
  }
  EXPECT_TRUE(download(path, target));
  EXPECT_EQ(readFile(target), "document");
  EXPECT_EQ(server.requests().back().find("If-None-Match"), std::string::npos);
}

TEST_F(BoundFile, DoesNotReachWhatIsRemembered) {
  publish(kList, commentWith("7"));
  ASSERT_TRUE(fetch());
  const std::string path = kPlace + "files/"s + digestOf("none") + ".sh";
  serve(path, "none");
  const std::string before = readFile(state());
  ::symlink((data / "Configuration-Framework").c_str(), (base / "link").c_str());
  for (const std::string& place : {state(), state() + ".lock", base / "link/AcceptedLists",
                                   data.path() + "/./Configuration-Framework/AcceptedLists"}) {
    EXPECT_FALSE(download(path, place)) << place;
    EXPECT_EQ(
        log.lines().back(),
        kFailed + path + " failed: the target lies where accepted lists are remembered: " + place);
  }
  EXPECT_EQ(readFile(state()), before);
}

TEST_F(BoundFile, IsTakenFromAnywhereWithoutKeys) {
  settings.trustedKeys.clear();
  useServer(server.url());
  serve("/any", "thing");
  EXPECT_TRUE(download("any", target));
  EXPECT_EQ(data.names(), Names{});
  EXPECT_EQ(judgements.size(), 0U);
}

TEST_F(BoundFile, OnThisComputerIsWhatTheListNames) {
  const std::string path = kPlace + "data/"s + digestOf("document") + ".xml";
  writeFile(target, "document");
  EXPECT_TRUE(AgentUtils::isBoundDocument(target, path));
  EXPECT_FALSE(AgentUtils::isBoundDocument(target, "/data/42.xml"));
  writeFile(target, "Document");
  EXPECT_FALSE(AgentUtils::isBoundDocument(target, path));
  EXPECT_FALSE(AgentUtils::isBoundDocument(base / "none", path));
  EXPECT_FALSE(AgentUtils::isBoundDocument(base.path(), path));
  settings.trustedKeys.clear();
  useServer(server.url());
  EXPECT_TRUE(AgentUtils::isBoundDocument(base / "none", "/data/42.xml"));
}

TEST(TrustedKeys, ThatNoListCouldMeetAreRefusedByTheSettings) {
  const std::string first = publicKeyLine(vectorKey("first"));
  PublicKey renumbered = vectorKey("first");
  renumbered.number = vectorKey("second").number;
  const std::string twin = publicKeyLine(renumbered);
  struct Row {
    std::vector<std::string> keys;
    std::uint32_t needed;
    std::string customer;
    std::string complaint;
  };
  const std::vector<Row> rows = {
      {{first}, 1, "acme", ""},
      {{}, 1, "acme", ""},
      {{first}, 1, "", ""},
      {{first, "RWabc"}, 1, "acme", "AgentSettings::trustedKeys has one that is none: "},
      {{first},
       0,
       "acme",
       "AgentSettings::signaturesNeeded is not a number from 1 to that of the "},
      {{}, 0, "acme", "AgentSettings::signaturesNeeded is not a number from 1 to that of the "},
      {{}, 2, "acme", "AgentSettings::signaturesNeeded is not a number from 1 to that of the "},
      {{first, first}, 2, "acme", "AgentSettings::signaturesNeeded is not a number from 1 to that"},
      {{first, twin},
       1,
       "acme",
       "AgentSettings::trustedKeys has one twice: the keys 808CC446AE5308A3 and C3CC33B19BA09674 "
       "are "
       "one key under two numbers"},
      {{first}, 1, "a\tb", "AgentSettings::customerID is none that a signature can name"},
  };
  for (const Row& row : rows) {
    AgentUtils::AgentSettings settings;
    settings.basePath = "/base";
    settings.customerID = row.customer;
    settings.trustedKeys = row.keys;
    settings.signaturesNeeded = row.needed;
    std::string complaint;
    try {
      AgentUtils::configure(settings);
    } catch (const std::invalid_argument& error) {
      complaint = error.what();
    }
    EXPECT_EQ(complaint.substr(0, row.complaint.size()), row.complaint) << complaint;
    EXPECT_EQ(complaint.empty(), row.complaint.empty()) << complaint;
  }
}

}  // namespace
