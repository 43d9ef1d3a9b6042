// System calls and allocations that fail, or answer something else, when a test orders it, and a
// clock that a test puts forward. Works in a program that is linked with --wrap for each of them;
// its other calls go through. Linux only.

#pragma once

#include <locale.h>
#include <signal.h>

#include <cerrno>
#include <chrono>
#include <cstddef>
#include <functional>
#include <string>
#include <vector>

namespace doubles {

/// What happens to calls of one function, for as long as the object lives. At most three objects at
/// a time.
class SystemCallFault {
 public:
  static constexpr long kEveryKind = -1;
  static constexpr int kAlways = 1 << 30;

  /// Calls of `function` whose kind is `kind` (the command of fcntl, the request of ioctl, the
  /// number of syscall, the flags of unlinkat) fail with `error`. With `error` 0 they are not made,
  /// and answered 0 as if there were nothing; what an ioctl asks for is `told`. The first `spared`
  /// of them go through, then `times` of them are met.
  SystemCallFault(const std::string& function, int error, long kind = kEveryKind,
                  int times = kAlways, int spared = 0, int told = 0);
  SystemCallFault(const SystemCallFault&) = delete;
  SystemCallFault& operator=(const SystemCallFault&) = delete;
  ~SystemCallFault();

  /// How many calls were met.
  [[nodiscard]] int met() const;

 private:
  int order_;
};

/// Does `what` before each opening relative to a directory, with the name that is opened, for as
/// long as the object lives.
class BeforeOpenat {
 public:
  explicit BeforeOpenat(std::function<void(const std::string& name)> what);
  BeforeOpenat(const BeforeOpenat&) = delete;
  BeforeOpenat& operator=(const BeforeOpenat&) = delete;
  ~BeforeOpenat();
};

/// Children are started without a pidfd, as kernels do it that have none: they leave its place as
/// it is. With `instead` it stands there.
class NoPidfd {
 public:
  explicit NoPidfd(int instead = -1);
  NoPidfd(const NoPidfd&) = delete;
  NoPidfd& operator=(const NoPidfd&) = delete;
  ~NoPidfd();
};

/// No allocation of `least` bytes or more by new succeeds, on any thread. The first `spared` of
/// them do, then `times` of them are met.
class NoMemory {
 public:
  explicit NoMemory(std::size_t least = 0, int spared = 0, int times = SystemCallFault::kAlways);
  NoMemory(const NoMemory&) = delete;
  NoMemory& operator=(const NoMemory&) = delete;
  ~NoMemory();
};

/// Every clock is ahead of the real one by `time`, or, after a sleep of the computer, every clock
/// but the one that stands meanwhile.
class ClockAhead {
 public:
  enum class After { time, sleep };
  explicit ClockAhead(std::chrono::seconds time, After after = After::time);
  ClockAhead(const ClockAhead&) = delete;
  ClockAhead& operator=(const ClockAhead&) = delete;
  ~ClockAhead();
};

/// The signals that were blocked on the thread that started the last child, when it did.
[[nodiscard]] sigset_t signalMaskAtLastStart();

/// Sees which locales this process has set for its threads, for as long as the object lives.
class LocalesSet {
 public:
  LocalesSet();
  LocalesSet(const LocalesSet&) = delete;
  LocalesSet& operator=(const LocalesSet&) = delete;
  ~LocalesSet();

  /// In their order.
  [[nodiscard]] std::vector<locale_t> all() const;
};

}  // namespace doubles
