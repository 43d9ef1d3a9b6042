// Preloaded into a process, makes chosen allocations fail. VARN_FAIL_ALLOCATION names the first one
// that fails, counted from 1; with VARN_FAIL_ALLOCATIONS_ON all further ones of the process fail
// too. VARN_COUNT_ALLOCATIONS names a file that gets the number of allocations made when the
// process ends.
//
// Counting begins with main: what is allocated before it is the loading of the program. operator
// new goes through malloc, so it is counted and fails with it. Children of the process are not
// disturbed: the variables are taken out of the environment when the library is loaded.

#include <dlfcn.h>
#include <fcntl.h>
#include <stdlib.h>
#include <string.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <initializer_list>

extern "C" {
void* __libc_malloc(std::size_t size);
void* __libc_calloc(std::size_t count, std::size_t size);
void* __libc_realloc(void* block, std::size_t size);
void* __libc_memalign(std::size_t alignment, std::size_t size);
}

namespace {

std::atomic<std::uint64_t> made{0};
std::atomic<bool> inMain{false};
std::uint64_t firstFailing = 0;
bool failsOn = false;
char countFile[4096] = "";

bool fails() {
  if (!inMain) return false;
  const std::uint64_t number = ++made;
  if (firstFailing == 0) return false;
  const bool failing = failsOn ? number >= firstFailing : number == firstFailing;
  if (failing) errno = ENOMEM;
  return failing;
}

[[gnu::constructor]] void takeSettings() {
  if (const char* const first = getenv("VARN_FAIL_ALLOCATION")) {
    firstFailing = strtoull(first, nullptr, 10);
  }
  failsOn = getenv("VARN_FAIL_ALLOCATIONS_ON") != nullptr;
  if (const char* const file = getenv("VARN_COUNT_ALLOCATIONS")) {
    strncpy(countFile, file, sizeof countFile - 1);
  }
  for (const char* const name : {"VARN_FAIL_ALLOCATION", "VARN_FAIL_ALLOCATIONS_ON",
                                 "VARN_COUNT_ALLOCATIONS", "LD_PRELOAD"}) {
    ::unsetenv(name);
  }
}

void tellCount() {
  if (countFile[0] == '\0') return;
  char text[32];
  const int length =
      snprintf(text, sizeof text, "%llu\n", static_cast<unsigned long long>(made.load()));
  const int fd = ::open(countFile, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
  if (fd < 0) return;
  if (::write(fd, text, static_cast<std::size_t>(length)) != length) abort();
  ::close(fd);
}

}  // namespace

using Main = int (*)(int, char**, char**);

namespace {

Main realMain = nullptr;

int countingMain(int count, char** arguments, char** environment) {
  inMain = true;
  return realMain(count, arguments, environment);
}

}  // namespace

extern "C" {

int __libc_start_main(Main main, int count, char** arguments, void (*init)(), void (*fini)(),
                      void (*loaderFini)(), void* stackEnd) {
  using Start = int (*)(Main, int, char**, void (*)(), void (*)(), void (*)(), void*);
  realMain = main;
  const auto start = reinterpret_cast<Start>(dlsym(RTLD_NEXT, "__libc_start_main"));
  return start(countingMain, count, arguments, init, fini, loaderFini, stackEnd);
}

// The command ends by it.
[[noreturn]] void _exit(int status) {
  tellCount();
  while (true) ::syscall(SYS_exit_group, status);
}

void* malloc(std::size_t size) { return fails() ? nullptr : __libc_malloc(size); }

void* calloc(std::size_t count, std::size_t size) {
  return fails() ? nullptr : __libc_calloc(count, size);
}

void* realloc(void* block, std::size_t size) {
  return fails() ? nullptr : __libc_realloc(block, size);
}

void* aligned_alloc(std::size_t alignment, std::size_t size) {
  return fails() ? nullptr : __libc_memalign(alignment, size);
}

int posix_memalign(void** block, std::size_t alignment, std::size_t size) {
  if (fails()) return ENOMEM;
  *block = __libc_memalign(alignment, size);
  return *block == nullptr ? ENOMEM : 0;
}

}  // extern "C"
