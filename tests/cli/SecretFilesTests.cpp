// Which files with secrets are taken, and what is said of the others: never what is in them.

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>
#include <string>
#include <vector>

#include "SecretFiles.h"
#include "support/TemporaryDirectory.h"

namespace VarnScripts {
namespace {

class SecretFiles : public testing::Test {
 protected:
  std::string write(const std::string& text, mode_t mode = 0600) const {
    const std::string path = directory_ / "secrets";
    std::ofstream(path, std::ios::binary) << text;
    EXPECT_EQ(::chmod(path.c_str(), mode), 0);
    return path;
  }

  // The error for a file of headers, or nothing; its headers are in `agent_`.
  std::string takeHeaders(const std::string& path) {
    Settings settings;
    settings.headerFile = path;
    agent_ = {};
    const auto error = takeSecretFiles(settings, agent_);
    return error ? error->line : "";
  }

  std::string takeLogin(const std::string& path) {
    agent_ = {};
    agent_.netrcFile = path;
    const auto error = takeSecretFiles({}, agent_);
    return error ? error->line : "";
  }

  const TemporaryDirectory directory_;
  AgentUtils::AgentSettings agent_;
};

using Headers = std::vector<std::string>;

TEST_F(SecretFiles, NoneGivenIsNothing) {
  EXPECT_EQ(takeHeaders(""), "");
  EXPECT_EQ(agent_.requestHeaders, Headers{});
}

TEST_F(SecretFiles, AHeaderIsALine) {
  EXPECT_EQ(takeHeaders(write("# for the gate\nX-Token: a b\n\nAuthorization: Bearer c#d")), "");
  EXPECT_EQ(agent_.requestHeaders, (Headers{"X-Token: a b", "Authorization: Bearer c#d"}));
  EXPECT_EQ(takeHeaders(write("")), "");
  EXPECT_EQ(agent_.requestHeaders, Headers{});
}

TEST_F(SecretFiles, AWrongLineIsNamedByItsNumberAlone) {
  const struct {
    std::string text;
    std::string complaint;
  } rows[] = {
      {"X-Token: ok\n\n# no\nsecret\n",
       "line 4: it is no header, which is a name, a colon and a value"},
      {"X-Token: secret\r\n", "line 1: its value has a control character in it"},
      {std::string("X-Token: sec\0ret\n", 17), "line 1: its value has a control character in it"},
      {"X-Token:\n", "line 1: its value is empty"},
      {" X-Token: secret\n", "line 1: it is no header, which is a name, a colon and a value"},
      {"host: secret\n", "line 1: the header host is the downloader's own"},
      {"\xEF\xBB\xBFX-Token: secret\n",
       "line 1: it is no header, which is a name, a colon and a value"},
  };
  for (const auto& [text, complaint] : rows) {
    const std::string path = write(text);
    EXPECT_EQ(takeHeaders(path),
              "header_file (--header-file, VARN_HEADER_FILE) " + path + ", " + complaint);
  }
}

TEST_F(SecretFiles, AreForNobodyElse) {
  for (const mode_t mode : {0640, 0620, 0604, 0602, 0644, 0660}) {
    const std::string path = write("X-Token: secret\n", mode);
    const std::string why =
        " is refused: other users may read or write it; chmod 600 keeps them out";
    EXPECT_EQ(takeHeaders(path), "header_file (--header-file, VARN_HEADER_FILE) " + path + why);
    EXPECT_EQ(takeLogin(path), "netrc_file (--netrc-file, VARN_NETRC_FILE) " + path + why);
  }
  EXPECT_EQ(takeHeaders(write("X-Token: secret\n", 0400)), "");
  EXPECT_EQ(takeLogin(write("machine h login u password p\n", 0600)), "");
}

TEST_F(SecretFiles, OfAnotherUserAreRefused) {
  if (::geteuid() != 0) GTEST_SKIP() << "only root gives files away";
  const std::string path = write("X-Token: secret\n");
  ASSERT_EQ(::chown(path.c_str(), 4242, 4242), 0);
  EXPECT_EQ(takeHeaders(path), "header_file (--header-file, VARN_HEADER_FILE) " + path +
                                   " is refused: it belongs to user 4242");
  EXPECT_EQ(takeLogin(path), "netrc_file (--netrc-file, VARN_NETRC_FILE) " + path +
                                 " is refused: it belongs to user 4242");
}

TEST_F(SecretFiles, ThatAreNoneOrTooLargeAreNamedWithTheReason) {
  const std::string name = "header_file (--header-file, VARN_HEADER_FILE) ";
  EXPECT_EQ(takeHeaders(directory_ / "missing"),
            name + (directory_ / "missing") + " can't be read: No such file or directory");
  EXPECT_EQ(takeHeaders(directory_.path()),
            name + directory_.path() + " can't be read: it is not a regular file");
  ASSERT_EQ(::mkfifo((directory_ / "fifo").c_str(), 0600), 0);
  EXPECT_EQ(takeLogin(directory_ / "fifo"), "netrc_file (--netrc-file, VARN_NETRC_FILE) " +
                                                (directory_ / "fifo") +
                                                " can't be read: it is not a regular file");
  EXPECT_EQ(takeHeaders(write(std::string(65536, '#'))), "");
  const std::string path = write(std::string(65537, '#'));
  EXPECT_EQ(takeHeaders(path), name + path + " can't be used: it is larger than 64 KiB");
}

}  // namespace
}  // namespace VarnScripts
