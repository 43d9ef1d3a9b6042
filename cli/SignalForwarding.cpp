#include "SignalForwarding.h"

#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <iterator>
#include <thread>

#include "StandardStreams.h"

namespace VarnScripts {
namespace {

// How often a second signal is looked for while a script is being started.
constexpr std::chrono::milliseconds kLookAgain{2};

constexpr int kForwarded[] = {SIGINT, SIGTERM, SIGHUP};

bool isIgnored(int signal) {
  struct sigaction action {};
  return ::sigaction(signal, nullptr, &action) == 0 && action.sa_handler == SIG_IGN;
}

sigset_t setOf(int signal) {
  sigset_t only;
  sigemptyset(&only);
  sigaddset(&only, signal);
  return only;
}

// Waits for one of `signals`, which are blocked, and takes it.
int take(const sigset_t& signals) {
  int signal = 0;
  while (::sigwait(&signals, &signal) != 0) {
  }
  return signal;
}

// Ends this process by `signal`, for whoever waits for it to see.
[[noreturn]] void endBy(int signal) {
  leaveTerminalClean();
  struct sigaction action {};
  action.sa_handler = SIG_DFL;
  ::sigaction(signal, &action, nullptr);
  const sigset_t only = setOf(signal);
  ::pthread_sigmask(SIG_UNBLOCK, &only, nullptr);
  ::raise(signal);
  ::_exit(128 + signal);
}

// To the script's group, and to the script itself where it has left it. One that is stopped hears
// nothing until it goes on.
void sendTo(pid_t script, int signal) {
  for (const int each : {signal, SIGCONT}) {
    ::kill(-script, each);
    if (::getpgid(script) != script) ::kill(script, each);
  }
}

}  // namespace

SignalForwarding::SignalForwarding() {
  sigemptyset(&signals_);
  bool any = false;
  for (const int signal : kForwarded) {
    if (isIgnored(signal)) continue;
    sigaddset(&signals_, signal);
    any = true;
  }
  if (!any) return;
  ::pthread_sigmask(SIG_BLOCK, &signals_, nullptr);
  std::thread([this] { forward(); }).detach();
}

void SignalForwarding::guard(const std::function<std::function<void()>()>& make) {
  const std::lock_guard lock(mutex_);
  undo_ = make();
}

void SignalForwarding::scriptStarts() {
  const std::lock_guard lock(mutex_);
  script_ = Script::starts;
}

void SignalForwarding::scriptStarted(int processID) {
  const std::lock_guard lock(mutex_);
  script_ = Script::runs;
  processID_ = processID;
  changed_.notify_all();
}

void SignalForwarding::scriptIsGone() {
  const std::lock_guard lock(mutex_);
  script_ = Script::ended;
  changed_.notify_all();
}

void SignalForwarding::endWhenStopped() {
  const std::lock_guard lock(mutex_);
  if (signal_ != 0) endBy(signal_);
}

void SignalForwarding::forward() {
  const int first = take(signals_);
  {
    std::unique_lock lock(mutex_);
    // While the lock is held, nothing is started.
    if (script_ == Script::none) {
      // What the work says that finds itself undone is of no use.
      leaveTerminalClean();
      if (undo_) undo_();
      endBy(first);
    }
    signal_ = first;
    passOn(first, lock);
  }
  const int second = take(signals_);
  const std::lock_guard lock(mutex_);
  signalScript(second);
  endBy(second);
}

void SignalForwarding::passOn(int signal, std::unique_lock<std::mutex>& lock) {
  // A start may hang, when its files lie on a disk that does not answer; another signal ends that.
  while (script_ == Script::starts) {
    if (std::any_of(std::begin(kForwarded), std::end(kForwarded),
                    [this](int other) { return isPending(other); })) {
      return;
    }
    changed_.wait_for(lock, kLookAgain);
  }
  // One wish may come as two signals in one breath: timeout(1) sends one to its child and one to
  // the group of both. What comes after the script was signalled is another wish.
  if (isPending(signal)) take(setOf(signal));
  signalScript(signal);
}

void SignalForwarding::signalScript(int signal) const {
  if (script_ == Script::runs) sendTo(processID_, signal);
}

bool SignalForwarding::isPending(int signal) const {
  sigset_t pending;
  return ::sigpending(&pending) == 0 && sigismember(&pending, signal) == 1 &&
         sigismember(&signals_, signal) == 1;
}

}  // namespace VarnScripts
