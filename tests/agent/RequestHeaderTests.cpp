// What a host adds to the requests to its server, and who gets it.

#include <gtest/gtest.h>
#include <unistd.h>

#include "RequestHeaders.h"
#include "support/DownloadFixture.h"
#include "support/HttpServer.h"

namespace {

using AgentUtils::complaintAboutRequestHeader;
using namespace std::string_literals;

class RequestHeaders : public DownloadFixture {
 protected:
  void SetUp() override { useServer(server.url()); }

  /// The lines of the request `index` that begin with `name`.
  static std::string linesOf(const HttpServer& asked, std::size_t index, const std::string& name) {
    const std::string head = "\r\n" + asked.requests().at(index) + "\r\n";
    std::string lines;
    for (std::size_t at = head.find("\r\n" + name); at != head.npos;
         at = head.find("\r\n" + name, at + 2)) {
      lines += head.substr(at + 2, head.find("\r\n", at + 2) - at - 2) + '\n';
    }
    return lines;
  }

  HttpServer server;
};

TEST_F(RequestHeaders, NameTheLibraryUnlessTheHostSaysOtherwise) {
  server.answer("/a", httpAnswer("200 OK", "abc"));
  EXPECT_TRUE(download("a", base / "target"));
  EXPECT_TRUE(linesOf(server, 0, "User-Agent:").starts_with("User-Agent: VarnScriptRepository/0."))
      << linesOf(server, 0, "User-Agent:");
  settings.userAgent = "agent/7 (host)";
  useServer(server.url());
  EXPECT_TRUE(download("a", base / "target"));
  EXPECT_EQ(linesOf(server, 1, "User-Agent:"), "User-Agent: agent/7 (host)\n");
}

TEST_F(RequestHeaders, AreThoseOfTheHostBesideTheOwn) {
  settings.requestHeaders = {"X-Token: secret one", "Authorization: Bearer secret"};
  useServer(server.url());
  server.answer("/a", httpAnswer("200 OK", "abc", "ETag: \"v1\"\r\n"), HttpServer::Then::keep);
  EXPECT_TRUE(download("a", base / "target"));
  EXPECT_TRUE(download("a", base / "target"));
  for (const std::size_t request : {0u, 1u}) {
    EXPECT_EQ(linesOf(server, request, "X-Token:"), "X-Token: secret one\n");
    EXPECT_EQ(linesOf(server, request, "Authorization:"), "Authorization: Bearer secret\n");
    EXPECT_EQ(linesOf(server, request, "Accept-Encoding:"), "Accept-Encoding: gzip\n");
  }
  EXPECT_EQ(log.lines(), std::vector<std::string>{});
}

TEST_F(RequestHeaders, AreForTheConfiguredServerAlone) {
  writeFile(base / "netrc", "machine 127.0.0.1 login user password secret\n");
  settings.netrcFile = base / "netrc";
  settings.requestHeaders = {"X-Token: secret"};
  useServer(server.url());
  HttpServer other;
  other.answer("/b", httpAnswer("302 Found", "", "Location: " + server.url() + "/c\r\n"));
  server.answer("/a", httpAnswer("302 Found", "", "Location: " + other.url() + "/b\r\n"));
  server.answer("/c", httpAnswer("200 OK", "abc"));
  EXPECT_TRUE(download("a", base / "target"));
  ASSERT_EQ(server.requests().size(), 2u);
  for (const std::size_t request : {0u, 1u}) {
    EXPECT_EQ(linesOf(server, request, "X-Token:"), "X-Token: secret\n");
    EXPECT_EQ(linesOf(server, request, "Authorization:"),
              "Authorization: Basic dXNlcjpzZWNyZXQ=\n");
  }
  ASSERT_EQ(other.requests().size(), 1u);
  EXPECT_EQ(other.requests().front().find("secret"), std::string::npos);
  EXPECT_EQ(linesOf(other, 0, "Authorization:"), "");
}

TEST_F(RequestHeaders, AreNotForAProxyThatPassesTheConnectionOn) {
  writeFile(base / "netrc", "machine host.invalid login user password secret\n");
  ::unsetenv("no_proxy");
  settings.proxy = server.url();
  settings.netrcFile = base / "netrc";
  settings.requestHeaders = {"X-Token: secret"};
  settings.serverURL = "https://host.invalid";
  AgentUtils::configure(settings);
  server.answer("host.invalid:443", httpAnswer("403 Forbidden", ""));
  EXPECT_FALSE(download("a", base / "target"));
  ASSERT_EQ(server.requests().size(), 1u);
  EXPECT_EQ(server.requests().front().find("secret"), std::string::npos);
  EXPECT_EQ(linesOf(server, 0, "Authorization:"), "");
}

TEST_F(RequestHeaders, HaveNoLoginForAnotherHostThanTheFileNames) {
  writeFile(base / "netrc", "machine other.example login user password secret\n");
  settings.netrcFile = base / "netrc";
  useServer(server.url());
  server.answer("/a", httpAnswer("200 OK", "abc"));
  EXPECT_TRUE(download("a", base / "target"));
  EXPECT_EQ(linesOf(server, 0, "Authorization:"), "");
}

TEST_F(RequestHeaders, AreNotLookedForInTheHomeDirectory) {
  writeFile(base / ".netrc", "machine 127.0.0.1 login user password secret\n");
  ::setenv("HOME", base.path().c_str(), 1);
  server.answer("/a", httpAnswer("200 OK", "abc"));
  EXPECT_TRUE(download("a", base / "target"));
  EXPECT_EQ(linesOf(server, 0, "Authorization:"), "");
}

TEST_F(RequestHeaders, ThatCanNotBeSentFailBeforeTheServerIsAsked) {
  const std::string headers[] = {"X-Token: secret\r\nX-Other: 1", "Range: bytes=0-secret",
                                 "secret"};
  for (const std::string& header : headers) {
    settings.requestHeaders = {header};
    useServer(server.url());
    expectFailureWith("a", "a header can't be sent: ");
    EXPECT_EQ(log.lines().back().find("secret"), std::string::npos) << log.lines().back();
  }
  settings.requestHeaders = {};
  settings.userAgent = "agent\r\nX-Other: 1";
  useServer(server.url());
  expectFailureWith("a", "a header can't be sent: its value has a control character in it");
  EXPECT_EQ(server.connections(), 0);
}

TEST(ComplaintAboutRequestHeader, IsNoneForHeadersOfTheUsualForms) {
  for (const char* const header :
       {"X-Token: abc", "Authorization:Bearer a.b-c~d+e/f==", "Cookie: a=1; b=2",
        "X-Name: M\xC3\xBCller\tx", "!#$%&'*+-.^_`|~09azAZ: x", "User-Agent: other",
        "Rangefinder: x", "X-If-Match: x", "X: a:b"}) {
    EXPECT_EQ(complaintAboutRequestHeader(header), std::nullopt) << header;
  }
}

TEST(ComplaintAboutRequestHeader, NamesWhatIsWrongAndNoValue) {
  const std::string form = "it is no header, which is a name, a colon and a value";
  const std::string control = "its value has a control character in it";
  const std::string empty = "its value is empty";
  const struct {
    std::string header;
    std::string complaint;
  } rows[] = {
      {"secret", form},
      {"", form},
      {": secret", form},
      {" X-Token: secret", form},
      {"X-Token : secret", form},
      {"X Token: secret", form},
      {"X-T\xC3\xB6ken: secret", form},
      {"X-Token\0: secret"s, form},
      {"X-Token: secret\r", control},
      {"X-Token: secret\nX-Other: 1", control},
      {"X-Token: sec\0ret"s, control},
      {"X-Token: \x7Fsecret", control},
      {"X-Token:", empty},
      {"X-Token: \t ", empty},
  };
  for (const auto& [header, complaint] : rows) {
    EXPECT_EQ(complaintAboutRequestHeader(header), complaint) << header;
  }
}

TEST(ComplaintAboutRequestHeader, IsOneForWhatTheDownloaderSaysItself) {
  for (const std::string name :
       {"Host", "HOST", "content-length", "Content-Encoding", "Transfer-Encoding", "Range",
        "If-None-Match", "If-Modified-Since", "if-range", "Accept-Encoding", "Connection",
        "Keep-Alive", "Expect", "TE", "Trailer", "Upgrade", "HTTP2-Settings", "Proxy-Authorization",
        "Proxy-Connection"}) {
    EXPECT_EQ(complaintAboutRequestHeader(name + ": secret"),
              "the header " + name + " is the downloader's own");
  }
}

}  // namespace
