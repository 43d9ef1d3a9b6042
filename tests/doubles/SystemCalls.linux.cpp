#include "SystemCalls.h"

#include <fcntl.h>
#include <locale.h>
#include <poll.h>
#include <sched.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>
#include <utf8proc.h>

#include <chrono>
#include <cstdarg>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <new>
#include <utility>

// Some of these calls are made by a child that shares the memory of its suspended parent, so that
// nothing of a sanitizer's bookkeeping may run in them.
#define VARN_BARE __attribute__((no_sanitize("address", "thread", "undefined")))

namespace {

struct Order {
  char function[32];
  long kind;
  int error;
  int spared;
  int times;
  int met;
  int told;
  bool given;
};

// Plain variables: the child sees the parent's.
Order orders[3];
bool withoutPidfd = false;
int insteadOfPidfd = -1;

VARN_BARE bool sameName(const char* a, const char* b) {
  while (*a != '\0' && *a == *b) {
    ++a;
    ++b;
  }
  return *a == *b;
}

sigset_t maskAtStart;
std::vector<locale_t> localesSet;
bool seesLocales = false;

// The smallest allocation that fails.
std::size_t refusedSize = SIZE_MAX;
int sparedAllocations = 0;
int refusedAllocations = 0;
std::chrono::seconds ahead{0};
std::chrono::seconds awakeClockAhead{0};
std::function<void(const std::string&)> beforeOpenat;

/// The ordered fault that meets this call, or nothing. Then errno is set.
VARN_BARE const Order* metBy(const char* function,
                             long kind = doubles::SystemCallFault::kEveryKind) {
  for (Order& order : orders) {
    if (!order.given || order.times == 0 || !sameName(function, order.function)) continue;
    if (order.kind != doubles::SystemCallFault::kEveryKind && order.kind != kind) continue;
    if (order.spared > 0) {
      --order.spared;
      continue;
    }
    --order.times;
    ++order.met;
    if (order.error != 0) errno = order.error;
    return &order;
  }
  return nullptr;
}

VARN_BARE int answer(const Order* order) { return order->error == 0 ? 0 : -1; }

}  // namespace

namespace doubles {

SystemCallFault::SystemCallFault(const std::string& function, int error, long kind, int times,
                                 int spared, int told)
    : order_(orders[0].given ? orders[1].given ? 2 : 1 : 0) {
  Order& order = orders[order_];
  if (order.given || function.size() >= sizeof order.function) std::abort();
  order = {{}, kind, error, spared, times, 0, told, true};
  std::memcpy(order.function, function.data(), function.size());
}

SystemCallFault::~SystemCallFault() { orders[order_].given = false; }

int SystemCallFault::met() const { return orders[order_].met; }

BeforeOpenat::BeforeOpenat(std::function<void(const std::string& name)> what) {
  beforeOpenat = std::move(what);
}
BeforeOpenat::~BeforeOpenat() { beforeOpenat = nullptr; }

NoPidfd::NoPidfd(int instead) {
  withoutPidfd = true;
  insteadOfPidfd = instead;
}
NoPidfd::~NoPidfd() { withoutPidfd = false; }

NoMemory::NoMemory(std::size_t least, int spared, int times) {
  sparedAllocations = spared;
  refusedAllocations = times;
  refusedSize = least;
}
NoMemory::~NoMemory() { refusedSize = SIZE_MAX; }

ClockAhead::ClockAhead(std::chrono::seconds time, After after) {
  ahead = time;
  if (after == After::time) awakeClockAhead = time;
}
ClockAhead::~ClockAhead() { ahead = awakeClockAhead = {}; }

sigset_t signalMaskAtLastStart() { return maskAtStart; }

LocalesSet::LocalesSet() {
  localesSet.clear();
  seesLocales = true;
}
LocalesSet::~LocalesSet() { seesLocales = false; }
std::vector<locale_t> LocalesSet::all() const { return localesSet; }

}  // namespace doubles

