// The lines that records become, and standard error as their destination.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <climits>
#include <csignal>
#include <cstdlib>
#include <functional>
#include <stdexcept>
#include <thread>
#include <vector>

#include "JsonText.h"
#include "LogLine.h"
#include "LogSettings.h"
#include "RecordSeverity.h"
#include "support/TemporaryDirectory.h"

using AgentLog::LogSettings;
using AgentLog::Record;

namespace {

using namespace std::string_literals;

Record record(std::string_view message) {
  return {Record::Level::info, message, "ScriptRepositoryProcessor", "processScript()", 123};
}

/// The line that one of the two functions adds.
template <class Add>
std::string lineOf(Add add, const Record& given) {
  std::string line;
  Pieces pieces([&line](std::string_view piece) { line += piece; });
  add("T", given, pieces);
  pieces.end();
  return line;
}
std::string textLine(const Record& given) { return lineOf(AgentLog::addTextLine, given); }
std::string jsonLine(const Record& given) { return lineOf(AgentLog::addJSONLine, given); }

TEST(LogTextLine, HasTimeLevelSourceOperationLineAndMessage) {
  EXPECT_EQ(textLine(record("Processing Script ID 42")),
            "T info ScriptRepositoryProcessor processScript() 123 Processing Script ID 42");
  Record error = record("m");
  error.level = Record::Level::error;
  EXPECT_EQ(textLine(error), "T error ScriptRepositoryProcessor processScript() 123 m");
}

TEST(LogTextLine, IsOneLineWhateverTheMessage) {
  const std::string start = "T info ScriptRepositoryProcessor processScript() 123 ";
  const struct {
    std::string message, shown;
  } rows[] = {
      {"", ""},
      {"a\nb", "a\\nb"},
      {"a\r\nb\n", "a\\r\\nb\\n"},
      {"a\\nb", "a\\nb"},
      {"\xC3\xA9 \"quoted\"", "\xC3\xA9 \"quoted\""},
      {"\x1b]0;title\x07\t\u202e", "?]0;title?\\t?"},
      {"\xFF", "?"},
  };
  for (const auto& row : rows) {
    EXPECT_EQ(textLine(record(row.message)), start + row.shown);
  }
}

TEST(LogJSONLine, HasExactlyItsKeysInTheirOrder) {
  EXPECT_EQ(
      jsonLine(record("Processing Script ID 42")),
      R"json({"time":"T","level":"info","source":"ScriptRepositoryProcessor",)json"
      R"json("operation":"processScript()","line":123,"message":"Processing Script ID 42"})json");
}

TEST(LogJSONLine, KeepsTheExactMessageAndReplacesWhatIsNotUTF8) {
  const auto messageOf = [](const std::string& message) {
    const std::string line = jsonLine(record(message));
    const std::string key = "\"message\":";
    return line.substr(line.find(key) + key.size());
  };
  EXPECT_EQ(messageOf("a\nb\r\"\\"), R"("a\nb\r\"\\"})");
  EXPECT_EQ(messageOf("nul\0!"s), R"("nul\u0000!"})");
  EXPECT_EQ(messageOf("\xC3\xA9"), "\"\xC3\xA9\"}");
  EXPECT_EQ(messageOf("\x1b\x7f\u009b\u202e"), R"("\u001b\u007f\u009b\u202e"})");
  EXPECT_EQ(messageOf("a\xFF"), "\"a\xEF\xBF\xBD\"}");
  EXPECT_EQ(messageOf("a\xC3"), "\"a\xEF\xBF\xBD\"}");
}

