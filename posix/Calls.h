// What all callers of the operating system need beside its calls: interrupted ones are repeated,
// errors have words, whole texts are read and written, a file is told from its names. Any thread.

#pragma once

#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <string>
#include <string_view>
#include <system_error>

#include "FileDescriptor.h"

namespace posix {

/// The current `errno` as an error code.
[[nodiscard]] inline std::error_code lastError() noexcept {
  return {errno, std::generic_category()};
}

/// Repeats a system call as long as a signal interrupts it.
template <class Call>
auto retryOnInterrupt(Call&& call) {
  while (true) {
    const auto result = call();
    if (result >= 0 || errno != EINTR) return result;
  }
}

/// Whether the call on `fd` that has just failed can be made again: somebody has left the
/// descriptor non-blocking, and now, after a wait, it is ready for `events`. When not, `errno` says
/// why.
[[nodiscard]] inline bool isReadyNow(int fd, short events) {
  if (errno != EAGAIN && errno != EWOULDBLOCK) return false;
  pollfd waited{fd, events, 0};
  return retryOnInterrupt([&] { return ::poll(&waited, 1, -1); }) >= 0;
}

/// Writes all of `bytes`, also to a descriptor that somebody has left non-blocking. After an error,
/// `error` says why, and a beginning of the bytes may have been written.
inline void writeAll(int fd, std::string_view bytes, std::error_code& error) {
  error.clear();
  while (!bytes.empty()) {
    const ssize_t written =
        retryOnInterrupt([&] { return ::write(fd, bytes.data(), bytes.size()); });
    if (written > 0) {
      bytes.remove_prefix(static_cast<std::size_t>(written));
      continue;
    }
    if (written < 0 && isReadyNow(fd, POLLOUT)) continue;
    error = written == 0 ? std::make_error_code(std::errc::io_error) : lastError();
    return;
  }
}

/// Reads into `buffer` until its `size` bytes are full or the end of `fd` has come, also from a
/// descriptor that somebody has left non-blocking. Gives how many bytes came; after an error these
/// came before it.
[[nodiscard]] inline std::size_t readInto(int fd, void* buffer, std::size_t size,
                                          std::error_code& error) {
  error.clear();
  std::size_t held = 0;
  while (held < size) {
    const ssize_t count = retryOnInterrupt(
        [&] { return ::read(fd, static_cast<char*>(buffer) + held, size - held); });
    if (count > 0) held += static_cast<std::size_t>(count);
    if (count > 0 || (count < 0 && isReadyNow(fd, POLLIN))) continue;
    if (count < 0) error = lastError();
    break;
  }
  return held;
}

/// The path of the directory that `path` names something in: "/a" of "/a/b", "." of "b".
[[nodiscard]] inline std::string directoryOf(const std::string& path) {
  const std::size_t slash = path.rfind('/');
  if (slash == std::string::npos) return ".";
  return slash == 0 ? "/" : path.substr(0, slash);
}

/// Returns when the bytes of the file, or the names in the directory, at `path` are on the disk.
inline void syncPath(const std::string& path, std::error_code& error) {
  error.clear();
  const FileDescriptor file(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
  if (!file || retryOnInterrupt([&] { return ::fsync(file.get()); }) != 0) error = lastError();
}

/// Whether the open file still has the name `path`, which another process may have given away.
[[nodiscard]] inline bool hasName(const FileDescriptor& file, const std::string& path) {
  struct stat opened {};
  struct stat named {};
  return ::fstat(file.get(), &opened) == 0 && ::lstat(path.c_str(), &named) == 0 &&
         opened.st_dev == named.st_dev && opened.st_ino == named.st_ino;
}

}  // namespace posix
