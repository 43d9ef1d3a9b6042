// A file descriptor with an owner.

#pragma once

#include <unistd.h>

#include <utility>

namespace posix {

/// Owns one file descriptor and closes it. Empty when it holds -1.
class FileDescriptor {
 public:
  FileDescriptor() = default;
  explicit FileDescriptor(int fd) : fd_(fd) {}
  FileDescriptor(FileDescriptor&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
  FileDescriptor& operator=(FileDescriptor&& other) noexcept {
    // What was held is closed with `other`.
    std::swap(fd_, other.fd_);
    return *this;
  }
  ~FileDescriptor() { reset(); }

  explicit operator bool() const { return fd_ >= 0; }
  [[nodiscard]] int get() const { return fd_; }

  /// Gives the descriptor away.
  [[nodiscard]] int release() { return std::exchange(fd_, -1); }

  void reset() {
    // Not retried on EINTR: the descriptor is gone either way.
    if (fd_ >= 0) ::close(std::exchange(fd_, -1));
  }

 private:
  int fd_ = -1;
};

}  // namespace posix
