#include "key/Passphrase.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/select.h>
#include <sys/stat.h>
#include <termios.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <system_error>
#include <utility>

#include "Calls.h"
#include "FileDescriptor.h"
#include "StandardStreams.h"
#include "key/KeyFiles.h"

namespace VarnScripts::keys {
namespace {

using AgentUtils::signing::Refusal;
using posix::FileDescriptor;

using Answer = std::variant<Passphrase, Refusal>;

Refusal refusal(const std::string& why) { return {"the passphrase " + why}; }

// Bytes up to the first line break or the end, one at a time: nothing behind them is taken from a
// pipe that others read as well. `mayRead` is called before each, and says whether to go on.
template <class MayRead>
Answer firstLine(int fd, const MayRead& mayRead) {
  Passphrase line;
  while (true) {
    if (!mayRead()) return refusal("was not given");
    char c = '\0';
    const ssize_t count = posix::retryOnInterrupt([&] { return ::read(fd, &c, 1); });
    // What was typed may have been taken back after the wait for it.
    if (count < 0 && errno == EAGAIN) continue;
    if (count < 0) return refusal("can't be read: " + posix::lastError().message());
    if (count == 0 || c == '\n') break;
    const bool fits = line.add({&c, 1});
    wipe(&c, 1);
    if (!fits) return refusal("is longer than " + std::to_string(kLongestPassphrase) + " bytes");
  }
  if (line.size() == 0) return refusal("is empty");
  return line;
}

// Which signal has come since the terminal was asked.
volatile sig_atomic_t caughtSignal = 0;

void noteSignal(int signal) { caughtSignal = signal; }

/// Has the signals that end a process noted, for as long as it lives: while this thread waits for
/// a key, and at no other moment, or one could come right before a wait that then never ends.
class NotedSignals {
 public:
  NotedSignals() {
    caughtSignal = 0;
    sigset_t noted;
    sigemptyset(&noted);
    for (const int signal : kSignals) sigaddset(&noted, signal);
    ::pthread_sigmask(SIG_BLOCK, &noted, &maskBefore_);
    struct sigaction note {};
    note.sa_handler = noteSignal;
    for (std::size_t i = 0; i < kSignals.size(); ++i) {
      ::sigaction(kSignals[i], nullptr, &before_[i]);
      // What whoever started this process has it ignore goes on being ignored.
      if (before_[i].sa_handler != SIG_IGN) ::sigaction(kSignals[i], &note, nullptr);
    }
  }
  NotedSignals(const NotedSignals&) = delete;
  NotedSignals& operator=(const NotedSignals&) = delete;
  ~NotedSignals() {
    // The mask first: what has come after the last wait is noted, too.
    ::pthread_sigmask(SIG_SETMASK, &maskBefore_, nullptr);
    for (std::size_t i = 0; i < kSignals.size(); ++i) {
      ::sigaction(kSignals[i], &before_[i], nullptr);
    }
  }

  /// Waits for something to read, or a signal; whether none has come.
  [[nodiscard]] bool waitForKey(int terminal) const {
    while (caughtSignal == 0) {
      fd_set keys;
      FD_ZERO(&keys);
      FD_SET(terminal, &keys);
      const int ready = ::pselect(terminal + 1, &keys, nullptr, nullptr, nullptr, &maskBefore_);
      if (ready >= 0 || errno != EINTR) break;
    }
    return caughtSignal == 0;
  }

 private:
  static constexpr std::array kSignals = {SIGINT, SIGTERM, SIGHUP, SIGQUIT};
  std::array<struct sigaction, kSignals.size()> before_{};
  sigset_t maskBefore_{};
};

/// A terminal that shows nothing of what is typed, for as long as it lives.
class SilentTerminal {
 public:
  explicit SilentTerminal(int fd) : fd_(fd) {
    if (::tcgetattr(fd_, &before_) != 0) return;
    termios silent = before_;
    silent.c_lflag &= ~static_cast<tcflag_t>(ECHO | ECHOE | ECHOK | ECHONL);
    // A process that is suspended here would leave the terminal silent.
    silent.c_cc[VSUSP] = _POSIX_VDISABLE;
    // What was typed before the question is no answer to it.
    isSilent_ = ::tcsetattr(fd_, TCSAFLUSH, &silent) == 0;
  }
  SilentTerminal(const SilentTerminal&) = delete;
  SilentTerminal& operator=(const SilentTerminal&) = delete;
  ~SilentTerminal() {
    if (isSilent_) ::tcsetattr(fd_, TCSAFLUSH, &before_);
  }

  [[nodiscard]] bool isSilent() const { return isSilent_; }

 private:
  const int fd_;
  termios before_{};
  bool isSilent_ = false;
};

Answer ask(int terminal, const std::string& question) {
  const NotedSignals signals;
  const SilentTerminal silent(terminal);
  if (!silent.isSilent()) return refusal("can't be asked for: the terminal can't be made silent");
  std::error_code ignored;
  posix::writeAll(terminal, question, ignored);
  Answer answer = firstLine(terminal, [&] { return signals.waitForKey(terminal); });
  // The line break that was typed was not shown either.
  posix::writeAll(terminal, "\n", ignored);
  return answer;
}

}  // namespace

Answer askForPassphrase(const std::string& question) {
  const FileDescriptor terminal(::open("/dev/tty", O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC));
  if (!terminal || terminal.get() >= FD_SETSIZE) {
    return refusal("can't be asked for without a terminal: give it with --passphrase-file");
  }
  Answer answer = ask(terminal.get(), question);
  if (caughtSignal != 0) ::raise(caughtSignal);
  return answer;
}

Answer passphraseIn(const std::string& path) {
  const auto unreadable = [&path](const std::string& why) {
    return refusal("file " + path + " can't be read: " + why);
  };
  const FileDescriptor file(
      posix::retryOnInterrupt([&] { return ::open(path.c_str(), O_RDONLY | O_CLOEXEC); }));
  struct stat status {};
  if (!file || ::fstat(file.get(), &status) != 0) return unreadable(posix::lastError().message());
  if (isStandardInput(status)) {
    return unreadable(kStandardInputUnread +
                      std::string("; give a file, or a pipe such as /dev/fd/3"));
  }
  const std::string isOpen = S_ISREG(status.st_mode) ? openToOthers(status) : "";
  if (!isOpen.empty()) return refusal("file " + path + " is not used: " + isOpen);
  return firstLine(file.get(), [] { return true; });
}

}  // namespace VarnScripts::keys
