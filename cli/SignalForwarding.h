// Passes the signals that stop this process on to the running script, and ends the process by the
// first of them when the request is done.

#pragma once

#include <signal.h>
#include <sys/types.h>

#include <condition_variable>
#include <functional>
#include <mutex>

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

  /// The events of the request's script, on the thread that makes the request. When the last one
  /// has returned, nothing is sent to the process any more.
  void scriptStarts();
  void scriptStarted(int processID);
  void scriptIsGone();

  /// Ends the process by the signal that has arrived; returns when none has. Called when the
  /// request's result has been written.
  void endWhenStopped();

 private:
  [[noreturn]] void forward();
  void passOn(int signal, std::unique_lock<std::mutex>& lock);
  void signalScript(int signal) const;
  [[nodiscard]] bool isPending(int signal) const;

  sigset_t signals_{};

  std::mutex mutex_;
  std::condition_variable changed_;
  std::function<void()> undo_;
  int signal_ = 0;  // the one that the process ends by when the request is done; 0 before it came
  enum class Script { none, starts, runs, ended } script_ = Script::none;
  pid_t processID_ = 0;  // while it runs
};

}  // namespace VarnScripts
