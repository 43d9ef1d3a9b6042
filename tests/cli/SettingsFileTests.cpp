// What a settings file may hold, and what is said about one that is wrong.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <csignal>
#include <fstream>
#include <string>
#include <system_error>
#include <thread>
#include <variant>

#include "Calls.h"
#include "SettingsFile.h"
#include "support/TemporaryDirectory.h"

namespace VarnScripts {
namespace {

using posix::FileDescriptor;

SettingTexts textsFrom(const std::string& toml) {
  auto result = parseSettingsFile(toml, "/etc/varn.toml");
  if (const auto* error = std::get_if<SettingsError>(&result)) {
    ADD_FAILURE() << error->line;
    return {};
  }
  return std::get<SettingTexts>(result);
}

std::string errorFrom(const std::variant<SettingTexts, SettingsError>& result) {
  const auto* error = std::get_if<SettingsError>(&result);
  return error == nullptr ? "no error" : error->line;
}

std::string errorIn(const std::string& toml) {
  return errorFrom(parseSettingsFile(toml, "/etc/varn.toml"));
}

class ReadSettingsFile : public testing::Test {
 protected:
  std::string write(const std::string& text) const {
    const std::string path = directory_ + "/varn.toml";
    std::ofstream(path, std::ios::binary) << text;
    return path;
  }
  const TemporaryDirectory temporary_;
  const std::string& directory_ = temporary_.path();
};

TEST(ParseSettingsFile, EveryKeyIsTakenInItsOwnType) {
  const SettingTexts expected = {{"base_path", "/opt/agent"},
                                 {"data_path", "/var/agent"},
                                 {"customer", "7"},
                                 {"server", "https://host"},
                                 {"ca_file", "ca.pem"},
                                 {"client_cert", "cert.pem"},
                                 {"client_key", "key.pem"},
                                 {"proxy", "http://proxy"},
                                 {"trusted_keys", "RWa\n/b.pub"},
                                 {"signatures_needed", "2"},
                                 {"header_file", "headers"},
                                 {"netrc_file", "netrc"},
                                 {"retry", "0"},
                                 {"max_download", "1000"},
                                 {"max_output", "2000"},
                                 {"log_format", "json"},
                                 {"log_file", "/var/log"},
                                 {"quiet", "true"}};
  EXPECT_EQ(textsFrom("base_path = \"/opt/agent\"\n"
                      "data_path = '/var/agent'\n"
                      "customer = \"7\"\n"
                      "server = \"https://host\"\n"
                      "ca_file = \"ca.pem\"\n"
                      "client_cert = \"cert.pem\"\n"
                      "client_key = \"key.pem\"\n"
                      "proxy = \"http://proxy\"\n"
                      "trusted_keys = [\"RWa\", '/b.pub']\n"
                      "signatures_needed = 2\n"
                      "header_file = \"headers\"\n"
                      "netrc_file = \"netrc\"\n"
                      "retry = 0\n"
                      "max_download = 1_000\n"
                      "max_output = 2_000\n"
                      "log_format = \"json\"\n"
                      "log_file = \"/var/log\"\n"
                      "quiet = true\n"),
            expected);
}

TEST(ParseSettingsFile, AnEmptyFileGivesNothing) {
  EXPECT_EQ(textsFrom(""), SettingTexts{});
  EXPECT_EQ(textsFrom("# nothing yet\n"), SettingTexts{});
}

TEST(ParseSettingsFile, AWrongKeyOrTypeIsNamedWithItsLine) {
  const struct {
    const char* toml;
    const char* line;
  } rows[] = {
      {"customer = \"7\"\nserver_url = \"x\"\n",
       "settings file /etc/varn.toml, line 2: unknown setting server_url"},
      {"config = \"x\"\n", "settings file /etc/varn.toml, line 1: unknown setting config"},
      {"\n[tls]\nca_file = \"x\"\n", "settings file /etc/varn.toml, line 2: unknown setting tls"},
      {"customer = 7\n",
       "settings file /etc/varn.toml, line 1: customer must be a text in quotation marks"},
      {"server = [\"https://host\"]\n",
       "settings file /etc/varn.toml, line 1: server must be a text in quotation marks"},
      {"trusted_keys = \"RWa\"\n",
       "settings file /etc/varn.toml, line 1: trusted_keys must be a list of texts in quotation "
       "marks, with at least one in it"},
      {"trusted_keys = []\n",
       "settings file /etc/varn.toml, line 1: trusted_keys must be a list of texts in quotation "
       "marks, with at least one in it"},
      {"trusted_keys = [\"RWa\", \"\"]\n",
       "settings file /etc/varn.toml, line 1: trusted_keys must be a list of texts in quotation "
       "marks, with at least one in it"},
      {"trusted_keys = [1]\n",
       "settings file /etc/varn.toml, line 1: trusted_keys must be a list of texts in quotation "
       "marks, with at least one in it"},
      {"trusted_keys = [\"RWa\\nRWb\"]\n",
       "settings file /etc/varn.toml, line 1: trusted_keys must be a list of texts in quotation "
       "marks, with at least one in it"},
      {"\n\nquiet = \"true\"\n",
       "settings file /etc/varn.toml, line 3: quiet must be true or false"},
      {"max_download = 1.5\n",
       "settings file /etc/varn.toml, line 1: max_download must be a whole number"},
      {"retry = \"2\"\n", "settings file /etc/varn.toml, line 1: retry must be a whole number"},
  };
  for (const auto& row : rows) EXPECT_EQ(errorIn(row.toml), row.line) << row.toml;
}

TEST(ParseSettingsFile, AMistakeInTheTextIsNamedWithItsLine) {
  const struct {
    const char* toml;
    const char* beginning;
  } rows[] = {
      {"customer = \"7\"\nserver = \n", "settings file /etc/varn.toml, line 2: "},
      {"customer = \"7\"\ncustomer = \"8\"\n", "settings file /etc/varn.toml, line 2: "},
      {"customer = \"7\n", "settings file /etc/varn.toml, line 1: "},
      {"customer\n", "settings file /etc/varn.toml, line 1: "},
      {"customer = \"\xff\"\n", "settings file /etc/varn.toml, line 1: "},
  };
  for (const auto& row : rows) {
    const std::string line = errorIn(row.toml);
    EXPECT_TRUE(line.starts_with(row.beginning)) << line;
    EXPECT_GT(line.size(), std::string(row.beginning).size()) << line;
    EXPECT_EQ(line.find('\n'), std::string::npos) << line;
  }
}

// The parser's words for a bare value that runs over the end of its line held the line break
// itself.
TEST(ParseSettingsFile, AMessageIsOneLineWhateverTheFileHolds) {
  for (const std::string toml : {"quiet = tr\ns\n", "\"a\\nb\" = 1\n", "customer = \"7\n"}) {
    SCOPED_TRACE(toml);
    const std::string error = errorIn(toml);
    EXPECT_EQ(error.find_first_of("\n\r"), std::string::npos) << error;
    EXPECT_TRUE(error.starts_with("settings file /etc/varn.toml, line 1: ")) << error;
  }
}

std::string repeated(const std::string& text, int times) {
  std::string all;
  for (int i = 0; i < times; ++i) all += text;
  return all;
}

// Each part of a dotted key is a table in a table, and the parser's took the whole stack.
TEST(ParseSettingsFile, NestingWithoutEndIsRefused) {
  const int depth = 200000;
  const std::string dots = repeated(".a", depth);
  for (const std::string& toml :
       {"a" + dots + " = 1\n", "[a" + dots + "]\n", "[[a" + dots + "]]\n",
        "a = {a" + dots + " = 1}\n", "a = [{a = [1], b" + dots + " = 1}]\n",
        "a" + repeated(" . a", depth) + " = 1\n", "\"a\"" + repeated(".\"a\\\"\"", depth) + " = 1",
        "'a'" + repeated(".'a'", depth) + " = 1\n", "\"\"" + dots + " = 1\n", "''" + dots + " = ''",
        "a" + dots}) {
    EXPECT_EQ(errorIn("# \"\n" + toml),
              "settings file /etc/varn.toml, line 2: a key has more than 16 parts")
        << toml.substr(0, 20);
  }
  // The line is counted through texts of several lines, and these end where the parser ends them.
  EXPECT_EQ(errorIn("a = \"\"\"\\\"\"\"\n\"\"\"\"\"\nb = '''\n'''''\nc" + dots + "=1"),
            "settings file /etc/varn.toml, line 5: a key has more than 16 parts");
  for (const std::string& nested :
       {repeated("[", depth), "a = " + repeated("[", depth), "a = " + repeated("{a = ", depth),
        "a = " + repeated("[{a.a.a.a = ", depth)}) {
    EXPECT_TRUE(errorIn(nested).starts_with("settings file /etc/varn.toml, line 1: "))
        << nested.substr(0, 20);
  }
}

TEST(ParseSettingsFile, DotsThatPartNoKeyAreTaken) {
  const std::string dots = repeated(".a", 200000);
  for (const std::string& toml :
       {"customer = \"7\" # " + dots + "\n", "# \"" + dots + "\ncustomer = \"7\"\n",
        "# '''" + dots + "\ncustomer = '7'#" + dots}) {
    EXPECT_EQ(textsFrom(toml), (SettingTexts{{"customer", "7"}})) << toml.substr(0, 40);
  }
  for (const std::string& toml :
       {"customer = \"" + dots + "\"\n", "customer = '" + dots + "'\n",
        "customer = \"\"\"\n" + dots + "\"\"\"\n", "customer = '''\n" + dots + "'''\n"}) {
    EXPECT_EQ(textsFrom(toml), (SettingTexts{{"customer", dots}})) << toml.substr(0, 40);
  }
  for (const std::string& toml : {"customer = \"\"\"\\\"\"\"\n" + dots + "\"\"\"\"\"\n",
                                  "customer = '''\"''\n" + dots + "'''''\n"}) {
    EXPECT_EQ(errorIn(toml), "no error") << toml.substr(0, 40);
  }
  EXPECT_EQ(errorIn("a.a.a.a.a.a.a.a.a.a.a.a.a.a.a.a = 1\n"),
            "settings file /etc/varn.toml, line 1: unknown setting a");
}

TEST_F(ReadSettingsFile, AFileIsReadFromDisk) {
  const auto result = readSettingsFile(write("customer = \"7\"\n"));
  EXPECT_EQ(std::get<SettingTexts>(result), (SettingTexts{{"customer", "7"}}));
}

TEST_F(ReadSettingsFile, AMissingFileIsNamedWithTheReason) {
  const std::string path = directory_ + "/varn.toml";
  EXPECT_EQ(errorFrom(readSettingsFile(path)),
            "settings file " + path +
                " (given by --config or VARN_CONFIG) can't be read: No such file or directory");
}

TEST_F(ReadSettingsFile, ADirectoryIsNamedWithTheReason) {
  EXPECT_EQ(errorFrom(readSettingsFile(directory_)),
            "settings file " + directory_ +
                " (given by --config or VARN_CONFIG) can't be read: it is not a regular file");
}

TEST_F(ReadSettingsFile, AFifoIsNotWaitedFor) {
  const std::string path = directory_ + "/varn.toml";
  ASSERT_EQ(::mkfifo(path.c_str(), S_IRWXU), 0);
  EXPECT_EQ(errorFrom(readSettingsFile(path)),
            "settings file " + path +
                " (given by --config or VARN_CONFIG) can't be read: it is not a regular file");
}

TEST_F(ReadSettingsFile, AFileAboveOneMebibyteIsRefused) {
  const std::string path = write("#" + std::string(1048575, 'x'));
  EXPECT_EQ(std::get<SettingTexts>(readSettingsFile(path)), SettingTexts{});
  write("#" + std::string(1048576, 'x'));
  EXPECT_EQ(errorFrom(readSettingsFile(path)),
            "settings file " + path +
                " (given by --config or VARN_CONFIG) can't be read: it is larger than 1 MiB");
}

class ReadStandardInput : public testing::Test {
 protected:
  void SetUp() override {
    int ends[2];
    ASSERT_EQ(::pipe(ends), 0);
    input_ = FileDescriptor(ends[0]);
    writer_ = FileDescriptor(ends[1]);
  }

