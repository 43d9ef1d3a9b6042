// The rotating log file.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/file.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <filesystem>
#include <functional>
#include <stdexcept>
#include <string>
#include <vector>

#include "LogSettings.h"
#include "support/Files.h"
#include "support/TemporaryDirectory.h"

using AgentLog::LogSettings;

namespace {

class LogFile : public testing::Test {
 protected:
  void open() {
    LogSettings settings;
    settings.file = path;
    settings.quiet = true;
    AgentLog::configure(settings);
  }

  void TearDown() override { AgentLog::configure({}); }

  std::string openError() {
    try {
      open();
      return "(none)";
    } catch (const std::runtime_error& error) {
      return error.what();
    }
  }

  TemporaryDirectory directory;
  const std::string path = directory / "agent.log";
};

/// The file's text without each line's time.
std::string linesWithoutTimes(const std::string& path) {
  const std::string text = readFile(path);
  std::string lines;
  for (std::size_t start = 0; start < text.size();) {
    const std::size_t end = text.find('\n', start) + 1;
    const std::size_t blank = text.find(' ', start) + 1;
    lines += text.substr(blank, end - blank);
    start = end;
  }
  return lines;
}

TEST_F(LogFile, TakesEachRecordAtOnce) {
  open();
  AgentLog::logInfo("one", "Unit", "operation()", 1);
  EXPECT_EQ(linesWithoutTimes(path), "info Unit operation() 1 one\n");
  AgentLog::logError("two", "Unit", "operation()", 2);
  EXPECT_EQ(linesWithoutTimes(path), "info Unit operation() 1 one\nerror Unit operation() 2 two\n");
}

TEST_F(LogFile, WritesNothingToStandardError) {
  LogSettings settings;
  settings.file = path;
  AgentLog::configure(settings);
  testing::internal::CaptureStderr();
  AgentLog::logInfo("one", "Unit", "operation()", 1);
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
}

TEST_F(LogFile, IsAddedTo) {
  writeFile(path, "T info before\n");
  open();
  AgentLog::logInfo("one", "Unit", "operation()", 1);
  EXPECT_EQ(linesWithoutTimes(path), "info before\ninfo Unit operation() 1 one\n");
}

TEST_F(LogFile, IsAddedToBelowALineThatWasBrokenOff) {
  writeFile(path, "T info whole\nT info brok");
  open();
  AgentLog::logInfo("one", "Unit", "operation()", 1);
  EXPECT_EQ(linesWithoutTimes(path), "info whole\ninfo brok\ninfo Unit operation() 1 one\n");
  // Another process was ended in the middle of a line meanwhile.
  writeFile(path, readFile(path) + "T info brok");
  AgentLog::logInfo("two", "Unit", "operation()", 2);
  EXPECT_EQ(linesWithoutTimes(path),
            "info whole\ninfo brok\ninfo Unit operation() 1 one\ninfo brok\n"
            "info Unit operation() 2 two\n");
}

TEST_F(LogFile, IsForTheOwnerAloneWhateverTheUmask) {
  const Umask umask(0);
  open();
  EXPECT_EQ(modeOf(path), 0600u);
}

TEST_F(LogFile, RotatesAtTenMebibytesAndKeepsThreeOlderOnes) {
  const Umask umask(0);
  open();
  const std::string message(1 << 20, 'x');
  for (int line = 0; line < 50; ++line) AgentLog::logInfo(message, "Unit", "operation()", 1);
  EXPECT_EQ(directory.names(),
            (std::vector<std::string>{"agent.1.log", "agent.2.log", "agent.3.log", "agent.log"}));
  for (const std::string& name : directory.names()) {
    EXPECT_LE(std::filesystem::file_size(directory / name), 10u << 20) << name;
    EXPECT_EQ(modeOf(directory / name), 0600u) << name;
  }
}

TEST_F(LogFile, KeepsAnyLineWholeInOneFile) {
  open();
  AgentLog::logInfo("before", "Unit", "operation()", 1);
  AgentLog::logInfo(std::string(6 << 20, '\n'), "Unit", "operation()", 2);
  AgentLog::logInfo("after", "Unit", "operation()", 3);
  EXPECT_EQ(linesWithoutTimes(directory / "agent.2.log"), "info Unit operation() 1 before\n");
  std::string longLine = "info Unit operation() 2 ";
  for (int line = 0; line < 6 << 20; ++line) longLine += "\\n";
  EXPECT_TRUE(linesWithoutTimes(directory / "agent.1.log") == longLine + "\n");
  EXPECT_EQ(linesWithoutTimes(path), "info Unit operation() 3 after\n");
}

TEST_F(LogFile, BeginsAnewWhereItCannotBeMoved) {
  open();
  AgentLog::logInfo(std::string(9 << 20, 'x'), "Unit", "operation()", 1);
  for (const char* older : {"agent.1.log", "agent.2.log", "agent.3.log"}) {
    ASSERT_EQ(::mkdir((directory / older).c_str(), 0700), 0);
    writeFile(directory / (older + std::string("/in-the-way")), "");
  }
  AgentLog::logInfo(std::string(2 << 20, 'y'), "Unit", "operation()", 2);
  EXPECT_TRUE(linesWithoutTimes(path) ==
              "info Unit operation() 2 " + std::string(2 << 20, 'y') + "\n");
}

TEST_F(LogFile, IsNotInheritedByPrograms) {
  open();
  struct stat log {};
  ASSERT_EQ(::stat(path.c_str(), &log), 0);
  int found = 0;
  for (int fd = 0; fd < 256; ++fd) {
    struct stat status {};
    if (::fstat(fd, &status) != 0 || status.st_ino != log.st_ino || status.st_dev != log.st_dev) {
      continue;
    }
    ++found;
    EXPECT_NE(::fcntl(fd, F_GETFD) & FD_CLOEXEC, 0);
  }
  EXPECT_EQ(found, 1);
}

TEST_F(LogFile, ThatCannotBeOpenedIsAnErrorThatNamesIt) {
  const std::string missing = directory / "missing/agent.log";
  LogSettings settings;
  settings.file = missing;
  try {
    AgentLog::configure(settings);
    FAIL() << "no error";
  } catch (const std::runtime_error& error) {
    EXPECT_EQ(error.what(), "can't open the log file " + missing + ": No such file or directory");
  }
  EXPECT_FALSE(std::filesystem::exists(directory / "missing"));
}

TEST_F(LogFile, IsNotWrittenThroughALink) {
  writeFile(directory / "elsewhere", "kept");
  ASSERT_EQ(::symlink("elsewhere", path.c_str()), 0);
  EXPECT_NE(openError(), "(none)");
  EXPECT_EQ(readFile(directory / "elsewhere"), "kept");
}

TEST_F(LogFile, IsNoFIFOAndNoDirectory) {
  ASSERT_EQ(::mkfifo(path.c_str(), 0600), 0);
  EXPECT_NE(openError(), "(none)");
  ASSERT_EQ(::unlink(path.c_str()), 0);
  ASSERT_EQ(::mkdir(path.c_str(), 0700), 0);
  EXPECT_NE(openError(), "(none)");
}

TEST_F(LogFile, WithASecondNameIsNotWritten) {
  writeFile(directory / "elsewhere", "kept");
  ASSERT_EQ(::link((directory / "elsewhere").c_str(), path.c_str()), 0);
  EXPECT_EQ(openError(), "can't open the log file " + path + ": it has a second name");
  EXPECT_EQ(readFile(directory / "elsewhere"), "kept");
}

constexpr uid_t kOther = 4242;

TEST_F(LogFile, OfAnotherUserIsNotWritten) {
  if (::geteuid() != 0) GTEST_SKIP() << "only root can make a file of another user's";
  writeFile(path, "kept");
  ASSERT_EQ(::chmod(path.c_str(), 0666), 0);
  ASSERT_EQ(::chown(path.c_str(), kOther, kOther), 0);
  EXPECT_EQ(openError(), "can't open the log file " + path + ": it belongs to another user");
  EXPECT_EQ(readFile(path), "kept");
  EXPECT_EQ(modeOf(path), 0666u);
}

TEST_F(LogFile, OfAnotherUserIsNotWrittenByAUserEither) {
  if (::geteuid() != 0) GTEST_SKIP() << "only root can become another user";
  ASSERT_EQ(::chmod(directory.path().c_str(), 0777), 0);
  for (const uid_t owner : {kOther + 1, kOther, uid_t{0}}) {
    writeFile(path, "");
    ASSERT_EQ(::chmod(path.c_str(), 0666), 0);
    ASSERT_EQ(::chown(path.c_str(), owner, owner), 0);
    const pid_t child = ::fork();
    if (child == 0) {
      if (setuid(kOther) != 0) ::_exit(100);
      const std::string error = openError();
      AgentLog::logInfo("one", "Unit", "operation()", 1);
      ::_exit(error == "(none)" ? 0 : 1);
    }
    int status = 0;
    ASSERT_EQ(::waitpid(child, &status, 0), child);
    ASSERT_TRUE(WIFEXITED(status));
    // Root's own file would keep a mode that is open to all.
    EXPECT_EQ(WEXITSTATUS(status), owner == kOther ? 0 : 1) << owner;
    EXPECT_EQ(readFile(path).empty(), owner != kOther) << owner;
  }
}

/// What somebody puts in the place of the open log file, and where its bytes are looked at.
class LogFileReplaced : public LogFile {
 protected:
  void writeMebibytes(int count) {
    const std::string message(1 << 20, 'x');
    for (int line = 0; line < count; ++line) AgentLog::logInfo(message, "Unit", "operation()", 1);
  }

