// A lock among processes that add to one file, which a process that has been stopped with it keeps
// the others from for a moment only.

#pragma once

#include <chrono>

namespace AgentLog {

/// A lock of flock(2) on an open file, held for as long as this lives or not held at all: whoever
/// takes it goes on either way.
class BriefLock {
 public:
  enum class Kind { shared, exclusive };

  /// How long it is waited for, once; after that not at all, until it has been had again.
  struct Patience {
    static constexpr std::chrono::milliseconds kWhole{1000};
    std::chrono::milliseconds left = kWhole;
  };

  /// Takes the lock on `fd`, which stays open for as long as this lives; -1 is none.
  BriefLock(int fd, Kind kind, Patience& patience);
  BriefLock(const BriefLock&) = delete;
  BriefLock& operator=(const BriefLock&) = delete;
  ~BriefLock();

 private:
  int locked_ = -1;
};

}  // namespace AgentLog
