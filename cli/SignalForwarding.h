// Passes the signals that stop this process on to the running script, then ends the process by the
// same signal.
//
// The library tells no process ID and keeps no process-wide state, so the script is found as the
// child that leads a group of its own, between the log lines that begin and end its run.

#pragma once

#include <signal.h>
#include <sys/types.h>

#include <condition_variable>
#include <mutex>
#include <vector>

#include "LogSettings.h"

namespace VarnScripts {

/// Forwards SIGINT, SIGTERM and SIGHUP from its construction to the end of the process. A signal
/// that was ignored at construction stays ignored.
///
/// Constructed on the main thread before any other thread is started, so that all threads inherit
/// the blocked signals; lives as long as the process, because its thread does.
class SignalForwarding {
 public:
  SignalForwarding();
  SignalForwarding(const SignalForwarding&) = delete;
  SignalForwarding& operator=(const SignalForwarding&) = delete;

  /// Takes the next record of the log, on the thread that makes the request. Does not return once a
  /// signal has arrived: no script is launched any more, and the process ends by the signal
  /// although the script may have ended by itself on receiving it.
  void see(const AgentLog::Record& record);

  /// Returns unless a signal has arrived, as `see` does. Called when the request has ended.
  void passUnlessStopping();

 private:
  void waitForSignal();
  void passOn(int signal);
  void waitForEndWhenStopping(std::unique_lock<std::mutex>& lock) const;

  sigset_t signals_{};
  // The children that this process was given by the program that it was before. All of them, not
  // only those with groups of their own: such a child may make its group later.
  std::vector<pid_t> foreignChildren_;

  std::mutex mutex_;
  std::condition_variable runEnded_;
  bool stopping_ = false;
  bool scriptRuns_ = false;
};

}  // namespace VarnScripts