// Every form that is called: where one is missing, a sanitizer takes its own.
void* operator new(std::size_t size, const std::nothrow_t& /*tag*/) noexcept {
  const bool refused = size >= refusedSize && sparedAllocations-- <= 0 && refusedAllocations-- > 0;
  return refused ? nullptr : std::malloc(size);
}
void* operator new(std::size_t size) {
  void* const memory = operator new(size, std::nothrow);
  if (memory == nullptr) throw std::bad_alloc();
  return memory;
}
void* operator new[](std::size_t size) { return operator new(size); }
void* operator new[](std::size_t size, const std::nothrow_t& tag) noexcept {
  return operator new(size, tag);
}
void operator delete(void* memory) noexcept { std::free(memory); }
void operator delete(void* memory, std::size_t /*size*/) noexcept { std::free(memory); }
void operator delete[](void* memory) noexcept { std::free(memory); }
void operator delete[](void* memory, std::size_t /*size*/) noexcept { std::free(memory); }

extern "C" {

// The names are the linker's.
// NOLINTBEGIN(bugprone-reserved-identifier)

#define VARN_WRAP(result, function, parameters, arguments)       \
  result __real_##function parameters;                           \
  result __wrap_##function parameters;                           \
  result __wrap_##function parameters {                          \
    if (const Order* met = metBy(#function)) return answer(met); \
    return __real_##function arguments;                          \
  }

VARN_WRAP(int, fstat, (int fd, struct stat* status), (fd, status))
VARN_WRAP(int, madvise, (void* address, size_t size, int advice), (address, size, advice))
VARN_WRAP(int, pipe2, (int* ends, int flags), (ends, flags))
VARN_WRAP(int, poll, (pollfd * fds, nfds_t count, int timeout), (fds, count, timeout))
VARN_WRAP(ssize_t, read, (int fd, void* buffer, size_t size), (fd, buffer, size))
VARN_WRAP(int, waitid, (idtype_t type, id_t id, siginfo_t* info, int options),
          (type, id, info, options))
VARN_WRAP(pid_t, waitpid, (pid_t id, int* status, int options), (id, status, options))

void* __real_mmap(void* address, size_t size, int protection, int flags, int fd, off_t offset);
void* __wrap_mmap(void* address, size_t size, int protection, int flags, int fd, off_t offset);
void* __wrap_mmap(void* address, size_t size, int protection, int flags, int fd, off_t offset) {
  if (metBy("mmap") != nullptr) return MAP_FAILED;
  return __real_mmap(address, size, protection, flags, fd, offset);
}

utf8proc_ssize_t __real_utf8proc_map(const utf8proc_uint8_t* text, utf8proc_ssize_t length,
                                     utf8proc_uint8_t** mapped, utf8proc_option_t options);
utf8proc_ssize_t __wrap_utf8proc_map(const utf8proc_uint8_t* text, utf8proc_ssize_t length,
                                     utf8proc_uint8_t** mapped, utf8proc_option_t options);
utf8proc_ssize_t __wrap_utf8proc_map(const utf8proc_uint8_t* text, utf8proc_ssize_t length,
                                     utf8proc_uint8_t** mapped, utf8proc_option_t options) {
  if (metBy("utf8proc_map") != nullptr) return UTF8PROC_ERROR_NOMEM;
  return __real_utf8proc_map(text, length, mapped, options);
}

locale_t __real_newlocale(int mask, const char* name, locale_t base);
locale_t __wrap_newlocale(int mask, const char* name, locale_t base);
locale_t __wrap_newlocale(int mask, const char* name, locale_t base) {
  if (metBy("newlocale") != nullptr) return nullptr;
  return __real_newlocale(mask, name, base);
}

locale_t __real_uselocale(locale_t locale);
locale_t __wrap_uselocale(locale_t locale);
locale_t __wrap_uselocale(locale_t locale) {
  if (seesLocales) localesSet.push_back(locale);
  return __real_uselocale(locale);
}

int __real_open(const char* path, int flags, ...);
int __wrap_open(const char* path, int flags, ...);
int __wrap_open(const char* path, int flags, ...) {
  va_list more;
  va_start(more, flags);
  const mode_t mode = (flags & O_CREAT) != 0 ? va_arg(more, mode_t) : 0;
  va_end(more);
  if (const Order* met = metBy("open")) return answer(met);
  return __real_open(path, flags, mode);
}

int __real_openat(int at, const char* path, int flags, ...);
int __wrap_openat(int at, const char* path, int flags, ...);
int __wrap_openat(int at, const char* path, int flags, ...) {
  if (beforeOpenat) beforeOpenat(path);
  if (const Order* met = metBy("openat")) return answer(met);
  return __real_openat(at, path, flags);
}

int __real_unlinkat(int at, const char* path, int flags);
int __wrap_unlinkat(int at, const char* path, int flags);
int __wrap_unlinkat(int at, const char* path, int flags) {
  if (const Order* met = metBy("unlinkat", flags)) return answer(met);
  return __real_unlinkat(at, path, flags);
}

int __real_fcntl(int fd, int command, ...);
int __wrap_fcntl(int fd, int command, ...);
int __wrap_fcntl(int fd, int command, ...) {
  va_list more;
  va_start(more, command);
  void* const argument = va_arg(more, void*);
  va_end(more);
  if (const Order* met = metBy("fcntl", command)) return answer(met);
  return __real_fcntl(fd, command, argument);
}

int __real_ioctl(int fd, unsigned long request, ...);
int __wrap_ioctl(int fd, unsigned long request, ...);
int __wrap_ioctl(int fd, unsigned long request, ...) {
  va_list more;
  va_start(more, request);
  void* const argument = va_arg(more, void*);
  va_end(more);
  if (const Order* met = metBy("ioctl", static_cast<long>(request))) {
    // Each answer that is asked for begins with a count or with bits that tell what is there.
    if (met->error == 0) *static_cast<int*>(argument) = met->told;
    return answer(met);
  }
  return __real_ioctl(fd, request, argument);
}

int __real_clock_gettime(clockid_t clock, timespec* time);
int __wrap_clock_gettime(clockid_t clock, timespec* time);
int __wrap_clock_gettime(clockid_t clock, timespec* time) {
  const int result = __real_clock_gettime(clock, time);
  time->tv_sec += (clock == CLOCK_MONOTONIC ? awakeClockAhead : ahead).count();
  return result;
}

long __real_syscall(long number, ...);
VARN_BARE long __wrap_syscall(long number, ...);
long __wrap_syscall(long number, ...) {
  va_list more;
  va_start(more, number);
  long arguments[6];
  for (long& argument : arguments) argument = va_arg(more, long);
  va_end(more);
  if (const Order* met = metBy("syscall", number)) return answer(met);
  return __real_syscall(number, arguments[0], arguments[1], arguments[2], arguments[3],
                        arguments[4], arguments[5]);
}

int __real___clone(int (*function)(void*), void* stack, int flags, void* argument, ...);
int __wrap___clone(int (*function)(void*), void* stack, int flags, void* argument, ...);
int __wrap___clone(int (*function)(void*), void* stack, int flags, void* argument, ...) {
  va_list more;
  va_start(more, argument);
  int* const pidfd = va_arg(more, int*);
  va_end(more);
  ::pthread_sigmask(SIG_SETMASK, nullptr, &maskAtStart);
  if (const Order* met = metBy("__clone")) return answer(met);
  if (withoutPidfd) {
    flags &= ~CLONE_PIDFD;
    if (insteadOfPidfd >= 0) *pidfd = insteadOfPidfd;
  }
  return __real___clone(function, stack, flags, argument, pidfd);
}

}  // extern "C"

// A function of C++ is wrapped under its mangled name.
std::chrono::steady_clock::time_point realNow() asm("__real__ZNSt6chrono3_V212steady_clock3nowEv");
std::chrono::steady_clock::time_point nowAhead() asm("__wrap__ZNSt6chrono3_V212steady_clock3nowEv");
std::chrono::steady_clock::time_point nowAhead() { return realNow() + ahead; }

// NOLINTEND(bugprone-reserved-identifier)
