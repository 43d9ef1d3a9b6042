// A file descriptor with an owner, and the retry of interrupted calls.

#pragma once

#include <unistd.h>

#include <cerrno>
#include <utility>

namespace VarnScriptRepository::platform {

/// Owns one file descriptor and closes it. Empty when it holds -1.
class FileDescriptor {
 public:
  FileDescriptor() = default;
  explicit FileDescriptor(int fd) : fd_(fd) {}
  FileDescriptor(FileDescriptor&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
  FileDescriptor(const FileDescriptor&) = delete;
  FileDescriptor& operator=(const FileDescriptor&) = delete;
  ~FileDescriptor() { reset(); }

  explicit operator bool() const { return fd_ >= 0; }
  [[nodiscard]] int get() const { return fd_; }

  void reset() {
    // Not retried on EINTR: the descriptor is gone either way.
    if (fd_ >= 0) ::close(std::exchange(fd_, -1));
  }

 private:
  int fd_ = -1;
};

/// Repeats a system call as long as a signal interrupts it.
template <class Call>
auto retryOnInterrupt(Call&& call) {
  while (true) {
    const auto result = call();
    if (result >= 0 || errno != EINTR) return result;
  }
}

}  // namespace VarnScriptRepository::platform
