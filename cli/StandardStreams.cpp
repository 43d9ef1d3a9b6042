#include "StandardStreams.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstddef>
#include <cstdio>
#include <mutex>
#include <string>

#include "Calls.h"
#include "PrintableText.h"

namespace VarnScripts {
namespace {

// To be read alone: what is written where there is nobody fails, and is not taken for written.
void openNullDevice(int descriptor) {
  const int opened = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
  if (opened < 0) return;
  if (opened == descriptor) {
    // Already the right number, which must reach the script.
    ::fcntl(opened, F_SETFD, 0);
    return;
  }
  ::dup2(opened, descriptor);
  ::close(opened);
}

// What a terminal shows, and who writes to it.
struct Screen {
  std::timed_mutex mutex;
  std::string status;       // the text of the status line; empty without one
  bool isDrawn = false;     // it is there, and the cursor at its beginning
  bool isLineOpen = false;  // output has not ended its line
};

Screen& screen() {
  // Never destroyed: threads may still write while the process ends.
  static Screen& instance = *new Screen;
  return instance;
}

// Whether standard error takes something, after a wait of no more than `wait`. A stopped terminal
// takes nothing until it goes on.
bool takesText(std::chrono::milliseconds wait) noexcept {
  pollfd writable{STDERR_FILENO, POLLOUT, 0};
  return ::poll(&writable, 1, static_cast<int>(wait.count())) == 1 &&
         (writable.revents & POLLOUT) != 0;
}

void hideStatus(Screen& shown) noexcept {
  if (!shown.isDrawn) return;
  std::error_code ignored;
  posix::writeAll(STDERR_FILENO, "\r\x1b[K", ignored);
  shown.isDrawn = false;
}

// The columns of the terminal; 0 when it does not tell.
std::size_t columns() noexcept {
  struct winsize size {};
  return ::ioctl(STDERR_FILENO, TIOCGWINSZ, &size) == 0 ? size.ws_col : 0;
}

// The cursor rests at the line's beginning, so that a log line covers what stands there, and what
// is typed does too.
void drawStatus(Screen& shown) noexcept {
  if (shown.status.empty() || shown.isLineOpen || !takesText(std::chrono::seconds(0))) return;
  std::string_view text = shown.status;
  if (const std::size_t width = columns(); width > 0) text = text.substr(0, width - 1);
  // At once, so that no log line comes between.
  std::array<char, 256> line{};
  const int length =
      std::snprintf(line.data(), line.size(), "\r%.*s\x1b[K\r",
                    static_cast<int>(std::min<std::size_t>(text.size(), 200)), text.data());
  std::error_code ignored;
  posix::writeAll(STDERR_FILENO, {line.data(), static_cast<std::size_t>(length)}, ignored);
  shown.isDrawn = true;
}

bool isClosed(int descriptor) { return ::fcntl(descriptor, F_GETFD) == -1 && errno == EBADF; }

}  // namespace

posix::FileDescriptor openStandardStreams() {
  // Not into the place of another closed one.
  posix::FileDescriptor input(::fcntl(STDIN_FILENO, F_DUPFD_CLOEXEC, STDERR_FILENO + 1));
  openNullDevice(STDIN_FILENO);
  for (const int descriptor : {STDOUT_FILENO, STDERR_FILENO}) {
    if (isClosed(descriptor)) openNullDevice(descriptor);
  }
  return input;
}

bool isStandardInput(const struct stat& status) {
  struct stat input {};
  return S_ISCHR(status.st_mode) && ::fstat(STDIN_FILENO, &input) == 0 && S_ISCHR(input.st_mode) &&
         input.st_rdev == status.st_rdev;
}

bool isOutputTerminal() { return ::isatty(STDOUT_FILENO) == 1; }

bool isErrorTerminal() { return ::isatty(STDERR_FILENO) == 1; }

bool writeOutput(std::string_view text) {
  std::error_code error;
  writeOutput(text, error);
  if (error) writeErrorLine("varn-scripts: " + outputFailure(error));
  return !error;
}

void writeOutput(std::string_view text, std::error_code& error) noexcept {
  error.clear();
  if (text.empty()) return;
  // A pipe that nobody reads keeps nobody else from writing.
  if (!isOutputTerminal()) return posix::writeAll(STDOUT_FILENO, text, error);
  Screen& shown = screen();
  const std::lock_guard lock(shown.mutex);
  hideStatus(shown);
  posix::writeAll(STDOUT_FILENO, text, error);
  shown.isLineOpen = text.back() != '\n';
  drawStatus(shown);
}

std::string outputFailure(const std::error_code& error) {
  return "standard output can't be written: " + error.message();
}

void writeErrorLine(std::string_view line) {
  const std::string text = printable(line) + '\n';
  Screen& shown = screen();
  const std::lock_guard lock(shown.mutex);
  hideStatus(shown);
  std::error_code ignored;
  // Below output that has not ended its line, where both stand on one terminal.
  if (shown.isLineOpen && isErrorTerminal()) posix::writeAll(STDERR_FILENO, "\n", ignored);
  shown.isLineOpen = false;
  posix::writeAll(STDERR_FILENO, text, ignored);
  drawStatus(shown);
}

void writeOutOfMemory() noexcept {
  static constexpr char kLine[] = "varn-scripts: out of memory\n";
  // A standard error that is gone leaves the exit status to tell.
  [[maybe_unused]] const auto written = ::write(STDERR_FILENO, kLine, sizeof kLine - 1);
}

void showStatusLine(std::string_view text) {
  Screen& shown = screen();
  const std::lock_guard lock(shown.mutex);
  shown.status = text;
  if (!text.empty()) return drawStatus(shown);
  // A terminal that does not take it now takes it soon, or has been stopped.
  if (shown.isDrawn && takesText(std::chrono::seconds(1))) hideStatus(shown);
}

void leaveTerminalClean() noexcept {
  static std::atomic<bool> isLeft{false};
  if (isLeft.exchange(true)) return;
  Screen& shown = screen();
  // Whoever writes to a terminal that has been stopped does not let go.
  if (!shown.mutex.try_lock_for(std::chrono::milliseconds(200))) return;
  if (takesText(std::chrono::seconds(0))) hideStatus(shown);
}

}  // namespace VarnScripts
