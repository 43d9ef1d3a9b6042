// A downloader with a directory to download to.

#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "AgentSettings.h"
#include "AgentUtils.h"
#include "Files.h"
#include "LogCapture.h"
#include "support/TemporaryDirectory.h"

class DownloadFixture : public testing::Test {
 protected:
  DownloadFixture() {
    // What fails here fails at once; the further tries have tests of their own.
    settings.retries = 0;
  }

  void useServer(const std::string& url) {
    settings.basePath = base.path();
    settings.serverURL = url;
    // The machine's own proxies have no business here.
    settings.proxy = "";
    ::setenv("no_proxy", "*", 1);
    AgentUtils::configure(settings);
  }

  bool download(const std::string& fromURL, const std::string& toPath) {
    return AgentUtils::HttpHandlermac::initWithServerInfo().downloadFileWithRootPermission(fromURL,
                                                                                           toPath);
  }

  /// Downloads to a target that holds "old", expects the failure to leave everything as it was and
  /// to be reported in one line, and gives the cause in that line.
  std::string causeOfFailure(const std::string& fromURL) {
    const std::string target = base / "target";
    writeFile(target, "old");
    const std::size_t before = log.lines().size();
    EXPECT_FALSE(download(fromURL, target)) << fromURL;
    EXPECT_EQ(readFile(target), "old") << fromURL;
    EXPECT_EQ(base.names(), std::vector<std::string>{"target"}) << fromURL;
    const std::vector<std::string> lines = log.lines();
    EXPECT_EQ(lines.size(), before + 1) << fromURL;
    const std::string line = lines.empty() ? "" : lines.back();
    const std::string start = kFailed + fromURL + " failed: ";
    EXPECT_TRUE(line.starts_with(start)) << line;
    return line.substr(std::min(start.size(), line.size()));
  }

  void expectFailure(const std::string& fromURL, const std::string& cause) {
    EXPECT_EQ(causeOfFailure(fromURL), cause) << fromURL;
  }

  /// The cause is another library's wording, so only a part of it is known.
  void expectFailureWith(const std::string& fromURL, const std::string& partOfCause) {
    const std::string cause = causeOfFailure(fromURL);
    EXPECT_NE(cause.find(partOfCause), cause.npos) << cause;
  }

  static inline const std::string kFailed =
      "info HttpHandlermac downloadFileWithRootPermission(fromURL:toPath:): Download of ";

  LogCapture log;
  TemporaryDirectory base;
  AgentUtils::AgentSettings settings;
};
