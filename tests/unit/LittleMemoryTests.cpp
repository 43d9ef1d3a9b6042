// What is larger than the memory there is: documents and rows that can't be held are absent, each
// line that tells so is written, and nothing is thrown.

#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/resource.h>
#include <unistd.h>

#include <fstream>
#include <functional>
#include <string>
#include <system_error>

#include "AgentFixture.h"
#include "Sanitizers.h"
#include "ScriptRepositoryLocalMetaProcessor.h"
#include "ScriptRepositoryMetaProcessor.h"
#include "VarnScriptRepository/ScriptRepositoryProcessor.h"
#include "support/Files.h"

namespace {

using namespace VarnScriptRepository;
using testing::ElementsAre;

constexpr std::size_t kMebibyte = std::size_t{1} << 20;

/// A file of `size` bytes that takes no room on the disk.
void makeSparseFile(const std::string& path, std::size_t size) {
  doubles::writeFile(path, "");
  ASSERT_EQ(::truncate(path.c_str(), static_cast<off_t>(size)), 0);
}

/// No more than `more` bytes of addresses beyond those in use, for as long as the object lives.
class AddressLimit {
 public:
  explicit AddressLimit(std::size_t more) {
    ::getrlimit(RLIMIT_AS, &before_);
    rlim_t pages = 0;
    std::ifstream("/proc/self/statm") >> pages;
    const rlimit limit{pages * static_cast<rlim_t>(::sysconf(_SC_PAGESIZE)) + more,
                       before_.rlim_max};
    ::setrlimit(RLIMIT_AS, &limit);
  }
  AddressLimit(const AddressLimit&) = delete;
  AddressLimit& operator=(const AddressLimit&) = delete;
  ~AddressLimit() { ::setrlimit(RLIMIT_AS, &before_); }

 private:
  rlimit before_{};
};

/// Documents of 8 TiB, which no computer has the memory for, and of 900 MiB under a limit that a
/// sanitizer's own memory would not fit under.
class LittleMemory : public doubles::AgentFixture {
 protected:
  LittleMemory() {
    doubles::makeDirectories(dataDirectory);
    ScriptRepositoryLocalMetaProcessor::shared();
  }

