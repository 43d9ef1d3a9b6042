#include "SigpipeGuard.h"

#include <cerrno>

namespace {

sigset_t sigpipeAlone() {
  sigset_t set;
  sigemptyset(&set);
  sigaddset(&set, SIGPIPE);
  return set;
}

bool sigpipeIsPending() {
  sigset_t pending;
  sigemptyset(&pending);
  ::sigpending(&pending);
  return sigismember(&pending, SIGPIPE) == 1;
}

}  // namespace

SigpipeGuard::SigpipeGuard() {
  const sigset_t sigpipe = sigpipeAlone();
  ::pthread_sigmask(SIG_BLOCK, &sigpipe, &previousMask_);
  // What was not blocked was delivered at once: none can be waiting.
  wasPending_ = sigismember(&previousMask_, SIGPIPE) == 1 && sigpipeIsPending();
}

SigpipeGuard::~SigpipeGuard() {
  const int error = errno;
  if (!wasPending_ && sigpipeIsPending()) {
    // The signal is pending, so this takes it and does not wait.
    const sigset_t sigpipe = sigpipeAlone();
    int taken = 0;
    ::sigwait(&sigpipe, &taken);
  }
  ::pthread_sigmask(SIG_SETMASK, &previousMask_, nullptr);
  errno = error;
}
