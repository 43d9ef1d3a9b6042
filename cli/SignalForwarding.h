// Passes the signals that stop this process on to the running script, and ends the process by the
// first of them when the request is done.
//
// The library tells no process ID and keeps no process-wide state, so the script is found as the
// child of this process, between the log lines that begin and end its run.

#pragma once

#include <signal.h>
#include <sys/types.h>

#include <condition_variable>
#include <functional>
#include <mutex>
#include <vector>

#include "LogSettings.h"

namespace VarnScripts {

/// Forwards SIGINT, SIGTERM and SIGHUP from its construction to the end of the process. A signal
/// that was ignored at construction stays ignored.
///
/// A signal that comes before a script is started ends the process at once, and nothing is started
/// any more. One that comes later is passed on, and the process goes on with its work until
/// `endWhenStopped`. A second one is passed on as well and ends the process at once.
///
/// Constructed on the main thread before any other thread is started, so that all threads inherit
/// the blocked signals; lives as long as the process, because its thread does.
class SignalForwarding {
 public:
  SignalForwarding();
  SignalForwarding(const SignalForwarding&) = delete;
  SignalForwarding& operator=(const SignalForwarding&) = delete;

  /// Calls `make` while no signal is taken. One that then ends the process before a script is
  /// started first calls what `make` gave, on a thread of its own, at any time until the process
  /// ends.
  void guard(const std::function<std::function<void()>()>& make);

  /// Takes the next record of the log, on the thread that makes the request.
  void see(const AgentLog::Record& record);

  /// Ends the process by the signal that has arrived; returns when none has. Called when the
  /// request's result has been written.
  void endWhenStopped();

 private:
  [[noreturn]] void forward();
  void passOn(int signal, std::unique_lock<std::mutex>& lock);
  bool signalScript(int signal) const;
  [[nodiscard]] bool isPending(int signal) const;

  sigset_t signals_{};
  // The children that this process was given by the program that it was before.
  std::vector<pid_t> foreignChildren_;

  std::mutex mutex_;
  std::condition_variable runEnded_;
  std::function<void()> undo_;
  int signal_ = 0;  // the one that the process ends by when the request is done; 0 before it came
  bool scriptBegan_ = false;
  bool scriptRuns_ = false;
};

}  // namespace VarnScripts
