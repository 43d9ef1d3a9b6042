// Keeps writes to a closed pipe or connection from ending the process, without touching the
// process-wide disposition of the signal, which is the host's.

#pragma once

#include <csignal>

/// While it lives, SIGPIPE is blocked for the calling thread; a SIGPIPE that this thread's writes
/// raised meanwhile is consumed at the end, one that was pending before is left. Errors still show
/// as EPIPE. Lives and dies on one thread.
class SigpipeGuard {
 public:
  SigpipeGuard();
  ~SigpipeGuard();
  SigpipeGuard(const SigpipeGuard&) = delete;
  SigpipeGuard& operator=(const SigpipeGuard&) = delete;

 private:
  sigset_t previousMask_;
  bool wasPending_;
};
