// Child processes on Linux: started by clone(2) with the memory shared until the exec (as vfork and
// posix_spawn do), which gives a pidfd from birth. With it the end of a child wakes a poll, and
// recent kernels tell the status of a child whose host ignores SIGCHLD.

#include <fcntl.h>
#include <sched.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <optional>
#include <utility>

#include "platform/ChildParts.h"

// The C library's clone under its other name: sanitizers take the usual one for a fork, and their
// bookkeeping for a fork would run in the shared memory.
// NOLINTNEXTLINE(bugprone-reserved-identifier)
extern "C" int __clone(int (*function)(void*), void* stack, int flags, void* argument, ...);

namespace VarnScriptRepository::platform {
namespace {

/// The child's stack between clone and exec. It is ours, so that the child can't tread on the
/// frames of the suspended parent. The process keeps one for the next child: mapping it and
/// touching it anew would cost a fifth of a start.
class ChildStack {
 public:
  ChildStack() : base_(kept_.exchange(nullptr)) {
    if (base_ == nullptr) {
      base_ = ::mmap(nullptr, kSize, PROT_READ | PROT_WRITE, kFlags, -1, 0);
    }
  }
  ChildStack(const ChildStack&) = delete;
  ChildStack& operator=(const ChildStack&) = delete;
  ~ChildStack() {
    if (!*this) return;
    // Starts at the same time have had one each; one is enough to keep.
    if (void* const other = kept_.exchange(base_)) ::munmap(other, kSize);
  }

  explicit operator bool() const { return base_ != MAP_FAILED; }
  [[nodiscard]] void* top() const { return static_cast<char*>(base_) + kSize; }

 private:
  static constexpr std::size_t kSize = std::size_t{64} * 1024;
  static constexpr int kFlags = MAP_PRIVATE | MAP_ANONYMOUS | MAP_STACK;
  static inline std::atomic<void*> kept_{nullptr};
  void* base_;
};

/// All signals blocked on this thread, for as long as the object lives.
class SignalsBlocked {
 public:
  SignalsBlocked() {
    sigset_t all;
    sigfillset(&all);
    ::pthread_sigmask(SIG_BLOCK, &all, &before_);
  }
  SignalsBlocked(const SignalsBlocked&) = delete;
  SignalsBlocked& operator=(const SignalsBlocked&) = delete;
  ~SignalsBlocked() { ::pthread_sigmask(SIG_SETMASK, &before_, nullptr); }

