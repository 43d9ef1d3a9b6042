// The store under several processes and threads at once.

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "AgentUtils.h"
#include "support/StoredRecord.h"
#include "support/TemporaryDirectory.h"

using AgentUtils::RootAccessKeyValueStorage;

namespace {

constexpr std::type_identity<StoredRecord> kRecord;

/// A process that runs `work`; 0 is its good status.
pid_t start(const std::function<void()>& work) {
  const pid_t child = ::fork();
  if (child != 0) return child;
  try {
    work();
  } catch (...) {
    ::_exit(1);
  }
  ::_exit(0);
}

int statusOf(pid_t child) {
  int status = 0;
  ::waitpid(child, &status, 0);
  return status;
}

void write(RootAccessKeyValueStorage& store, const std::string& key, const std::string& version) {
  const StoredRecord record{version, {}};
  store.updateValue(&record, key);
}

class SharedStore : public testing::Test {
 protected:
  TemporaryDirectory directory;
  const std::string path = directory / "new/store";
};

TEST_F(SharedStore, IsCreatedAndWrittenBySeveralProcessesAtOnceWithoutLoss) {
  constexpr int processes = 6;
  constexpr int rows = 20;
  std::vector<pid_t> children;
  for (int process = 0; process < processes; ++process) {
    children.push_back(start([&] {
      RootAccessKeyValueStorage store(path, "ScriptToMeta");
      for (int row = 0; row < rows; ++row) {
        write(store, std::to_string(process) + '/' + std::to_string(row), "5");
        write(store, "shared", std::to_string(process));
      }
    }));
  }
  for (const pid_t child : children) EXPECT_EQ(statusOf(child), 0);
  RootAccessKeyValueStorage store(path, "ScriptToMeta");
  EXPECT_EQ(store.fetchTableAsDictionary().size(), 121u);
}

TEST_F(SharedStore, AConnectionOfTheSameProcessDoesNotBreakAnothersLock) {
  RootAccessKeyValueStorage first(path, "ScriptToMeta");
  write(first, "42", "5");
  std::vector<std::thread> threads;
  std::vector<int> failures(4);
  for (int& count : failures) {
    threads.emplace_back([&] {
      for (int round = 0; round < 10; ++round) {
        try {
          RootAccessKeyValueStorage again(path, "ScriptToMeta");
          write(again, "42", "6");
          write(first, "43", "7");
        } catch (...) {
          ++count;
        }
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(failures, std::vector<int>(4, 0));
  EXPECT_EQ(first.fetchValue("42", kRecord)->version, "6");
}

TEST_F(SharedStore, OneObjectServesSeveralThreads) {
  RootAccessKeyValueStorage store(path, "ScriptToMeta");
  std::vector<std::thread> threads;
  std::vector<int> wrong(4);
  for (std::size_t thread = 0; thread < wrong.size(); ++thread) {
    threads.emplace_back([&, thread] {
      const std::string key = std::to_string(thread);
      for (int round = 0; round < 25; ++round) {
        write(store, key, key + '.' + std::to_string(round));
        const auto fetched = store.fetchValue(key, kRecord);
        if (fetched == nullptr || fetched->version != key + '.' + std::to_string(round)) {
          ++wrong[thread];
        }
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(wrong, std::vector<int>(4, 0));
}

TEST_F(SharedStore, AWriterThatIsKilledLeavesAWholeRow) {
  RootAccessKeyValueStorage(path, "ScriptToMeta");
  const std::string longText(100000, 'x');
  for (int kill = 0; kill < 10; ++kill) {
    int ready[2];
    ASSERT_EQ(::pipe(ready), 0);
    const pid_t child = start([&] {
      RootAccessKeyValueStorage store(path, "ScriptToMeta");
      for (int round = 0;; ++round) {
        write(store, "42", longText + (round % 2 == 0 ? 'a' : 'b'));
        if (::write(ready[1], "r", 1) != 1) ::_exit(1);
      }
    });
    ::close(ready[1]);
    // Killed in the middle of its work, after a few rows more each time.
    char byte = 0;
    for (int row = 0; row <= kill; ++row) ASSERT_EQ(::read(ready[0], &byte, 1), 1);
    ASSERT_EQ(::kill(child, SIGKILL), 0);
    EXPECT_TRUE(WIFSIGNALED(statusOf(child)));
    ::close(ready[0]);
    RootAccessKeyValueStorage store(path, "ScriptToMeta");
    const auto fetched = store.fetchValue("42", kRecord);
    ASSERT_NE(fetched, nullptr);
    EXPECT_TRUE(fetched->version == longText + 'a' || fetched->version == longText + 'b');
  }
}

TEST_F(SharedStore, AWriterThatFindsItBusyWaitsForItsTurn) {
  RootAccessKeyValueStorage store(path, "ScriptToMeta");
  write(store, "42", "5");
  std::vector<pid_t> children;
  for (int process = 0; process < 4; ++process) {
    children.push_back(start([&] {
      RootAccessKeyValueStorage mine(path, "ScriptToMeta");
      for (int round = 0; round < 25; ++round) write(mine, "42", std::to_string(round));
    }));
  }
  for (int round = 0; round < 25; ++round) {
    EXPECT_NE(store.fetchValue("42", kRecord), nullptr);
  }
  for (const pid_t child : children) EXPECT_EQ(statusOf(child), 0);
  EXPECT_EQ(store.fetchValue("42", kRecord)->version, "24");
}

}  // namespace