  /// Opens the log, lets `replace` take its place, and writes more than a file takes.
  void replaceAndFill(const std::function<void()>& replace) {
    open();
    AgentLog::logInfo("first", "Unit", "operation()", 1);
    ASSERT_EQ(::rename(path.c_str(), (directory / "opened").c_str()), 0);
    replace();
    writeMebibytes(11);
    AgentLog::logInfo("last", "Unit", "operation()", 1);
  }

  void expectNothingLost() {
    EXPECT_TRUE(linesWithoutTimes(directory / "opened").ends_with("1 last\n"));
    EXPECT_EQ(readFile(directory / "elsewhere"), "kept");
    EXPECT_EQ(directory.names(), (std::vector<std::string>{"agent.log", "elsewhere", "opened"}));
  }
};

TEST_F(LogFileReplaced, ByALinkIsNotFollowedAndNotRotated) {
  writeFile(directory / "elsewhere", "kept");
  replaceAndFill([&] { ASSERT_EQ(::symlink("elsewhere", path.c_str()), 0); });
  expectNothingLost();
}

TEST_F(LogFileReplaced, ByASecondNameIsNotWrittenAndNotRotated) {
  writeFile(directory / "elsewhere", "kept");
  replaceAndFill([&] { ASSERT_EQ(::link((directory / "elsewhere").c_str(), path.c_str()), 0); });
  expectNothingLost();
}

TEST_F(LogFileReplaced, ByAnotherUsersFileIsNotWrittenAndNotRotated) {
  if (::geteuid() != 0) GTEST_SKIP() << "only root can make a file of another user's";
  writeFile(directory / "elsewhere", "kept");
  replaceAndFill([&] {
    writeFile(path, "");
    ASSERT_EQ(::chown(path.c_str(), kOther, kOther), 0);
  });
  expectNothingLost();
  EXPECT_EQ(readFile(path), "");
}

TEST_F(LogFileReplaced, ByAnotherProcesssRotationIsWrittenOn) {
  open();
  writeMebibytes(9);
  ASSERT_EQ(::rename(path.c_str(), (directory / "agent.1.log").c_str()), 0);
  writeFile(path, "T other\n");
  writeMebibytes(2);
  EXPECT_EQ(directory.names(), (std::vector<std::string>{"agent.1.log", "agent.log"}));
  EXPECT_TRUE(linesWithoutTimes(path).starts_with("other\ninfo Unit operation() 1 x"));
}

TEST_F(LogFile, ThatCannotBeRotatedBeginsAnew) {
  // A directory stands where the older file would.
  ASSERT_EQ(::mkdir((directory / "agent.1.log").c_str(), 0700), 0);
  open();
  const std::string message(1 << 20, 'x');
  for (int line = 0; line < 15; ++line) AgentLog::logInfo(message, "Unit", "operation()", 1);
  EXPECT_LE(std::filesystem::file_size(path), 10u << 20);
  EXPECT_GT(std::filesystem::file_size(path), 1u << 20);
}

/// A limit of files' sizes, which stands for a full disk, until it is lifted.
class FullDisk {
 public:
  explicit FullDisk(rlim_t size) {
    struct sigaction ignore {};
    ignore.sa_handler = SIG_IGN;
    ::sigaction(SIGXFSZ, &ignore, nullptr);
    EXPECT_EQ(::getrlimit(RLIMIT_FSIZE, &before_), 0);
    const rlimit little{size, before_.rlim_max};
    EXPECT_EQ(::setrlimit(RLIMIT_FSIZE, &little), 0);
  }
  void lift() const { EXPECT_EQ(::setrlimit(RLIMIT_FSIZE, &before_), 0); }

