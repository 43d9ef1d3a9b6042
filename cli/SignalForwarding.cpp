#include "SignalForwarding.h"

#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <thread>

#include "ChildGroups.h"

namespace VarnScripts {
namespace {

// A script that was about to be launched shows as a child within this time, or not at all.
constexpr std::chrono::seconds kLaunchTime{2};
constexpr std::chrono::milliseconds kLookAgain{2};

constexpr int kForwarded[] = {SIGINT, SIGTERM, SIGHUP};

bool isIgnored(int signal) {
  struct sigaction action {};
  return ::sigaction(signal, nullptr, &action) == 0 && action.sa_handler == SIG_IGN;
}

// Ends this process by `signal`, for whoever waits for it to see.
[[noreturn]] void endBy(int signal) {
  struct sigaction action {};
  action.sa_handler = SIG_DFL;
  ::sigaction(signal, &action, nullptr);
  sigset_t only;
  sigemptyset(&only);
  sigaddset(&only, signal);
  ::pthread_sigmask(SIG_UNBLOCK, &only, nullptr);
  ::raise(signal);
  ::_exit(128 + signal);
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
  std::thread([this] { waitForSignal(); }).detach();
}

void SignalForwarding::see(const AgentLog::Record& record) {
  // Between these two lines, and the runner's own about a failed start, the script may be running.
  const bool isRunner = record.source == "ScriptRepositoryUtil";
  const bool begins = isRunner && record.message.starts_with("Execute ");
  const bool ends = record.source == "ScriptRepositoryProcessor" ||
                    record.message.starts_with("Launch path not available: ") ||
                    record.message.starts_with("Launch failed: ");
  std::unique_lock lock(mutex_);
  if (ends) {
    scriptRuns_ = false;
    runEnded_.notify_all();
  }
  waitForEndWhenStopping(lock);
  if (begins) scriptRuns_ = true;
}

void SignalForwarding::passUnlessStopping() {
  std::unique_lock lock(mutex_);
  waitForEndWhenStopping(lock);
}

void SignalForwarding::waitForEndWhenStopping(std::unique_lock<std::mutex>& lock) const {
  if (!stopping_) return;
  lock.unlock();
  for (;;) ::pause();
}

void SignalForwarding::waitForSignal() {
  int signal = 0;
  while (::sigwait(&signals_, &signal) != 0) {
  }
  passOn(signal);
  endBy(signal);
}

void SignalForwarding::passOn(int signal) {
  std::unique_lock lock(mutex_);
  stopping_ = true;
  const auto deadline = std::chrono::steady_clock::now() + kLaunchTime;
  while (scriptRuns_) {
    auto groups = childGroups();
    std::erase_if(groups, [this](pid_t group) {
      return std::find(foreignChildren_.begin(), foreignChildren_.end(), group) !=
             foreignChildren_.end();
    });
    for (const pid_t group : groups) ::kill(-group, signal);
    if (!groups.empty() || std::chrono::steady_clock::now() >= deadline) return;
    runEnded_.wait_for(lock, kLookAgain);
  }
}

}  // namespace VarnScripts
