#include <gtest/gtest.h>
#include <pthread.h>

#include <atomic>
#include <cstddef>
#include <stdexcept>
#include <string>
#include <vector>

#include "../unit/Sanitizers.h"
#include "publish/Parallel.h"

namespace VarnScripts::publishing {
namespace {

// How often the work was called with each of `count` indices.
std::vector<int> callsOf(std::size_t count) {
  std::vector<int> calls(count);
  forEachIndex(count, [&](std::size_t index) { ++calls.at(index); });
  return calls;
}

TEST(ParallelTest, EachIndexIsWorkedOnOnce) {
  for (const std::size_t count :
       {std::size_t{0}, std::size_t{1}, kFewestForAThread, 2 * kFewestForAThread - 1,
        2 * kFewestForAThread, 2 * kFewestForAThread + 1, 41 * kFewestForAThread + 7}) {
    EXPECT_EQ(callsOf(count), std::vector<int>(count, 1)) << count;
  }
}

TEST(ParallelTest, WhatTheLastCallThrowsIsThrown) {
  constexpr std::size_t kCount = 8 * kFewestForAThread;
  std::atomic<std::size_t> calls = 0;
  const auto work = [&](std::size_t index) {
    ++calls;
    if (index == kCount - 1) throw std::runtime_error("the last one");
  };
  try {
    forEachIndex(kCount, work);
    FAIL() << "nothing was thrown";
  } catch (const std::runtime_error& error) {
    EXPECT_EQ(error.what(), std::string("the last one"));
  }
  EXPECT_EQ(calls, kCount);
}

TEST(ParallelTest, WhatTheFirstCallThrowsIsThrownWhenTheOthersHaveEnded) {
  std::atomic<std::size_t> calls = 0;
  const auto work = [&](std::size_t index) {
    ++calls;
    if (index == 0) throw std::runtime_error("the first one");
  };
  EXPECT_THROW(forEachIndex(8 * kFewestForAThread, work), std::runtime_error);
  const std::size_t atReturn = calls;
  EXPECT_GT(atReturn, std::size_t{0});
  std::this_thread::yield();
  EXPECT_EQ(calls, atReturn);
}

#ifdef __GLIBC__
TEST(ParallelTest, WhereNoThreadCanBeHadTheCallerWorks) {
  if (kSanitized) GTEST_SKIP() << "a sanitizer's threads have stacks of its own making";
  pthread_attr_t usual;
  ASSERT_EQ(pthread_getattr_default_np(&usual), 0);
  pthread_attr_t huge;
  ASSERT_EQ(pthread_attr_init(&huge), 0);
  // More than there are addresses.
  ASSERT_EQ(pthread_attr_setstacksize(&huge, std::size_t{1} << 60U), 0);
  ASSERT_EQ(pthread_setattr_default_np(&huge), 0);
  EXPECT_EQ(callsOf(8 * kFewestForAThread), std::vector<int>(8 * kFewestForAThread, 1));
  ASSERT_EQ(pthread_setattr_default_np(&usual), 0);
  pthread_attr_destroy(&huge);
  pthread_attr_destroy(&usual);
}
#endif

}  // namespace
}  // namespace VarnScripts::publishing
