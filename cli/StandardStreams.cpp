#include "StandardStreams.h"

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <cerrno>
#include <string>

#include "PrintableText.h"

namespace VarnScripts {
namespace {

void openNullDevice(int descriptor, int flags) {
  const int opened = ::open("/dev/null", flags | O_CLOEXEC);
  if (opened < 0) return;
  if (opened == descriptor) {
    // Already the right number, which must reach the script.
    ::fcntl(opened, F_SETFD, 0);
    return;
  }
  ::dup2(opened, descriptor);
  ::close(opened);
}

bool isClosed(int descriptor) { return ::fcntl(descriptor, F_GETFD) == -1 && errno == EBADF; }

}  // namespace

void openStandardStreams() {
  openNullDevice(STDIN_FILENO, O_RDONLY);
  for (const int descriptor : {STDOUT_FILENO, STDERR_FILENO}) {
    if (isClosed(descriptor)) openNullDevice(descriptor, O_WRONLY);
  }
}

void writeAll(int descriptor, std::string_view text, std::error_code& error) {
  error.clear();
  while (!text.empty()) {
    const ssize_t written = ::write(descriptor, text.data(), text.size());
    if (written >= 0) {
      text.remove_prefix(static_cast<std::size_t>(written));
      continue;
    }
    if (errno == EINTR) continue;
    if (errno == EAGAIN || errno == EWOULDBLOCK) {
      // The other end left the stream non-blocking.
      pollfd writable{descriptor, POLLOUT, 0};
      if (::poll(&writable, 1, -1) >= 0 || errno == EINTR) continue;
    }
    error.assign(errno, std::generic_category());
    return;
  }
}

bool writeOutput(std::string_view text) {
  std::error_code error;
  writeAll(STDOUT_FILENO, text, error);
  if (!error) return true;
  writeErrorLine("varn-scripts: standard output can't be written: " + error.message());
  return false;
}

void writeErrorLine(std::string_view line) {
  std::error_code ignored;
  writeAll(STDERR_FILENO, printable(line) + '\n', ignored);
}

void writeOutOfMemory() noexcept {
  static constexpr char kLine[] = "varn-scripts: out of memory\n";
  // A standard error that is gone leaves the exit status to tell.
  [[maybe_unused]] const auto written = ::write(STDERR_FILENO, kLine, sizeof kLine - 1);
}

}  // namespace VarnScripts
