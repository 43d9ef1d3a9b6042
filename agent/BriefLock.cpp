#include "BriefLock.h"

#include <sys/file.h>

#include <cerrno>
#include <thread>

namespace AgentLog {

BriefLock::BriefLock(int fd, Kind kind, Patience& patience) {
  constexpr std::chrono::milliseconds kPause{5};
  const int operation = (kind == Kind::shared ? LOCK_SH : LOCK_EX) | LOCK_NB;
  const auto end = std::chrono::steady_clock::now() + patience.left;
  while (::flock(fd, operation) != 0) {
    if (errno == EINTR) continue;
    // Some file systems have no locks.
    if (errno != EWOULDBLOCK) return;
    if (std::chrono::steady_clock::now() >= end) {
      patience.left = {};
      return;
    }
    std::this_thread::sleep_for(kPause);
  }
  locked_ = fd;
  patience.left = Patience::kWhole;
}

BriefLock::~BriefLock() {
  if (locked_ >= 0) ::flock(locked_, LOCK_UN);
}

}  // namespace AgentLog
