#include "StandardStreams.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <string>

#include "Calls.h"
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

posix::FileDescriptor openStandardStreams() {
  // Not into the place of another closed one.
  posix::FileDescriptor input(::fcntl(STDIN_FILENO, F_DUPFD_CLOEXEC, STDERR_FILENO + 1));
  openNullDevice(STDIN_FILENO, O_RDONLY);
  for (const int descriptor : {STDOUT_FILENO, STDERR_FILENO}) {
    if (isClosed(descriptor)) openNullDevice(descriptor, O_WRONLY);
  }
  return input;
}

bool writeOutput(std::string_view text) {
  std::error_code error;
  posix::writeAll(STDOUT_FILENO, text, error);
  if (!error) return true;
  writeErrorLine("varn-scripts: standard output can't be written: " + error.message());
  return false;
}

void writeErrorLine(std::string_view line) {
  std::error_code ignored;
  posix::writeAll(STDERR_FILENO, printable(line) + '\n', ignored);
}

void writeOutOfMemory() noexcept {
  static constexpr char kLine[] = "varn-scripts: out of memory\n";
  // A standard error that is gone leaves the exit status to tell.
  [[maybe_unused]] const auto written = ::write(STDERR_FILENO, kLine, sizeof kLine - 1);
}

}  // namespace VarnScripts
