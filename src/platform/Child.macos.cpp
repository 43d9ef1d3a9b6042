// Child processes on macOS: posix_spawn, and a kqueue that becomes readable when the child has
// ended.

#include <crt_externs.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/event.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <optional>
#include <thread>
#include <utility>

#include "platform/ChildParts.h"

namespace VarnScriptRepository::platform {
namespace {

/// How often a child is asked for that is about to end.
constexpr std::chrono::milliseconds kAskInterval{1};

/// What posix_spawn is given beside the program. Each step's error ends the setting up.
class SpawnSettings {
 public:
  SpawnSettings() {
    ::posix_spawnattr_init(&attributes_);
    ::posix_spawn_file_actions_init(&actions_);
  }
  SpawnSettings(const SpawnSettings&) = delete;
  SpawnSettings& operator=(const SpawnSettings&) = delete;
  ~SpawnSettings() {
    ::posix_spawn_file_actions_destroy(&actions_);
    ::posix_spawnattr_destroy(&attributes_);
  }

  /// 0, or an error number.
  [[nodiscard]] int apply(const Program& program) {
    if (const int error = applyAttributes()) return error;
    return applyDescriptors(program);
  }

  [[nodiscard]] const posix_spawnattr_t* attributes() const { return &attributes_; }
  [[nodiscard]] const posix_spawn_file_actions_t* actions() const { return &actions_; }

 private:
  int applyAttributes() {
    sigset_t all;
    sigfillset(&all);
    // These two have no other disposition; asking for it may be refused.
    sigdelset(&all, SIGKILL);
    sigdelset(&all, SIGSTOP);
    sigset_t none;
    sigemptyset(&none);
    if (const int error = ::posix_spawnattr_setsigdefault(&attributes_, &all)) return error;
    if (const int error = ::posix_spawnattr_setsigmask(&attributes_, &none)) return error;
    if (const int error = ::posix_spawnattr_setpgroup(&attributes_, 0)) return error;
    constexpr short flags = POSIX_SPAWN_SETSIGDEF | POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETPGROUP |
                            POSIX_SPAWN_CLOEXEC_DEFAULT;
    return ::posix_spawnattr_setflags(&attributes_, flags);
  }

  int applyDescriptors(const Program& program) {
    // Every descriptor closes on exec here, so standard input has to be kept by name.
    if (::fcntl(STDIN_FILENO, F_GETFD) >= 0) {
      if (const int error = ::posix_spawn_file_actions_addinherit_np(&actions_, STDIN_FILENO)) {
        return error;
      }
    }
    for (const int fd : {STDOUT_FILENO, STDERR_FILENO}) {
      if (const int error = ::posix_spawn_file_actions_adddup2(&actions_, program.output, fd)) {
        return error;
      }
    }
    // Newer systems call it deprecated; the function in its place is not there on older ones.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"
    return ::posix_spawn_file_actions_addchdir_np(&actions_, program.directory.c_str());
#pragma GCC diagnostic pop
  }

  posix_spawnattr_t attributes_{};
  posix_spawn_file_actions_t actions_{};
};

/// A kqueue that tells the end of the process, or nothing.
FileDescriptor watchEnd(int processID) noexcept {
  FileDescriptor queue(::kqueue());
  if (!queue) return {};
  ::fcntl(queue.get(), F_SETFD, FD_CLOEXEC);
  struct kevent change {};
  EV_SET(&change, static_cast<uintptr_t>(processID), EVFILT_PROC, EV_ADD,
         NOTE_EXIT | NOTE_EXITSTATUS, 0, nullptr);
  // A child that has ended already can't be watched; `hasEnded` finds it.
  if (::kevent(queue.get(), &change, 1, nullptr, 0, nullptr) != 0) return {};
  return queue;
}

/// The status that the watch has seen, for a host that ignores SIGCHLD.
std::optional<EndStatus> statusFromWatch(int queue) noexcept {
  if (queue < 0) return std::nullopt;
  struct kevent event {};
  const timespec now{};
  if (::kevent(queue, nullptr, 0, &event, 1, &now) != 1) return std::nullopt;
  if ((event.fflags & NOTE_EXITSTATUS) == 0) return std::nullopt;
  return statusFromWait(static_cast<int>(event.data));
}

/// Whether the watch has reported the end, which it goes on to do.
bool hasTold(int queue) noexcept {
  pollfd watched{queue, POLLIN, 0};
  return ::poll(&watched, 1, 0) == 1;
}

bool closeOnExec(const FileDescriptor& fd) { return ::fcntl(fd.get(), F_SETFD, FD_CLOEXEC) == 0; }

}  // namespace

Pipe makePipe(std::error_code& error) {
  error.clear();
  int ends[2];
  if (::pipe(ends) != 0) {
    error = lastError();
    return {};
  }
  Pipe pipe{beyondStandardDescriptors(FileDescriptor(ends[0])),
            beyondStandardDescriptors(FileDescriptor(ends[1]))};
  if (!pipe.readingEnd || !pipe.writingEnd || !closeOnExec(pipe.readingEnd) ||
      !closeOnExec(pipe.writingEnd) || ::fcntl(pipe.readingEnd.get(), F_SETFL, O_NONBLOCK) != 0) {
    error = lastError();
    return {};
  }
  return pipe;
}

std::size_t pipeCapacity(int /*fd*/) noexcept {
  // The most that a pipe grows to here; the system does not tell its present size.
  return std::size_t{64} * 1024;
}

void enlargePipe(int /*fd*/) noexcept {
  // Pipes grow by themselves here.
}

Child Child::launch(const Program& program, std::error_code& error) {
  error.clear();
  if (hasNUL(program)) {
    error = std::make_error_code(std::errc::invalid_argument);
    return {0, FileDescriptor()};
  }
  const std::vector<char*> arguments = argumentPointers(program);
  SpawnSettings settings;
  int failed = settings.apply(program);
  pid_t processID = 0;
  if (failed == 0) {
    // A library has no access to `environ` itself on every version of the system.
    failed = ::posix_spawn(&processID, program.launchPath.c_str(), settings.actions(),
                           settings.attributes(), arguments.data(), *::_NSGetEnviron());
  }
  if (failed != 0) {
    error = {failed, std::generic_category()};
    return {0, FileDescriptor()};
  }
  Child child(processID, watchEnd(processID));
  // A child that was ending meanwhile may be watched and its end never reported; then it is asked
  // for.
  if (child.hasEnded() && !hasTold(child.endDescriptor())) child.endDescriptor_.reset();
  return child;
}

EndStatus Child::reap() noexcept {
  const int processID = std::exchange(processID_, 0);
  // Where the host ignores SIGCHLD, the watch alone keeps the status, and a wait that blocks may
  // last until the host's last child has ended. The watch tells the end before the process can be
  // waited for, so asking once is not enough.
  auto status = statusFromWatch(endDescriptor_.get());
  int raw = 0;
  pid_t waited = 0;
  while ((waited = retryOnInterrupt([&] { return ::waitpid(processID, &raw, WNOHANG); })) == 0) {
    std::this_thread::sleep_for(kAskInterval);
  }
  if (!status && waited == processID) status = statusFromWait(raw);
  if (!status) status = statusFromWatch(endDescriptor_.get());
  return status.value_or(kStatusLost);
}

}  // namespace VarnScriptRepository::platform
