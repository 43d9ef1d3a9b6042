// The part of Child.h that is the same on every POSIX system.

#include <fcntl.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/wait.h>

#include <algorithm>
#include <cerrno>
#include <initializer_list>
#include <string_view>
#include <utility>

#include "platform/ChildParts.h"

namespace VarnScriptRepository::platform {

FileDescriptor beyondStandardDescriptors(FileDescriptor fd) noexcept {
  if (fd.get() > STDERR_FILENO) return fd;
  return FileDescriptor(::fcntl(fd.get(), F_DUPFD_CLOEXEC, STDERR_FILENO + 1));
}

std::size_t bytesHeld(int readingEnd) noexcept {
  int held = 0;
  if (::ioctl(readingEnd, FIONREAD, &held) != 0 || held < 0) return pipeCapacity(readingEnd);
  return static_cast<std::size_t>(held);
}

bool hasNUL(const Program& program) noexcept {
  const auto contains = [](std::string_view text) { return text.find('\0') != text.npos; };
  if (contains(program.launchPath) || contains(program.directory)) return true;
  return std::ranges::any_of(program.arguments, contains);
}

std::vector<char*> argumentPointers(const Program& program) {
  std::vector<char*> pointers;
  pointers.reserve(program.arguments.size() + 2);
  // exec takes pointers to mutable characters for historical reasons; it does not write to them.
  pointers.push_back(const_cast<char*>(program.launchPath.c_str()));
  for (const std::string& argument : program.arguments) {
    pointers.push_back(const_cast<char*>(argument.c_str()));
  }
  pointers.push_back(nullptr);
  return pointers;
}

EndStatus statusFromWait(int status) noexcept {
  if (WIFSIGNALED(status)) return {WTERMSIG(status), true};
  return {WEXITSTATUS(status)};
}

Child::Child(Child&& other) noexcept
    : processID_(std::exchange(other.processID_, 0)),
      endDescriptor_(std::move(other.endDescriptor_)) {}

Child::~Child() {
  if (processID_ != 0) static_cast<void>(reap());
}

bool Child::hasEnded() const noexcept {
  siginfo_t info{};
  const int result = retryOnInterrupt([&] {
    return ::waitid(P_PID, static_cast<id_t>(processID_), &info, WEXITED | WNOHANG | WNOWAIT);
  });
  // Where the host ignores SIGCHLD an ended child is gone, and the call fails. macOS tells of a
  // stopped child too, although it was not asked to.
  return result != 0 || info.si_code == CLD_EXITED || info.si_code == CLD_KILLED ||
         info.si_code == CLD_DUMPED;
}

void Child::terminateGroup() const noexcept {
  // What is stopped hears the first signal when it gets the second.
  for (const int signal : {SIGTERM, SIGCONT}) {
    ::kill(-processID_, signal);
    if (::getpgid(processID_) != processID_) ::kill(processID_, signal);
  }
}

}  // namespace VarnScriptRepository::platform
