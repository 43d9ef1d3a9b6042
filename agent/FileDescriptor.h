// One open file descriptor, its name and its end.

#pragma once

#include <sys/stat.h>
#include <unistd.h>

#include <string>
#include <utility>

namespace AgentUtils {

/// Owns a file descriptor, or none (-1), and closes it.
class FileDescriptor {
 public:
  FileDescriptor() = default;
  explicit FileDescriptor(int fd) : fd_(fd) {}
  FileDescriptor(FileDescriptor&& other) noexcept : fd_(other.release()) {}
  FileDescriptor& operator=(FileDescriptor&& other) noexcept {
    std::swap(fd_, other.fd_);
    return *this;
  }
  ~FileDescriptor() {
    if (fd_ >= 0) close(fd_);
  }

  [[nodiscard]] int get() const { return fd_; }
  [[nodiscard]] bool isOpen() const { return fd_ >= 0; }
  /// Gives the descriptor away.
  [[nodiscard]] int release() { return std::exchange(fd_, -1); }

 private:
  int fd_ = -1;
};

/// Whether the open file still has the name `path`, which another process may have given away.
inline bool hasName(const FileDescriptor& file, const std::string& path) {
  struct stat opened {};
  struct stat named {};
  return fstat(file.get(), &opened) == 0 && lstat(path.c_str(), &named) == 0 &&
         opened.st_dev == named.st_dev && opened.st_ino == named.st_ino;
}

}  // namespace AgentUtils
