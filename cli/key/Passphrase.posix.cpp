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

namespace VarnScripts::keys {
namespace {

using AgentUtils::signing::Refusal;
using posix::FileDescriptor;

using Answer = std::variant<Passphrase, Refusal>;

Refusal refusal(const std::string& why) { return {"the passphrase " + why}; }

// Bytes up to the first line break or the end, one at a time: nothing behind them is taken from a
// pipe that others read as well. `readByte` reads into its argument, with the result of `read`.
template <class ReadByte>
Answer firstLine(const ReadByte& readByte) {
  Passphrase line;
  while (true) {
    char c = '\0';
    const ssize_t count = readByte(c);
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

/// Has the signals that end a process noted, for as long as it lives, and held back but for the
/// waits: one that came just before a wait would not end it.
class NotedSignals {
 public:
  NotedSignals() {
    caughtSignal = 0;
    struct sigaction note {};
    note.sa_handler = noteSignal;
    sigset_t held;
    ::sigemptyset(&held);
    for (const int signal : kSignals) ::sigaddset(&held, signal);
    ::pthread_sigmask(SIG_BLOCK, &held, &outside_);
    for (std::size_t i = 0; i < kSignals.size(); ++i) {
      ::sigaction(kSignals[i], nullptr, &before_[i]);
      // What whoever started this process has it ignore goes on being ignored.
      if (before_[i].sa_handler != SIG_IGN) ::sigaction(kSignals[i], &note, nullptr);
    }
  }
  NotedSignals(const NotedSignals&) = delete;
  NotedSignals& operator=(const NotedSignals&) = delete;
  ~NotedSignals() {
    for (std::size_t i = 0; i < kSignals.size(); ++i) {
      ::sigaction(kSignals[i], &before_[i], nullptr);
    }
    ::pthread_sigmask(SIG_SETMASK, &outside_, nullptr);
  }

  /// Waits for a byte from `fd`, which is non-blocking, and reads it. One of the signals is the
  /// error `EINTR`.
  [[nodiscard]] ssize_t readByte(int fd, char& byte) const {
    while (caughtSignal == 0) {
      fd_set readable;
      FD_ZERO(&readable);
      FD_SET(fd, &readable);
      if (::pselect(fd + 1, &readable, nullptr, nullptr, nullptr, &outside_) < 0) {
        if (errno == EINTR) continue;
        return -1;
      }
      // What was typed may have been taken back meanwhile.
      const ssize_t count = ::read(fd, &byte, 1);
      if (count >= 0 || errno != EAGAIN) return count;
    }
    errno = EINTR;
    return -1;
  }

 private:
  static constexpr std::array kSignals = {SIGINT, SIGTERM, SIGHUP, SIGQUIT};
  std::array<struct sigaction, kSignals.size()> before_{};
  sigset_t outside_{};
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
  Answer answer = firstLine([&](char& c) { return signals.readByte(terminal, c); });
  // The line break that was typed was not shown either.
  posix::writeAll(terminal, "\n", ignored);
  return answer;
}

}  // namespace

Answer askForPassphrase(const std::string& question) {
  const FileDescriptor terminal(::open("/dev/tty", O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC));
  // With more descriptors open than `pselect` counts, nobody is at this terminal.
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
  const bool isOpen = (status.st_mode & (S_IRWXG | S_IRWXO)) != 0;
  if (S_ISREG(status.st_mode) && isOpen) {
    return unreadable("others than its owner may use it; chmod 600 mends that");
  }
  return firstLine(
      [&](char& c) { return posix::retryOnInterrupt([&] { return ::read(file.get(), &c, 1); }); });
}

}  // namespace VarnScripts::keys
