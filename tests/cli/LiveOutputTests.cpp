// A script's output on its way to standard output while the script runs: to readers that read, stop
// or go away.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <system_error>
#include <thread>
#include <utility>

#include "LiveOutput.h"

namespace VarnScripts {
namespace {

/// Standard output on a pipe, for as long as the test lasts.
class LiveOutputOnPipe : public testing::Test {
 protected:
  void SetUp() override {
    ::signal(SIGPIPE, SIG_IGN);
    std::array<int, 2> ends{};
    ASSERT_EQ(::pipe(ends.data()), 0);
    reading_ = ends[0];
    before_ = ::dup(STDOUT_FILENO);
    ASSERT_GE(::dup2(ends[1], STDOUT_FILENO), 0);
    ::close(ends[1]);
  }
  void TearDown() override {
    stopWriting();
    stopReading();
  }

  void stopWriting() {
    if (before_ < 0) return;
    ::dup2(before_, STDOUT_FILENO);
    ::close(std::exchange(before_, -1));
  }
  void stopReading() {
    if (reading_ >= 0) ::close(std::exchange(reading_, -1));
  }

  /// The next bytes, `most` or fewer.
  std::string readSome(std::size_t most) {
    std::string text(most, '\0');
    const ssize_t got = ::read(reading_, text.data(), most);
    text.resize(got > 0 ? static_cast<std::size_t>(got) : 0);
    return text;
  }
  /// All that comes until the end.
  std::string readAll() {
    std::string all;
    while (true) {
      const std::string text = readSome(65536);
      if (text.empty()) return all;
      all += text;
    }
  }

  std::error_code error;

 private:
  int reading_ = -1;
  int before_ = -1;
};

// Much more than any pipe holds.
const std::string kMuch(1 << 20, 'x');

TEST_F(LiveOutputOnPipe, WritesWhatIsTakenBeforeTheEnd) {
  LiveOutput output(true, std::nullopt);
  output.take("first\n");
  EXPECT_EQ(readSome(100), "first\n");
  output.take("second\n");
  EXPECT_EQ(readSome(100), "second\n");
  EXPECT_EQ(output.finish(error), 13U);
  EXPECT_FALSE(error);
}

TEST_F(LiveOutputOnPipe, WritesNothingUnlessEnabled) {
  LiveOutput output(false, std::nullopt);
  output.take("first\n");
  EXPECT_EQ(output.finish(error), 0U);
  stopWriting();
  EXPECT_EQ(readAll(), "");
}

TEST_F(LiveOutputOnPipe, KeepsNobodyWaitingForAReaderWhoHasStopped) {
  LiveOutput output(true, std::nullopt);
  // Nobody reads. This would not come to an end.
  for (int i = 0; i < 3; ++i) output.take(kMuch);
  std::string read;
  std::thread reader([&] { read = readAll(); });
  EXPECT_EQ(output.finish(error), 3U << 20);
  EXPECT_FALSE(error);
  stopWriting();
  reader.join();
  EXPECT_EQ(read, kMuch + kMuch + kMuch);
}

TEST_F(LiveOutputOnPipe, LeavesToTheEndWhatAReaderIsTooFarBehindFor) {
  LiveOutput output(true, std::nullopt);
  std::string all;
  for (int i = 0; i < 12; ++i) {
    const std::string piece(1 << 20, static_cast<char>('a' + i));
    output.take(piece);
    all += piece;
  }
  // What comes behind a gap is left as well, however little it is.
  output.take("z");
  std::string read;
  std::thread reader([&] { read = readAll(); });
  const std::uint64_t length = output.finish(error);
  stopWriting();
  reader.join();
  EXPECT_GE(length, LiveOutput::kMostHeld);
  // Once that for the reader, and once that which had been given to him.
  EXPECT_LE(length, 2 * LiveOutput::kMostHeld);
  EXPECT_EQ(read, all.substr(0, length));
}

TEST_F(LiveOutputOnPipe, WritesNoMoreThanItMayAndNoPartOfACharacter) {
  LiveOutput output(true, 8);
  output.take("\u20ac\u20ac");
  output.take("\u20ac");
  // It would fit, and does not belong there.
  output.take("a");
  EXPECT_EQ(output.finish(error), 6U);
  stopWriting();
  EXPECT_EQ(readAll(), "\u20ac\u20ac");
}

TEST_F(LiveOutputOnPipe, TellsOfAReaderWhoIsGone) {
  LiveOutput output(true, std::nullopt);
  stopReading();
  for (int i = 0; i < 100; ++i) output.take(kMuch);
  static_cast<void>(output.finish(error));
  EXPECT_EQ(error, std::errc::broken_pipe);
}

TEST_F(LiveOutputOnPipe, TakesNothingAfterItsEnd) {
  LiveOutput output(true, std::nullopt);
  output.take("first\n");
  EXPECT_EQ(output.finish(error), 6U);
  output.take("second\n");
  EXPECT_EQ(output.finish(error), 6U);
  stopWriting();
  EXPECT_EQ(readAll(), "first\n");
}

}  // namespace
}  // namespace VarnScripts