 private:
  rlimit before_{};
};

TEST_F(LogFile, ThatCannotBeWrittenLosesRecordsSilently) {
  open();
  const FullDisk disk(0);
  // On a pipe, to which the limit does not apply.
  int ends[2];
  ASSERT_EQ(::pipe(ends), 0);
  const int standardError = ::dup(STDERR_FILENO);
  ASSERT_EQ(::dup2(ends[1], STDERR_FILENO), STDERR_FILENO);
  EXPECT_NO_THROW(AgentLog::logInfo("lost", "Unit", "operation()", 1));
  EXPECT_NO_THROW(AgentLog::logError("lost", "Unit", "operation()", 2));
  ::dup2(standardError, STDERR_FILENO);
  disk.lift();
  for (const int fd : {standardError, ends[1]}) ::close(fd);
  char byte = 0;
  EXPECT_EQ(::read(ends[0], &byte, 1), 0);
  ::close(ends[0]);
}

TEST_F(LogFile, ThatWasFullKeepsTheNextRecordWhole) {
  open();
  const FullDisk disk(40);
  AgentLog::logInfo("broken", "Unit", "operation()", 1);
  AgentLog::logInfo("lost", "Unit", "operation()", 2);
  disk.lift();
  AgentLog::logInfo("whole", "Unit", "operation()", 3);
  EXPECT_EQ(linesWithoutTimes(path), "info Unit opera\ninfo Unit operation() 3 whole\n");
}

/// `unit` so often that a line of them comes in pieces.
std::string repeated(const std::string& unit) {
  std::string text;
  for (int count = 0; count < 400'000; ++count) text += unit;
  return text;
}

/// Four processes write two long records each at the same time, after each has done `begin`.
void writeLongRecordsAtOnce(const std::function<void()>& begin) {
  int start[2];
  ASSERT_EQ(::pipe(start), 0);
  std::vector<pid_t> children;
  for (const char letter : {'a', 'b', 'c', 'd'}) {
    children.push_back(::fork());
    if (children.back() != 0) continue;
    ::close(start[1]);
    begin();
    char byte = 0;
    // Ends for all when the parent closes its end.
    static_cast<void>(::read(start[0], &byte, 1));
    for (const int line : {1, 2}) {
      // Its escapes take time between two pieces.
      AgentLog::logInfo(repeated(letter + std::string("\n")), "Unit", "operation()", line);
    }
    ::_exit(0);
  }
  for (const int end : start) ::close(end);
  for (const pid_t child : children) {
    int status = -1;
    EXPECT_EQ(::waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0);
  }
}

/// Expects that `text` has these records, in whatever order.
void expectLongRecords(const std::string& text) {
  std::vector<std::string> lines;
  std::vector<std::string> wanted;
  for (std::size_t start = 0; start < text.size();) {
    const std::size_t end = std::min(text.find('\n', start), text.size());
    lines.push_back(text.substr(start, end - start));
    start = end + 1;
  }
  for (const char letter : {'a', 'b', 'c', 'd'}) {
    for (const char* line : {"1 ", "2 "}) {
      wanted.push_back(std::string("info Unit operation() ") + line +
                       repeated(letter + std::string("\\n")));
    }
  }
  std::ranges::sort(lines);
  std::ranges::sort(wanted);
  EXPECT_TRUE(lines == wanted) << lines.size() << " lines";
}

TEST_F(LogFile, KeepsTheLongLinesOfSeveralProcessesWhole) {
  writeLongRecordsAtOnce([this] { open(); });
  expectLongRecords(linesWithoutTimes(path));
}

TEST_F(LogFile, AsStandardErrorKeepsTheLongLinesOfSeveralProcessesWhole) {
  const int before = ::dup(STDERR_FILENO);
  const int file = ::open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0600);
  ASSERT_EQ(::dup2(file, STDERR_FILENO), STDERR_FILENO);
  writeLongRecordsAtOnce([] {});
  ::dup2(before, STDERR_FILENO);
  for (const int fd : {before, file}) ::close(fd);
  expectLongRecords(linesWithoutTimes(path));
}

TEST_F(LogFile, IsWrittenWhileSomebodyDoesNotLetGoOfIt) {
  open();
  const int other = ::open(path.c_str(), O_RDONLY);
  ASSERT_EQ(::flock(other, LOCK_EX), 0);
  AgentLog::logInfo("one", "Unit", "operation()", 1);
  AgentLog::logInfo("two", "Unit", "operation()", 2);
  ::close(other);
  EXPECT_EQ(linesWithoutTimes(path), "info Unit operation() 1 one\ninfo Unit operation() 2 two\n");
}

}  // namespace