TEST(LogLine, OfAnyLengthIsHandedOnInPiecesThatMakeTheWhole) {
  // Every cut of the parts inside a character, and inside of what is none.
  for (const std::string unit : {"a", "\n", "\xC3\xA9", "\xE2\x82\xAC", "\xF0\x9F\x98\x80", "\x80",
                                 "\xE2\x82", "\xF0\x9F\x98", "\xC3", "\xF0\x80\x80\x80\x80"}) {
    for (std::size_t offset = 0; offset < 4; ++offset) {
      std::string message(offset, 'x');
      while (message.size() < 150'000) message += unit;
      EXPECT_TRUE(jsonLine(record(message))
                      .ends_with(",\"message\":" + jsonText(message, NotUTF8::replaced) + "}"))
          << unit << " at " << offset;
    }
  }
  std::vector<std::size_t> sizes;
  Pieces pieces([&sizes](std::string_view piece) { sizes.push_back(piece.size()); });
  AgentLog::addTextLine("T", record(std::string(3'000'000, 'x')), pieces);
  pieces.end();
  EXPECT_EQ(sizes, (std::vector<std::size_t>{53, 3'000'000}));
}

/// What `work` writes to standard error.
std::string standardErrorOf(const std::function<void()>& work) {
  testing::internal::CaptureStderr();
  work();
  return testing::internal::GetCapturedStderr();
}

/// The line without its time.
std::string withoutTime(const std::string& line) { return line.substr(line.find(' ') + 1); }

TEST(Log, GoesToStandardErrorAsTextUntilConfigured) {
  const std::string written =
      standardErrorOf([] { AgentLog::logInfo("hello\nworld", "Unit", "operation(with:)", 7); });
  EXPECT_EQ(withoutTime(written), "info Unit operation(with:) 7 hello\\nworld\n");
  EXPECT_EQ(written.find(' '), std::string("2026-11-21T06:30:16.123Z").size());
}

TEST(Log, WritesErrorsAtTheirLevel) {
  const std::string written =
      standardErrorOf([] { AgentLog::logError("broken", "Unit", "operation()", 8); });
  EXPECT_EQ(withoutTime(written), "error Unit operation() 8 broken\n");
}

TEST(Log, WritesOneJSONObjectForEachRecord) {
  LogSettings settings;
  settings.format = LogSettings::Format::json;
  AgentLog::configure(settings);
  const std::string written = standardErrorOf([] {
    AgentLog::logInfo("a\nb", "Unit", "operation()", 1);
    AgentLog::logError("c", "Unit", "operation()", 2);
  });
  const std::size_t end = written.find('\n');
  const std::string first = written.substr(0, end);
  EXPECT_TRUE(first.starts_with("{\"time\":\"2")) << first;
  EXPECT_TRUE(first.ends_with(R"json("level":"info","source":"Unit","operation":"operation()",)json"
                              R"json("line":1,"message":"a\nb"})json"))
      << first;
  EXPECT_TRUE(written.ends_with(R"("line":2,"message":"c"})"
                                "\n"))
      << written;
}

TEST(Log, QuietWritesNothingButTellsTheObserver) {
  std::vector<std::string> seen;
  LogSettings settings;
  settings.quiet = true;
  settings.observer = [&seen](const Record& given) {
    seen.push_back(std::string(given.source) + '|' + std::string(given.operation) + '|' +
                   std::to_string(given.line) + '|' + std::string(given.message) +
                   (given.level == Record::Level::error ? "|error" : "|info"));
  };
  AgentLog::configure(settings);
  const std::string written = standardErrorOf([] {
    AgentLog::logInfo("a\nb", "Unit", "operation()", 1);
    AgentLog::logError("c", "Unit", "operation()", 2);
  });
  EXPECT_EQ(written, "");
  EXPECT_EQ(seen, (std::vector<std::string>{"Unit|operation()|1|a\nb|info",
                                            "Unit|operation()|2|c|error"}));
}

TEST(SeverityOf, IsAWarningForEachFailureOfTheLibrary) {
  using AgentLog::Severity;
  const auto severityOf = [](std::string_view source, std::string_view message) {
    return AgentLog::severityOf({Record::Level::info, message, source, "operation()", 1});
  };
  const auto of = [&](std::string_view message) {
    return severityOf("ScriptRepositoryProcessor", message);
  };
  for (const std::string_view failure :
       {"Processing Script ID 4 not able to get server script repo meta to procees",
        "Processing Script ID 4 Server Version 1 Local Version -- status (nil, nil)",
        "Not able to get download URL of script data",
        "Download failure of script data",
        "Unable to get script items data",
        "Unable to get file data from script items data",
        "Download failure of script",
        "Not able to compute checksum processing",
        "Not able get script repo data",
        "Unable to get script data",
        "Not able to get script data",
        "Error while reading file /f No such file or directory",
        "Unable to get checksum ID",
        "Checksum mismatch ID 1 Server Checksum 2 Server Checksum Type md5",
        "Unable to get launch path for a",
        "Script Output: No Output Exit Code: nil",
        "Script Return Code did not match expected exit code: [\"0\"]",
        "Script Return Code did not match expected overriden exit code: [\"0\"]",
        "Removing File Error Permission denied",
        "Removing Local Scripts, Script Repo Meta Data Not available, will be processed later",
        "Error while getting data Permission denied",
        "Script-Meta Download Failed",
        "shell: Killing process due to 600s time-out",
        "Launch failed: No such file or directory",
        "Launch path not available: /bin/none"}) {
    EXPECT_EQ(of(failure), Severity::warning) << failure;
  }
  for (const std::string_view plain :
       {"Processing Script ID 4 Server Version 1 Local Version -- Downloading and Executing Script",
        "Processing Script ID 4 Server Version 1 Local Version 1 status (Optional(false), "
        "Optional(\"Unable to get file data\"))",
        "Script Output: No Output Exit Code: nil\n Exit Code: 0",
        "Script Output: Launch failed:  Exit Code: 0", "Script-Meta Download Success",
        "availableOutput", "Removing File /f", "No Scripts to remove from Script Repo", ""}) {
    EXPECT_EQ(of(plain), Severity::info) << plain;
  }
  // What the modules and the command say, and what the library calls an error.
  EXPECT_EQ(severityOf("HttpHandlermac", "Download of /a failed: refused"), Severity::warning);
  EXPECT_EQ(AgentLog::severityOf({Record::Level::error, "No ScriptIDs found in the storage.",
                                  "ScriptRepositoryLocalMeta", "getAllScriptIDs()", 1}),
            Severity::error);
}

TEST(Log, LeavesOutWhatMattersLessAndTellsTheObserver) {
  int seen = 0;
  LogSettings settings;
  settings.least = AgentLog::Severity::warning;
  settings.observer = [&seen](const Record&) { ++seen; };
  AgentLog::configure(settings);
  const std::string written = standardErrorOf([] {
    AgentLog::logInfo("availableOutput", "ScriptRepositoryUtil", "operation()", 1);
    AgentLog::logInfo("Launch failed: no", "ScriptRepositoryUtil", "operation()", 2);
    AgentLog::logError("c", "ScriptRepositoryLocalMeta", "operation()", 3);
  });
  // The level in a line is the library's own.
  const std::size_t end = written.find('\n');
  EXPECT_EQ(withoutTime(written.substr(0, end)),
            "info ScriptRepositoryUtil operation() 2 Launch failed: no");
  EXPECT_EQ(withoutTime(written.substr(end + 1)),
            "error ScriptRepositoryLocalMeta operation() 3 c\n");
  EXPECT_EQ(seen, 3);
}

TEST(Log, GoesToStandardErrorBesidesAFileOnlyWhereThatIsSaid) {
  using StandardError = LogSettings::StandardError;
  const TemporaryDirectory directory;
  const struct {
    std::string file;
    StandardError standardError;
    bool quiet, isWritten;
  } rows[] = {
      {"", StandardError::otherwise, false, true},
      {directory / "log", StandardError::otherwise, false, false},
      {directory / "log", StandardError::always, false, true},
      {directory / "log", StandardError::always, true, false},
      {"", StandardError::never, false, false},
      {"", StandardError::always, true, false},
  };
  for (const auto& row : rows) {
    LogSettings settings;
    settings.file = row.file;
    settings.standardError = row.standardError;
    settings.quiet = row.quiet;
    AgentLog::configure(settings);
    const std::string written =
        standardErrorOf([] { AgentLog::logInfo("m", "Unit", "operation()", 1); });
    EXPECT_EQ(!written.empty(), row.isWritten) << &row - rows;
    EXPECT_EQ(settings.writesToStandardError(), row.isWritten) << &row - rows;
  }
}

TEST(Log, CutsMessagesThatAreLongerThanTheSettingsAllow) {
  std::vector<std::string> seen;
  LogSettings settings;
  settings.maxMessage = 1000;
  settings.observer = [&seen](const Record& given) { seen.emplace_back(given.message); };
  AgentLog::configure(settings);
  const std::string whole = "Script Output: " + std::string(1273, 'x');
  const std::string euros = [] {
    std::string text;
    while (text.size() < 3000) text += "\u20ac";
    return text;
  }();
  const std::string written = standardErrorOf([&] {
    AgentLog::logInfo(whole, "Unit", "operation()", 1);
    AgentLog::logInfo(whole + "x Exit Code: 0", "Unit", "operation()", 2);
    AgentLog::logInfo("x" + euros + "z Exit Code: 0", "Unit", "operation()", 3);
  });
  ASSERT_EQ(seen.size(), 3U);
  EXPECT_EQ(seen[0], whole);
  EXPECT_EQ(seen[1], whole.substr(0, 1256) + " [14 bytes left out] " + std::string(19, 'x') +
                         " Exit Code: 0");
  // Not inside of a character.
  EXPECT_EQ(seen[2], "x" + euros.substr(0, 1254) + " [1728 bytes left out] " + euros.substr(0, 18) +
                         "z Exit Code: 0");
  for (const std::string& message : seen) EXPECT_NE(written.find(message), written.npos);
}

TEST(Log, SurvivesAnObserverThatThrows) {
  LogSettings settings;
  settings.quiet = true;
  settings.observer = [](const Record&) { throw std::runtime_error("no"); };
  AgentLog::configure(settings);
  EXPECT_NO_THROW(AgentLog::logInfo("a", "Unit", "operation()", 1));
}

TEST(Log, DoesNotTakeTextForAFormat) {
  const std::string written =
      standardErrorOf([] { AgentLog::logInfo("{} %s {0} {", "Unit", "operation()", 7); });
  EXPECT_EQ(withoutTime(written), "info Unit operation() 7 {} %s {0} {\n");
}

TEST(Log, KeepsTheLinesOfManyThreadsWhole) {
  const std::string written = standardErrorOf([] {
    std::vector<std::thread> threads;
    for (int thread = 0; thread < 4; ++thread) {
      threads.emplace_back([] {
        for (int line = 0; line < 50; ++line) {
          AgentLog::logInfo(std::string(300, 'x'), "Unit", "operation()", 1);
        }
      });
    }
    for (std::thread& thread : threads) thread.join();
  });
  std::size_t lines = 0;
  for (std::size_t start = 0; start < written.size(); ++lines) {
    const std::size_t end = written.find('\n', start);
    ASSERT_EQ(withoutTime(written.substr(start, end - start)),
              "info Unit operation() 1 " + std::string(300, 'x'));
    start = end + 1;
  }
  EXPECT_EQ(lines, 200u);
}

/// The exit status of a child that runs `work` with standard error on a pipe that nobody reads; the
/// negative signal when one ended it.
int statusWithClosedStandardError(const std::function<int()>& work) {
  const pid_t child = ::fork();
  if (child == 0) {
    int ends[2];
    if (::pipe(ends) != 0) ::_exit(99);
    ::close(ends[0]);
    ::dup2(ends[1], STDERR_FILENO);
    ::_exit(work());
  }
  int status = 0;
  ::waitpid(child, &status, 0);
  return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
}

TEST(Log, AClosedStandardErrorNeitherThrowsNorEndsTheProcess) {
  EXPECT_EQ(statusWithClosedStandardError([] {
              AgentLog::logInfo("a", "Unit", "operation()", 1);
              AgentLog::logError("b", "Unit", "operation()", 2);
              return 17;
            }),
            17);
}

TEST(Log, AClosedStandardErrorLeavesNoSignalAndNoMaskBehind) {
  EXPECT_EQ(statusWithClosedStandardError([] {
              AgentLog::logInfo("a", "Unit", "operation()", 1);
              sigset_t pending;
              ::sigpending(&pending);
              sigset_t mask;
              ::pthread_sigmask(SIG_BLOCK, nullptr, &mask);
              return 10 + sigismember(&pending, SIGPIPE) + 2 * sigismember(&mask, SIGPIPE);
            }),
            10);
}

TEST(Log, LeavesASignalAloneThatWasPendingBefore) {
  EXPECT_EQ(statusWithClosedStandardError([] {
              sigset_t sigpipe;
              sigemptyset(&sigpipe);
              sigaddset(&sigpipe, SIGPIPE);
              ::pthread_sigmask(SIG_BLOCK, &sigpipe, nullptr);
              ::raise(SIGPIPE);
              AgentLog::logInfo("a", "Unit", "operation()", 1);
              sigset_t pending;
              ::sigpending(&pending);
              return 10 + sigismember(&pending, SIGPIPE);
            }),
            11);
}

/// Standard error as a pipe, for as long as this lives.
class PipeAsStandardError {
 public:
  PipeAsStandardError() : before_(::dup(STDERR_FILENO)) {
    EXPECT_EQ(::pipe(ends_), 0);
    ::fcntl(ends_[0], F_SETFL, O_NONBLOCK);
    EXPECT_EQ(::dup2(ends_[1], STDERR_FILENO), STDERR_FILENO);
  }
  ~PipeAsStandardError() {
    ::dup2(before_, STDERR_FILENO);
    for (const int fd : {before_, ends_[0], ends_[1]}) ::close(fd);
  }

  /// Fills it with something else than records.
  void fill() {
    const std::string page(PIPE_BUF, '.');
    ::fcntl(ends_[1], F_SETFL, O_NONBLOCK);
    while (::write(ends_[1], page.data(), page.size()) > 0) continue;
    ::fcntl(ends_[1], F_SETFL, 0);
  }

  /// Takes `most` of what it holds; nothing is waited for.
  std::string take(std::size_t most = SIZE_MAX) {
    std::string held;
    std::array<char, PIPE_BUF> page;
    while (held.size() < most) {
      const ssize_t length = ::read(ends_[0], page.data(), page.size());
      if (length <= 0) break;
      held.append(page.data(), static_cast<std::size_t>(length));
    }
    return held;
  }

  /// The lines of the records that it holds, without their times.
  std::vector<std::string> takeLines() {
    std::string text = take();
    text.erase(0, std::min(text.find_first_not_of('.'), text.size()));
    std::vector<std::string> lines;
    for (std::size_t start = 0; start < text.size();) {
      const std::size_t end = std::min(text.find('\n', start), text.size());
      lines.push_back(withoutTime(text.substr(start, end - start)));
      start = end + 1;
    }
    return lines;
  }

 private:
  const int before_;
  int ends_[2] = {-1, -1};
};

LogSettings withoutPatience() {
  LogSettings settings;
  settings.standardErrorWait = std::chrono::milliseconds(0);
  return settings;
}

TEST(Log, WhoeverDoesNotReadStandardErrorHoldsUpNobody) {
  AgentLog::configure(withoutPatience());
  PipeAsStandardError pipe;
  pipe.fill();
  AgentLog::logInfo("a", "Unit", "operation()", 1);
  AgentLog::logInfo("b", "Unit", "operation()", 2);
  EXPECT_EQ(pipe.takeLines(), std::vector<std::string>{});
  AgentLog::logInfo("c", "Unit", "operation()", 3);
  const std::vector<std::string> lines = pipe.takeLines();
  ASSERT_EQ(lines.size(), 2u);
  EXPECT_NE(lines[0].find(" 2 records are left out here: nobody has read them"), std::string::npos);
  EXPECT_EQ(lines[1], "info Unit operation() 3 c");
}

TEST(Log, ARecordThatWasBrokenOffSpoilsNoOther) {
  AgentLog::configure(withoutPatience());
  PipeAsStandardError pipe;
  pipe.fill();
  pipe.take(PIPE_BUF);
  AgentLog::logInfo(std::string(2 * PIPE_BUF, 'x'), "Unit", "operation()", 1);
  EXPECT_EQ(pipe.takeLines().size(), 1u);
  AgentLog::logInfo("b", "Unit", "operation()", 2);
  const std::vector<std::string> lines = pipe.takeLines();
  ASSERT_EQ(lines.size(), 3u);
  EXPECT_EQ(lines[0], "");
  EXPECT_NE(lines[1].find(" 1 records are left out here: "), std::string::npos);
  EXPECT_EQ(lines[2], "info Unit operation() 2 b");
}

/// Standard error as a terminal, for as long as this lives, and on an end for a test that hangs.
class TerminalAsStandardError {
 public:
  TerminalAsStandardError()
      : before_(::dup(STDERR_FILENO)), ours_(::posix_openpt(O_RDWR | O_NOCTTY | O_NONBLOCK)) {
    EXPECT_EQ(::grantpt(ours_), 0);
    EXPECT_EQ(::unlockpt(ours_), 0);
    theirs_ = ::open(::ptsname(ours_), O_RDWR | O_NOCTTY);
    EXPECT_EQ(::dup2(theirs_, STDERR_FILENO), STDERR_FILENO);
    ::alarm(60);
  }
  ~TerminalAsStandardError() {
    ::alarm(0);
    ::dup2(before_, STDERR_FILENO);
    for (const int fd : {before_, ours_, theirs_}) ::close(fd);
  }

  /// What it shows of what has been written; some may come a little later.
  std::string take() const {
    pollfd shown{ours_, POLLIN, 0};
    ::poll(&shown, 1, 100);
    std::string text;
    std::array<char, PIPE_BUF> page;
    for (ssize_t length = 0; (length = ::read(ours_, page.data(), page.size())) > 0;) {
      text.append(page.data(), static_cast<std::size_t>(length));
    }
    return text;
  }

 private:
  const int before_;
  const int ours_;
  int theirs_ = -1;
};

TEST(Log, ATerminalThatNobodyReadsHoldsUpNobody) {
  for (const std::size_t length : {std::size_t{100}, std::size_t{1'000'000}}) {
    AgentLog::configure(withoutPatience());
    TerminalAsStandardError terminal;
    // More than any terminal takes; it takes a part of a line last.
    for (int line = 0; line < 2000; ++line) {
      AgentLog::logInfo(std::string(length, 'x'), "Unit", "operation()", 1);
    }
    std::string text = terminal.take();
    // Now it is read, and takes records again.
    const std::string last = "info Unit operation() 2 b";
    while (!text.ends_with(" 2 b\r\n")) {
      AgentLog::logInfo("b", "Unit", "operation()", 2);
      text += terminal.take();
    }
    const std::string whole = "info Unit operation() 1 " + std::string(length, 'x');
    bool isTold = false;
    for (std::size_t start = 0; start < text.size();) {
      const std::size_t end = text.find("\r\n", start);
      const std::string line = withoutTime(text.substr(start, end - start));
      start = end + 2;
      const bool tells = line.starts_with("info AgentLog ");
      isTold = isTold || (tells && line.find(" records are left out here: nobody ") != line.npos);
      // A line may be broken off, in its time already, and ends before the next one.
      const bool isTime = line.find(' ') == line.npos && line.size() < 25;
      EXPECT_TRUE(tells || isTime || whole.starts_with(line) || last.starts_with(line)) << line;
    }
    EXPECT_TRUE(isTold);
    EXPECT_EQ(::fcntl(STDERR_FILENO, F_GETFL) & O_NONBLOCK, 0);
  }
}

TEST(Log, AReaderWhoTakesALittleAtATimeIsNotWaitedForAnewEachTime) {
  LogSettings settings;
  settings.standardErrorWait = std::chrono::milliseconds(500);
  AgentLog::configure(settings);
  PipeAsStandardError pipe;
  pipe.fill();
  std::atomic<bool> isDone{false};
  std::atomic<int> taken{0};
  std::thread reader([&] {
    while (!isDone) {
      std::this_thread::sleep_for(std::chrono::milliseconds(100));
      taken += pipe.take(PIPE_BUF).empty() ? 0 : 1;
    }
  });
  // A hundred times what is taken meanwhile.
  AgentLog::logInfo(std::string(std::size_t{100} * PIPE_BUF, 'x'), "Unit", "operation()", 1);
  isDone = true;
  reader.join();
  EXPECT_LT(taken, 50);
}

}  // namespace
