#include "StandIn.h"

#include <crt_externs.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/event.h>
#include <sys/eventfd.h>
#include <sys/ioctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <optional>
#include <utility>

namespace {

standin::Watch watches = standin::Watch::asked;
int lateAnswers = 0;

// A child's settings are made and used on one thread, one after the other.
thread_local bool closesByDefault = false;
thread_local bool inheritsInput = false;

bool ignoresSIGCHLD() {
  struct sigaction action {};
  return ::sigaction(SIGCHLD, nullptr, &action) == 0 && action.sa_handler == SIG_IGN;
}

}  // namespace

namespace standin {

void watchesAre(Watch watch) { watches = watch; }
void endsAreLate(int times) { lateAnswers = times; }

}  // namespace standin

extern "C" {

// The names are the linker's.
// NOLINTBEGIN(bugprone-reserved-identifier)

// ---- Starting --------------------------------------------------------------------------------

char*** _NSGetEnviron() { return &::environ; }

int posix_spawn_file_actions_addinherit_np(posix_spawn_file_actions_t* /*actions*/, int fd) {
  if (fd != STDIN_FILENO) return EINVAL;
  inheritsInput = true;
  return 0;
}

int __real_posix_spawnattr_setflags(posix_spawnattr_t* attributes, short flags);
int __wrap_posix_spawnattr_setflags(posix_spawnattr_t* attributes, short flags);
int __wrap_posix_spawnattr_setflags(posix_spawnattr_t* attributes, short flags) {
  closesByDefault = (flags & POSIX_SPAWN_CLOEXEC_DEFAULT) != 0;
  return __real_posix_spawnattr_setflags(attributes,
                                         static_cast<short>(flags & ~POSIX_SPAWN_CLOEXEC_DEFAULT));
}

int __real_posix_spawn(pid_t* processID, const char* path,
                       const posix_spawn_file_actions_t* actions,
                       const posix_spawnattr_t* attributes, char* const* arguments,
                       char* const* environment);
int __wrap_posix_spawn(pid_t* processID, const char* path,
                       const posix_spawn_file_actions_t* actions,
                       const posix_spawnattr_t* attributes, char* const* arguments,
                       char* const* environment);
int __wrap_posix_spawn(pid_t* processID, const char* path,
                       const posix_spawn_file_actions_t* actions,
                       const posix_spawnattr_t* attributes, char* const* arguments,
                       char* const* environment) {
  const bool keepsInput = std::exchange(inheritsInput, false);
  if (std::exchange(closesByDefault, false)) {
    // The caller's object, which is none that can't be changed, is done with after this call.
    auto* const closing = const_cast<posix_spawn_file_actions_t*>(actions);
    if (!keepsInput) {
      if (const int error = ::posix_spawn_file_actions_addclose(closing, STDIN_FILENO)) {
        return error;
      }
    }
    if (const int error = ::posix_spawn_file_actions_addclosefrom_np(closing, STDERR_FILENO + 1)) {
      return error;
    }
  }
  return __real_posix_spawn(processID, path, actions, attributes, arguments, environment);
}

// ---- Waiting ---------------------------------------------------------------------------------

int __real_waitid(idtype_t type, id_t id, siginfo_t* info, int options);
int __wrap_waitid(idtype_t type, id_t id, siginfo_t* info, int options);
int __wrap_waitid(idtype_t type, id_t id, siginfo_t* info, int options) {
  return __real_waitid(type, id, info, options | WSTOPPED);
}

pid_t __real_waitpid(pid_t id, int* status, int options);
pid_t __wrap_waitpid(pid_t id, int* status, int options);
pid_t __wrap_waitpid(pid_t id, int* status, int options) {
  if (id > 0 && (options & WNOHANG) != 0 && lateAnswers > 0) return --lateAnswers, 0;
  const pid_t waited = __real_waitpid(id, status, options);
  if (waited < 0 && errno == ECHILD && id > 0 && (options & WNOHANG) == 0 && ignoresSIGCHLD()) {
    siginfo_t info{};
    while (__real_waitid(P_ALL, 0, &info, WEXITED) == 0 || errno == EINTR) continue;
  }
  return waited;
}

// ---- The queue -------------------------------------------------------------------------------

// A queue is a descriptor that is never readable, then, for the process that is watched, its pidfd,
// and when that has reported it, the former again. So there is nothing else to close.

int kqueue() { return ::eventfd(0, 0); }

static int becomes(int queue, int fd) {
  if (fd < 0) return -1;
  const int result = ::dup3(fd, queue, O_CLOEXEC);
  ::close(fd);
  return result < 0 ? -1 : 0;
}

/// The status of an ended process as waitpid gives it, as long as somebody keeps it.
static std::optional<int> statusOf(int pidfd) {
  siginfo_t info{};
  if (__real_waitid(P_PIDFD, static_cast<id_t>(pidfd), &info, WEXITED | WNOHANG | WNOWAIT) == 0) {
    if (info.si_code == CLD_EXITED) return info.si_status << 8;
    return info.si_status;
  }
  // From Linux 6.15 on the pidfd tells the status of a process that is gone.
  std::array<std::int32_t, 16> kept{1 << 3};
  const int result = ::ioctl(pidfd, _IOWR(0xFF, 11, kept), kept.data());
  if (result != 0 || (kept[0] & 1 << 3) == 0) return std::nullopt;
  return kept[15];
}

static int watch(int queue, const struct kevent& change) {
  if (change.filter != EVFILT_PROC || change.flags != EV_ADD) return errno = EINVAL, -1;
  siginfo_t info{};
  const auto process = static_cast<id_t>(change.ident);
  const int moment = watches == standin::Watch::asked ? WNOHANG : 0;
  const int asked = __real_waitid(P_PID, process, &info, WEXITED | WNOWAIT | moment);
  if (asked == 0 && info.si_pid == 0) {
    const long pidfd = ::syscall(SYS_pidfd_open, process, 0);
    return becomes(queue, static_cast<int>(pidfd));
  }
  return watches == standin::Watch::silent ? 0 : (errno = ESRCH, -1);
}

int kevent(int queue, const struct kevent* changes, int changeCount, struct kevent* events,
           int eventCount, const timespec* timeout) {
  for (int change = 0; change < changeCount; ++change) {
    if (watch(queue, changes[change]) != 0) return -1;
  }
  if (eventCount == 0) return 0;
  pollfd watched{queue, POLLIN, 0};
  if (::ppoll(&watched, 1, timeout, nullptr) != 1) return 0;
  *events = {0, EVFILT_PROC, 0, NOTE_EXIT, 0, nullptr};
  if (const auto status = statusOf(queue)) {
    events->fflags |= NOTE_EXITSTATUS;
    events->data = *status;
  }
  // An end is reported once.
  return becomes(queue, kqueue()) == 0 ? 1 : -1;
}

// ---- The clock -------------------------------------------------------------------------------

unsigned long clock_gettime_nsec_np(clockid_t clock) {
  if (clock != CLOCK_UPTIME_RAW) std::abort();
  timespec now{};
  ::clock_gettime(CLOCK_MONOTONIC, &now);
  return static_cast<unsigned long>(now.tv_sec) * 1'000'000'000 +
         static_cast<unsigned long>(now.tv_nsec);
}

// NOLINTEND(bugprone-reserved-identifier)

}  // extern "C"
