// What must not throw, without memory.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <new>
#include <optional>
#include <utility>
#include <vector>

#include "FileAttributes.h"
#include "FileDescriptor.h"
#include "KeptCopy.h"
#include "signing/TrustDecision.h"
#include "signing/TrustStateFile.h"
#include "support/Files.h"
#include "support/Signer.h"
#include "support/TemporaryDirectory.h"

namespace {

thread_local bool memoryIsOut = false;
// The number of the allocation that finds none, counted down to it; 0 when all find some.
thread_local long failingAllocation = 0;

bool findsNone() {
  if (failingAllocation > 0 && --failingAllocation == 0) return true;
  return memoryIsOut;
}

}  // namespace

// Not inlined: the compiler would see one of a pair without the other and take them for strangers.
[[gnu::noinline]] void* operator new(std::size_t size) {
  void* const room = findsNone() ? nullptr : std::malloc(size);
  if (room == nullptr) throw std::bad_alloc();
  return room;
}
[[gnu::noinline]] void operator delete(void* room) noexcept { std::free(room); }
[[gnu::noinline]] void operator delete(void* room, std::size_t) noexcept { std::free(room); }

namespace {

using namespace AgentUtils::signing;

constexpr const char* kAttribute = "user.varn.download";

std::string attributeOf(const std::string& path) {
  return AgentUtils::fileAttribute(posix::FileDescriptor(::open(path.c_str(), O_RDONLY)),
                                   kAttribute, 64);
}

TEST(NoMemory, KeepsNoFileThatIsDistrusted) {
  const TemporaryDirectory directory;
  const std::string path = directory / "script.sh";
  writeFile(path, "echo changed\n");
  AgentUtils::setFileAttribute(posix::FileDescriptor(::open(path.c_str(), O_RDWR)), kAttribute,
                               "validators");
  if (attributeOf(path) != "validators") {
    GTEST_SKIP() << "the file system here keeps no attributes";
  }
  memoryIsOut = true;
  AgentUtils::distrustFile(path);
  memoryIsOut = false;
  EXPECT_EQ(attributeOf(path), "");
}

/// What `judge` says when one allocation after the other finds no memory; the last one is what it
/// says when all do. Nothing where memory has cut it short.
template <class Judge>
std::vector<std::optional<Judgement>> judgedWithout(const Judge& judge) {
  std::vector<std::optional<Judgement>> judgements;
  for (long failing = 1;; ++failing) {
    std::optional<Judgement> judgement;
    failingAllocation = failing;
    try {
      judgement = judge();
    } catch (const std::bad_alloc&) {
    }
    const bool isWhole = std::exchange(failingAllocation, 0) > 0;
    judgements.push_back(std::move(judgement));
    if (isWhole) return judgements;
  }
}

/// A list that is signed by both of two keys that are needed.
struct SignedByBoth {
  TrustPolicy policy{{vectorKey("first"), vectorKey("second")}, 2, "acme"};
  std::string list = vectorFile("list.xml");
  std::vector<std::string> files = {vectorFile("first.minisig"), vectorFile("second.minisig")};
  TrustState none{"acme", {}};
  TrustState accepted =
      std::get<Acceptance>(judgeList(list, files, policy, none, at(kMeanwhile))).state;
};

TEST(NoMemory, NeverMakesAListCount) {
  const SignedByBoth both;
  const std::string other = both.list + ' ';
  const std::vector<std::string> one = {both.files[0], both.files[0], vectorFile("locked.minisig")};
  std::vector<std::string> changed = both.files;
  for (std::string& file : changed) file.replace(file.find("serial:7"), 8, "serial:8");
  TrustState newer = both.accepted;
  for (auto& [key, last] : newer.keys) ++last.serial;
  const struct {
    const std::string& list;
    const std::vector<std::string>& files;
    const TrustState& state;
    std::string_view clock;
    bool counts;
  } rows[] = {
      {both.list, both.files, both.none, kMeanwhile, true},
      {both.list, both.files, both.accepted, kMeanwhile, true},
      {other, both.files, both.none, kMeanwhile, false},
      {both.list, one, both.none, kMeanwhile, false},
      {both.list, changed, both.none, kMeanwhile, false},
      {both.list, both.files, newer, kMeanwhile, false},
      {both.list, both.files, both.none, "2027-12-01T00:00:00Z", false},
      {both.list, both.files, both.none, "2025-12-01T00:00:00Z", false},
  };
  for (const auto& row : rows) {
    const auto judgements = judgedWithout(
        [&] { return judgeList(row.list, row.files, both.policy, row.state, at(row.clock)); });
    EXPECT_GT(judgements.size(), 10U);
    EXPECT_EQ(std::holds_alternative<Acceptance>(judgements.back().value()), row.counts);
    for (const auto& judgement : judgements) {
      if (judgement) {
        EXPECT_EQ(judgement, judgements.back());
      }
    }
  }
}

TEST(NoMemory, NeverMakesAKeptListCount) {
  const SignedByBoth both;
  for (const bool isTheList : {true, false}) {
    const std::string seen = isTheList ? both.list : both.list + ' ';
    const auto judgements = judgedWithout([&] {
      return judgeKeptList(ListInHand(seen).digest, both.policy, both.accepted, at(kMeanwhile));
    });
    EXPECT_GT(judgements.size(), 3U);
    for (const auto& judgement : judgements) {
      if (judgement) {
        EXPECT_EQ(std::holds_alternative<Acceptance>(*judgement), isTheList);
      }
    }
  }
}

TEST(NoMemory, LeavesTheStateOfTrustAsItWasOrAsItIsToBe) {
  const SignedByBoth both;
  const TemporaryDirectory directory;
  const TrustStateFile file(directory / "state", "acme");
  for (long failing = 1;; ++failing) {
    ::unlink(file.path().c_str());
    bool isAccepted = false;
    failingAllocation = failing;
    try {
      const Judgement judgement =
          file.accept(ListInHand(both.list), both.files, both.policy, at(kMeanwhile));
      isAccepted = std::holds_alternative<Acceptance>(judgement);
    } catch (const std::bad_alloc&) {
    }
    const bool isWhole = std::exchange(failingAllocation, 0) > 0;
    const auto state = std::get<TrustState>(file.read());
    EXPECT_TRUE(state == both.accepted || (state == both.none && !isAccepted)) << failing;
    if (!isWhole) continue;
    EXPECT_TRUE(isAccepted);
    EXPECT_GT(failing, 20);
    return;
  }
}

}  // namespace