 private:
  sigset_t before_;
};

struct StartInfo {
  const char* launchPath;
  char* const* arguments;
  char* const* environment;
  const char* directory;
  int output;
  int error;  ///< written by the child, whose memory is the parent's
};

constexpr std::size_t kKernelSignalSetSize = 8;
constexpr int kLastSignal = 64;
constexpr std::uint64_t kUsualDescriptors = 65536;

// The child runs in the parent's memory while the parent is suspended. It makes bare system calls
// only: no allocation, no lock, nothing that a sanitizer's bookkeeping would see.
#define VARN_BARE __attribute__((no_sanitize("address", "thread", "undefined")))

VARN_BARE int fail(StartInfo* start) {
  start->error = errno;
  ::syscall(SYS_exit, 127);
  return 127;
}

/// What getdents64 writes for each entry.
struct DirectoryEntry {
  std::uint64_t inode;
  std::int64_t offset;
  std::uint16_t length;
  std::uint8_t type;
  char name[1];
};

/// Closes what the kernel lists as open. False where there is no such list.
VARN_BARE bool closeListed(unsigned first) {
  // Makes room for one more where the table is full.
  ::syscall(SYS_close, first);
  const long directory =
      ::syscall(SYS_openat, AT_FDCWD, "/proc/self/fd", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (directory < 0) return false;
  alignas(DirectoryEntry) char entries[4096];
  long size = 0;
  // The kernel goes on by the number of the descriptor, whatever is closed meanwhile.
  while ((size = ::syscall(SYS_getdents64, directory, entries, sizeof entries)) > 0) {
    for (long at = 0; at < size;) {
      const auto* const entry = reinterpret_cast<const DirectoryEntry*>(entries + at);
      at += entry->length;
      unsigned fd = 0;
      const char* digit = entry->name;
      for (; *digit >= '0' && *digit <= '9'; ++digit)
        fd = 10 * fd + static_cast<unsigned>(*digit - '0');
      // "." and ".." are none.
      if (digit == entry->name || fd < first || fd == static_cast<unsigned>(directory)) continue;
      ::syscall(SYS_close, fd);
    }
  }
  ::syscall(SYS_close, directory);
  return size == 0;
}

VARN_BARE void closeFrom(unsigned first) {
  if (::syscall(SYS_close_range, first, ~0U, 0) == 0) return;
  // A kernel without close_range.
  if (closeListed(first)) return;
  // Without its list either: one by one, up to what the limit allows.
  struct {
    std::uint64_t soft = RLIM64_INFINITY;
    std::uint64_t hard = RLIM64_INFINITY;
  } limit;
  ::syscall(SYS_prlimit64, 0, RLIMIT_NOFILE, nullptr, &limit);
  const std::uint64_t end = limit.soft == RLIM64_INFINITY ? kUsualDescriptors : limit.soft;
  for (std::uint64_t fd = first; fd < end; ++fd) ::syscall(SYS_close, static_cast<unsigned>(fd));
}

VARN_BARE int startProgram(void* argument) {
  auto* const start = static_cast<StartInfo*>(argument);
  // All zero is the default action in the layout of every architecture.
  static constexpr std::array<unsigned char, 64> defaultAction{};
  for (int signal = 1; signal <= kLastSignal; ++signal) {
    ::syscall(SYS_rt_sigaction, signal, defaultAction.data(), nullptr, kKernelSignalSetSize);
  }
  if (::syscall(SYS_setpgid, 0, 0) != 0) return fail(start);
  if (::syscall(SYS_dup3, start->output, STDOUT_FILENO, 0) < 0) return fail(start);
  if (::syscall(SYS_dup3, start->output, STDERR_FILENO, 0) < 0) return fail(start);
  closeFrom(STDERR_FILENO + 1);
  if (::syscall(SYS_chdir, start->directory) != 0) return fail(start);
  static constexpr std::array<unsigned char, kKernelSignalSetSize> noSignals{};
  ::syscall(SYS_rt_sigprocmask, SIG_SETMASK, noSignals.data(), nullptr, kKernelSignalSetSize);
  ::syscall(SYS_execve, start->launchPath, start->arguments, start->environment);
  return fail(start);
}

// The kernel's interface to the status of an ended process through its pidfd (Linux 6.15), which
// the C library's headers do not have yet.
struct PidfdInfo {
  std::uint64_t mask;
  std::uint64_t cgroupID;
  std::array<std::uint32_t, 11> ids;
  std::int32_t exitCode;
};
constexpr std::uint64_t kPidfdInfoExit = 1U << 3;
constexpr unsigned long kPidfdGetInfo = _IOWR(0xFF, 11, PidfdInfo);

std::optional<EndStatus> statusFromPidfd(int pidfd) noexcept {
  PidfdInfo info{};
  info.mask = kPidfdInfoExit;
  if (pidfd < 0 || ::ioctl(pidfd, kPidfdGetInfo, &info) != 0) return std::nullopt;
  if ((info.mask & kPidfdInfoExit) == 0) return std::nullopt;
  return statusFromWait(info.exitCode);
}

/// Waits for the process; nothing when its status can't be had.
std::optional<EndStatus> waitForStatus(int processID) noexcept {
  int status = 0;
  const auto waited = retryOnInterrupt([&] { return ::waitpid(processID, &status, 0); });
  if (waited != processID) return std::nullopt;
  return statusFromWait(status);
}

}  // namespace

Pipe makePipe(std::error_code& error) {
  error.clear();
  int ends[2];
  if (::pipe2(ends, O_CLOEXEC) != 0) {
    error = lastError();
    return {};
  }
  Pipe pipe{beyondStandardDescriptors(FileDescriptor(ends[0])),
            beyondStandardDescriptors(FileDescriptor(ends[1]))};
  if (!pipe.readingEnd || !pipe.writingEnd ||
      ::fcntl(pipe.readingEnd.get(), F_SETFL, O_NONBLOCK) != 0) {
    error = lastError();
    return {};
  }
  return pipe;
}

std::size_t pipeCapacity(int fd) noexcept {
  constexpr std::size_t usual = std::size_t{64} * 1024;
  const int capacity = ::fcntl(fd, F_GETPIPE_SZ);
  return capacity > 0 ? static_cast<std::size_t>(capacity) : usual;
}

void enlargePipe(int fd) noexcept {
  // Enough for writer and reader to work side by side, and within a processor's own cache. A user
  // without privileges has 64 MiB for all pipes together; when they are used up, this fails.
  constexpr int size = 512 * 1024;
  if (pipeCapacity(fd) < size) ::fcntl(fd, F_SETPIPE_SZ, size);
}

Child Child::launch(const Program& program, std::error_code& error) {
  error.clear();
  if (hasNUL(program)) {
    error = std::make_error_code(std::errc::invalid_argument);
    return {0, FileDescriptor()};
  }
  const std::vector<char*> arguments = argumentPointers(program);
  const ChildStack stack;
  if (!stack) {
    error = lastError();
    return {0, FileDescriptor()};
  }
  StartInfo start{program.launchPath.c_str(), arguments.data(), ::environ,
                  program.directory.c_str(),  program.output,   0};
  int pidfd = -1;
  int processID = -1;
  {
    // No handler of the host may run in the child, which shares its memory.
    const SignalsBlocked blocked;
    processID = ::__clone(startProgram, stack.top(), CLONE_VM | CLONE_VFORK | CLONE_PIDFD | SIGCHLD,
                          &start, &pidfd);
    if (processID < 0) error = lastError();
  }
  if (processID < 0) return {0, FileDescriptor()};
  Child child(processID, FileDescriptor(pidfd));
  if (start.error == 0) return child;
  error = {start.error, std::generic_category()};
  static_cast<void>(child.reap());
  return child;
}

EndStatus Child::reap() noexcept {
  const int processID = std::exchange(processID_, 0);
  if (const auto status = waitForStatus(processID)) return *status;
  return statusFromPidfd(endDescriptor_.get()).value_or(kStatusLost);
}

}  // namespace VarnScriptRepository::platform
