// A text that grows by pieces, also where memory is short.

#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <memory>
#include <new>
#include <string>
#include <vector>

#include "Sanitizers.h"
#include "support/LongText.h"

namespace {

using VarnScriptRepository::LongText;

constexpr std::size_t kMiB = std::size_t{1} << 20;

/// What is resident of this process now, in bytes.
std::size_t residentBytes() {
  std::size_t all = 0;
  std::size_t resident = 0;
  std::FILE* const file = std::fopen("/proc/self/statm", "r");
  const int read = file == nullptr ? 0 : std::fscanf(file, "%zu %zu", &all, &resident);
  if (file != nullptr) std::fclose(file);
  return read == 2 ? resident * static_cast<std::size_t>(::sysconf(_SC_PAGESIZE)) : 0;
}

/// The exit status of `body` in a process that may have `limit` bytes of memory.
template <class Body>
int withinMemory(rlim_t limit, Body&& body) {
  const int child = ::fork();
  if (child == 0) {
    const rlimit limits{limit, limit};
    if (::setrlimit(RLIMIT_AS, &limits) != 0) ::_exit(100);
    ::_exit(body());
  }
  int status = 0;
  if (child < 0 || ::waitpid(child, &status, 0) != child || !WIFEXITED(status)) return -1;
  return WEXITSTATUS(status);
}

TEST(LongText, HoldsItsPiecesInOrder) {
  LongText text;
  EXPECT_EQ(text.take(), "");

  EXPECT_TRUE(text.append("one, "));
  EXPECT_TRUE(text.append(""));
  EXPECT_TRUE(text.append(std::string("t\0o", 3)));
  EXPECT_EQ(text.take(), std::string("one, t\0o", 8));
}

TEST(LongText, GrowsOverEveryBoundary) {
  LongText text;
  std::string expected;
  for (int piece = 0; piece < 24000; ++piece) {
    const std::string bytes(997, static_cast<char>('a' + piece % 26));
    ASSERT_TRUE(text.append(bytes));
    expected += bytes;
  }
  EXPECT_TRUE(text.take() == expected);
}

TEST(LongText, HasLittleRoomUntilItIsLong) {
  const auto roomAfter = [](std::size_t length) {
    LongText text;
    for (std::size_t taken = 0; taken < length; taken += kMiB) {
      EXPECT_TRUE(text.append(std::string(std::min(kMiB, length - taken), 'x')));
    }
    return text.take().capacity();
  };
  LongText atOnce;
  EXPECT_TRUE(atOnce.append(std::string(16 * kMiB, 'x')));
  EXPECT_EQ(atOnce.take().capacity(), 16 * kMiB);
  EXPECT_EQ(roomAfter(kMiB), kMiB);
  EXPECT_EQ(roomAfter(kMiB + 1), 16 * kMiB);
  EXPECT_EQ(roomAfter(16 * kMiB), 16 * kMiB);
  EXPECT_GE(roomAfter(16 * kMiB + 1), 20 * kMiB);
}

TEST(LongText, TakesNoMoreMemoryThanItIsLong) {
  if (kSanitized) GTEST_SKIP() << "a sanitizer's own memory would be counted";
  const std::string piece(kMiB, 'x');
  const std::size_t before = residentBytes();
  ASSERT_GT(before, 0U);
  LongText text;
  for (int count = 0; count < 64; ++count) ASSERT_TRUE(text.append(piece));

  EXPECT_LT(residentBytes() - before, 70 * kMiB);
  EXPECT_EQ(text.take().size(), 64 * kMiB);
}

TEST(LongText, StaysAsItIsWhenThereIsNoMemory) {
  if (kSanitized) GTEST_SKIP() << "no sanitizer runs within so little memory";
  EXPECT_EQ(withinMemory(512 * kMiB,
                         [] {
                           const std::string piece(kMiB, 'x');
                           LongText text;
                           std::size_t taken = 0;
                           while (taken < 1024 && text.append(piece)) ++taken;
                           // Refused now and again, also the smallest piece that needs room.
                           std::size_t more = 0;
                           while (more < kMiB && text.append("y")) ++more;
                           const bool refused = !text.append(piece) && !text.append(piece);
                           const std::string whole = text.take();
                           const bool asItWas = whole.size() == taken * kMiB + more &&
                                                whole.find_first_not_of('x') ==
                                                    (more > 0 ? taken * kMiB : whole.npos);
                           // Most of what the limit leaves is used, although growing means to have
                           // a second place for a while.
                           return refused && asItWas && taken >= 128 ? 0 : 1;
                         }),
            0);
}

TEST(LongText, GoesOnWhenThereIsMemoryAgain) {
  if (kSanitized) GTEST_SKIP() << "no sanitizer runs within so little memory";
  EXPECT_EQ(withinMemory(512 * kMiB,
                         [] {
                           const std::string piece(kMiB, 'x');
                           LongText text;
                           if (!text.append(piece)) return 1;
                           {
                             // Nearly all is in somebody else's hands.
                             std::vector<std::unique_ptr<char[]>> others;
                             others.reserve(100);
                             for (std::size_t size = 512 * kMiB; size >= kMiB / 2;) {
                               others.emplace_back(new (std::nothrow) char[size]);
                               if (!others.back()) size /= 2;
                             }
                             if (text.append(piece)) return 4;
                           }
                           for (int count = 0; count < 64; ++count) {
                             if (!text.append(piece)) return 2;
                           }
                           return text.take().size() >= 65 * kMiB ? 0 : 3;
                         }),
            0);
}

}  // namespace
