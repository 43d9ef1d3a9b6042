// System calls and allocations that fail, or answer something else, when a test orders it. Works in
// a program that is linked with --wrap for each of them; its other calls go through. Linux only.

#pragma once

#include <cerrno>
#include <string>

namespace doubles {

/// What happens to calls of one function, for as long as the object lives. At most two objects at
/// a time.
class SystemCallFault {
 public:
  static constexpr long kEveryKind = -1;
  static constexpr int kAlways = 1 << 30;

  /// Calls of `function` whose kind is `kind` (the command of fcntl, the request of ioctl, the
  /// number of syscall) fail with `error`. With `error` 0 they are not made, and answered 0 as if
  /// there were nothing. The first `spared` of them go through, then `times` of them are met.
  SystemCallFault(const std::string& function, int error, long kind = kEveryKind,
                  int times = kAlways, int spared = 0);
  SystemCallFault(const SystemCallFault&) = delete;
  SystemCallFault& operator=(const SystemCallFault&) = delete;
  ~SystemCallFault();

  /// How many calls were met.
  [[nodiscard]] int met() const;

 private:
  int order_;
};

/// Children are started without a pidfd, as kernels do it that have none.
class NoPidfd {
 public:
  NoPidfd();
  NoPidfd(const NoPidfd&) = delete;
  NoPidfd& operator=(const NoPidfd&) = delete;
  ~NoPidfd();
};

/// No allocation by new succeeds, on any thread.
class NoMemory {
 public:
  NoMemory();
  NoMemory(const NoMemory&) = delete;
  NoMemory& operator=(const NoMemory&) = delete;
  ~NoMemory();
};

}  // namespace doubles