  void forEachTooLargeFile(const std::string& path, const std::function<void()>& check) {
    makeSparseFile(path, std::size_t{8} << 40);
    check();
    if (kSanitized) return;
    makeSparseFile(path, 900 * kMebibyte);
    const AddressLimit limit(300 * kMebibyte);
    check();
  }
};

TEST_F(LittleMemory, AFileThatDoesNotFitIsAnErrorAndLeavesNoDescriptor) {
  const int before = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
  ::close(before);
  forEachTooLargeFile(directory.path() + "/large", [&] {
    std::error_code error;
    EXPECT_EQ(files::readWhole(directory.path() + "/large", error), "");
    EXPECT_EQ(error, std::errc::not_enough_memory);
  });
  const int after = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
  ::close(after);
  EXPECT_EQ(after, before);
}

TEST_F(LittleMemory, ADataDocumentThatDoesNotFitEndsTheRequestWithItsLines) {
  ScriptRepositoryMeta entry;
  entry.scriptID = "42";
  entry.modifiedTime = "5";
  ScriptRepositoryMetaProcessor::shared().setScriptRepoMetaData({{entry}});
  store.rows["42"] = {{"version", "5"}};
  forEachTooLargeFile(dataDirectory + "/42.xml", [&] {
    ScriptRepositoryProcessor processor("42");
    journal.reset();
    EXPECT_EQ(processor.processScript(), ProcessingResult());
    EXPECT_THAT(
        journal.log(),
        ElementsAre("info ScriptRepositoryProcessor processScript(): Processing Script ID 42 "
                    "Server Version "
                    "5 Local Version 5 Proceeding without Downloading Script",
                    "info ScriptRepositoryProcessor getScriptItemData(): Error while reading file "
                    "<agent>/client-data/7/scripts-repository-data/42.xml Cannot allocate memory",
                    "info ScriptRepositoryProcessor processScript(): Processing Script ID 42 "
                    "Server Version "
                    "5 Local Version 5 status (nil, nil)"));
  });
}

TEST_F(LittleMemory, AListThatDoesNotFitIsSaidAndKeepsTheEarlierEntries) {
  auto& meta = ScriptRepositoryMetaProcessor::shared();
  meta.setScriptRepoMetaData(std::vector<ScriptRepositoryMeta>(3));
  forEachTooLargeFile(dataDirectory + "/scripts-meta.xml", [&] {
    journal.reset();
    meta.loadScriptRepoMetaData();
    EXPECT_THAT(journal.entries(),
                ElementsAre("info ScriptRepositoryMetaProcessor loadScriptRepoMetaData(): Error "
                            "while getting data Cannot allocate memory"));
    EXPECT_EQ(meta.scriptRepoMetaData()->size(), 3U);
  });
}

// Too long for memory that was freed to be taken again, so that a limit decides how many there are.
const std::string kLargeText(40 * kMebibyte, 'x');

/// Calls `call` under limits from too little for one large text to enough for all.
void underEveryLimit(const std::function<void()>& call) {
  if (kSanitized) GTEST_SKIP() << "a sanitizer has memory of its own";
  for (std::size_t more = kMebibyte; more <= 400 * kMebibyte; more += 35 * kMebibyte) {
    SCOPED_TRACE(std::to_string(more));
    const AddressLimit limit(more);
    EXPECT_NO_THROW(call());
  }
}

TEST_F(LittleMemory, ARowThatDoesNotFitReadsAsAbsent) {
  if (kSanitized) GTEST_SKIP() << "a sanitizer has memory of its own";
  auto& localMeta = ScriptRepositoryLocalMetaProcessor::shared();
  store.rows["42"] = {{"version", kLargeText}, {"scriptPath", kLargeText}};
  int absent = 0;
  int present = 0;
  underEveryLimit([&] {
    for (const auto& text : {localMeta.getScriptVersion("42"), localMeta.getScriptPath("42")}) {
      (text ? present : absent) += 1;
      EXPECT_TRUE(!text || *text == kLargeText);
    }
  });
  EXPECT_GT(absent, 0);
  EXPECT_GT(present, 0);
}

TEST_F(LittleMemory, AnEntryThatDoesNotFitReadsAsAbsent) {
  if (kSanitized) GTEST_SKIP() << "a sanitizer has memory of its own";
  ScriptRepositoryMeta entry;
  entry.scriptID = "42";
  entry.modifiedTime = kLargeText;
  auto& meta = ScriptRepositoryMetaProcessor::shared();
  meta.setScriptRepoMetaData({{entry}});
  int present = 0;
  underEveryLimit([&] { present += meta.getModifiedTime("42") ? 1 : 0; });
  EXPECT_GT(present, 0);
}

TEST_F(LittleMemory, TheStatusLineComesWhereverMemoryRunsOut) {
  // What is large is the document's own record of the file: it fits once, or twice, or not at all.
  doubles::DataDocument document;
  document.fileSystemLocation = kLargeText;
  doubles::writeFile(dataDirectory + "/42.xml", document.text());
  ScriptRepositoryMeta entry;
  entry.scriptID = "42";
  entry.fileID = "f1";
  entry.modifiedTime = "5";
  ScriptRepositoryMetaProcessor::shared().setScriptRepoMetaData({{entry}});
  store.rows["42"] = {{"version", "5"}};
  underEveryLimit([&] {
    ScriptRepositoryProcessor processor("42");
    journal.reset();
    EXPECT_EQ(processor.processScript(), ProcessingResult());
    ASSERT_FALSE(journal.log().empty());
    EXPECT_EQ(journal.log().back(),
              "info ScriptRepositoryProcessor processScript(): Processing Script ID 42 Server "
              "Version 5 Local Version 5 status (nil, nil)");
  });
}

}  // namespace