  // Writes all of it and closes the pipe, beside whoever reads.
  std::thread write(const std::string& text) {
    return std::thread([this, text] {
      std::error_code ignored;
      posix::writeAll(writer_.get(), text, ignored);
      writer_.reset();
    });
  }

  std::variant<SettingTexts, SettingsError> readAll(const std::string& text) {
    std::thread writing = write(text);
    auto result = readSettingsFile("-", input_);
    input_.reset();
    writing.join();
    return result;
  }

  FileDescriptor input_;
  FileDescriptor writer_;
};

TEST_F(ReadStandardInput, TakesWhatComesUntilItsEnd) {
  EXPECT_EQ(std::get<SettingTexts>(readAll("customer = \"7\"\n#" + std::string(200000, 'x'))),
            (SettingTexts{{"customer", "7"}}));
}

TEST_F(ReadStandardInput, WaitsWhenSomebodyHasLeftItNonBlocking) {
  ASSERT_EQ(::fcntl(input_.get(), F_SETFL, O_NONBLOCK), 0);
  EXPECT_EQ(std::get<SettingTexts>(readAll("customer = \"7\"\n")),
            (SettingTexts{{"customer", "7"}}));
}

TEST_F(ReadStandardInput, NamesItselfInMistakes) {
  EXPECT_EQ(errorFrom(readAll("\nservers = 1\n")),
            "standard input, line 2: unknown setting servers");
}

TEST_F(ReadStandardInput, EndsAtOneMebibyteWhateverComes) {
  ::signal(SIGPIPE, SIG_IGN);
  EXPECT_EQ(errorFrom(readAll(std::string(4 << 20, '#'))),
            "standard input (given by --config or VARN_CONFIG) can't be read: it is larger than 1 "
            "MiB");
}

TEST_F(ReadStandardInput, IsAMistakeWhenItIsClosed) {
  EXPECT_EQ(errorFrom(readSettingsFile("-", FileDescriptor())),
            "standard input (given by --config or VARN_CONFIG) can't be read: Bad file descriptor");
}

}  // namespace
}  // namespace VarnScripts
