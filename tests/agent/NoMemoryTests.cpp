// What must not throw, without memory.

#include <fcntl.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <new>

#include "FileAttributes.h"
#include "FileDescriptor.h"
#include "KeptCopy.h"
#include "support/Files.h"
#include "support/TemporaryDirectory.h"

namespace {

thread_local bool memoryIsOut = false;

}  // namespace

void* operator new(std::size_t size) {
  void* const room = memoryIsOut ? nullptr : std::malloc(size);
  if (room == nullptr) throw std::bad_alloc();
  return room;
}
void operator delete(void* room) noexcept { std::free(room); }
void operator delete(void* room, std::size_t) noexcept { std::free(room); }

namespace {

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

}  // namespace
