#include "SignalForwarding.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <thread>

#include "Children.h"

namespace VarnScripts {
namespace {

// How long a script that is just being launched is given to show as a child, each time.
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
  struct sigaction action {};
  action.sa_handler = SIG_DFL;
  ::sigaction(signal, &action, nullptr);
  const sigset_t only = setOf(signal);
  ::pthread_sigmask(SIG_UNBLOCK, &only, nullptr);
  ::raise(signal);
  ::_exit(128 + signal);
}

// To the script's group, and to the script itself where it has left it or is yet to make it; false
// when it was just changing over. One that is stopped hears nothing until it goes on.
bool signalChild(pid_t child, int signal) {
  const auto send = [signal](pid_t to) { return ::kill(to, signal) == 0 || errno != ESRCH; };
  const bool groupHasIt = send(-child);
  const bool itselfHasIt = ::getpgid(child) != child && send(child);
  ::kill(-child, SIGCONT);
  ::kill(child, SIGCONT);
  return groupHasIt || itselfHasIt;
}

}  // namespace

SignalForwarding::SignalForwarding() : foreignChildren_(children()) {
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

void SignalForwarding::see(const AgentLog::Record& record) {
  // Between these two lines, and the runner's own about a failed start, the script may be running.
  const bool isRunner = record.source == "ScriptRepositoryUtil";
  const bool begins = isRunner && record.message.starts_with("Execute ");
  const bool ends = record.source == "ScriptRepositoryProcessor" ||
                    record.message.starts_with("Launch path not available: ") ||
                    record.message.starts_with("Launch failed: ");
  const std::lock_guard lock(mutex_);
  if (begins) scriptBegan_ = scriptRuns_ = true;
  if (ends) {
    scriptRuns_ = false;
    runEnded_.notify_all();
  }
}

void SignalForwarding::endWhenStopped() {
  const std::lock_guard lock(mutex_);
  if (signal_ != 0) endBy(signal_);
}

void SignalForwarding::forward() {
  const int first = take(signals_);
  {
    std::unique_lock lock(mutex_);
    // While the lock is held, the line before a start is not taken, and nothing is started.
    if (!scriptBegan_) {
      if (undo_) undo_();
      endBy(first);
    }
    signal_ = first;
    passOn(first, lock);
  }
  const int second = take(signals_);
  const std::lock_guard lock(mutex_);
  if (scriptRuns_) signalScript(second);
  endBy(second);
}

void SignalForwarding::passOn(int signal, std::unique_lock<std::mutex>& lock) {
  while (scriptRuns_ && !signalScript(signal)) {
    if (std::any_of(std::begin(kForwarded), std::end(kForwarded),
                    [this](int other) { return isPending(other); })) {
      return;
    }
    runEnded_.wait_for(lock, kLookAgain);
  }
}

bool SignalForwarding::signalScript(int signal) const {
  auto script = children();
  std::erase_if(script, [this](pid_t child) {
    return std::find(foreignChildren_.begin(), foreignChildren_.end(), child) !=
           foreignChildren_.end();
  });
  // One wish may come as two signals in one breath: timeout(1) sends one to its child and one to
  // the group of both. What comes after the script was told is another wish.
  if (!script.empty() && isPending(signal)) take(setOf(signal));
  bool told = false;
  for (const pid_t child : script) told = signalChild(child, signal) || told;
  return told;
}

bool SignalForwarding::isPending(int signal) const {
  sigset_t pending;
  return ::sigpending(&pending) == 0 && sigismember(&pending, signal) == 1 &&
         sigismember(&signals_, signal) == 1;
}

}  // namespace VarnScripts
