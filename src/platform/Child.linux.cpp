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
#include <unistd.h>

#include <array>
#include <cerrno>
#include <utility>

#include "platform/ChildParts.h"

// The C library's clone under its other name: sanitizers take the usual one for a fork, and their
// bookkeeping for a fork would run in the shared memory.
extern "C" int __clone(int (*function)(void*), void* stack, int flags, void* argument, ...);

namespace VarnScriptRepository::platform {
namespace {

/// The child's stack between clone and exec. It is ours, so that the child can't tread on the
/// frames of the suspended parent.
class ChildStack {
 public:
  ChildStack() : base_(::mmap(nullptr, kSize, PROT_READ | PROT_WRITE, kFlags, -1, 0)) {}
  ChildStack(const ChildStack&) = delete;
  ChildStack& operator=(const ChildStack&) = delete;
  ~ChildStack() {
    if (*this) ::munmap(base_, kSize);
  }

  explicit operator bool() const { return base_ != MAP_FAILED; }
  [[nodiscard]] void* top() const { return static_cast<char*>(base_) + kSize; }

 private:
  static constexpr std::size_t kSize = 64 * 1024;
  static constexpr int kFlags = MAP_PRIVATE | MAP_ANONYMOUS | MAP_STACK;
  void* const base_;
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
  unsigned lastDescriptor;
  int error;  ///< written by the child, whose memory is the parent's
};

constexpr std::size_t kKernelSignalSetSize = 8;
constexpr int kLastSignal = 64;

// The child runs in the parent's memory while the parent is suspended. It makes bare system calls
// only: no allocation, no lock, nothing that a sanitizer's bookkeeping would see.
#define VARN_BARE __attribute__((no_sanitize("address", "thread", "undefined")))

VARN_BARE int fail(StartInfo* start) {
  start->error = errno;
  ::syscall(SYS_exit, 127);
  return 127;
}

VARN_BARE int closeFrom(unsigned first, unsigned last) {
  if (::syscall(SYS_close_range, first, ~0U, 0) == 0) return 0;
  // A kernel without close_range.
  for (unsigned fd = first; fd <= last; ++fd) ::syscall(SYS_close, fd);
  return 0;
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
  closeFrom(STDERR_FILENO + 1, start->lastDescriptor);
  if (::syscall(SYS_chdir, start->directory) != 0) return fail(start);
  static constexpr std::array<unsigned char, kKernelSignalSetSize> noSignals{};
  ::syscall(SYS_rt_sigprocmask, SIG_SETMASK, noSignals.data(), nullptr, kKernelSignalSetSize);
  ::syscall(SYS_execve, start->launchPath, start->arguments, start->environment);
  return fail(start);
}

unsigned lastPossibleDescriptor() {
  rlimit limit{};
  if (::getrlimit(RLIMIT_NOFILE, &limit) != 0 || limit.rlim_cur == RLIM_INFINITY) return 65535;
  return static_cast<unsigned>(limit.rlim_cur);
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

std::optional<std::int32_t> statusFromPidfd(int pidfd) noexcept {
  PidfdInfo info{};
  info.mask = kPidfdInfoExit;
  if (pidfd < 0 || ::ioctl(pidfd, kPidfdGetInfo, &info) != 0) return std::nullopt;
  if ((info.mask & kPidfdInfoExit) == 0) return std::nullopt;
  return statusFromWait(info.exitCode);
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
  constexpr std::size_t usual = 64 * 1024;
  const int capacity = ::fcntl(fd, F_GETPIPE_SZ);
  return capacity > 0 ? static_cast<std::size_t>(capacity) : usual;
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
  StartInfo start{program.launchPath.c_str(),
                  arguments.data(),
                  ::environ,
                  program.directory.c_str(),
                  program.output,
                  lastPossibleDescriptor(),
                  0};
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

std::int32_t Child::reap() noexcept {
  const int processID = std::exchange(processID_, 0);
  if (const auto status = waitForStatus(processID)) return *status;
  return statusFromPidfd(endDescriptor_.get()).value_or(kStatusLost);
}

}  // namespace VarnScriptRepository::platform
