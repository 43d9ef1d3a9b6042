// Files that are read and replaced whole, durably. Any thread.

#pragma once

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <string>
#include <string_view>
#include <system_error>

#include "Calls.h"
#include "FileDescriptor.h"

namespace posix {

/// What can be read from `fd` up to its end, about `expected` bytes. More than `mostBytes` is
/// `std::errc::file_too_large`. After an error the result is empty.
[[nodiscard]] inline std::string readAll(int fd, std::uint64_t mostBytes, std::error_code& error,
                                         std::size_t expected = 0) {
  error.clear();
  std::string bytes;
  bytes.reserve(expected);
  std::array<char, 65536> part;
  while (true) {
    const ssize_t count = retryOnInterrupt([&] { return ::read(fd, part.data(), part.size()); });
    if (count == 0) return bytes;
    if (count < 0) error = lastError();
    if (count > 0) bytes.append(part.data(), static_cast<std::size_t>(count));
    if (bytes.size() > mostBytes) error = std::make_error_code(std::errc::file_too_large);
    if (error) return {};
  }
}

/// Returns when the names in `directory` are on the disk, where the file system can tell: some have
/// no such operation and keep their names as well as they can.
inline void syncDirectory(const std::string& directory, std::error_code& error) {
  syncPath(directory, error);
  if (error == std::errc::invalid_argument) error.clear();
}

/// Makes the file `path`, which must not be there, with `bytes` in it and exactly `mode`, and
/// returns when the bytes are on the disk; the name is when the directory is synced. After an error
/// there is no such file, unless it was there before.
inline void makeFile(const std::string& path, std::string_view bytes, mode_t mode,
                     std::error_code& error) {
  error.clear();
  const FileDescriptor file(::open(
      path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, S_IRUSR | S_IWUSR));
  if (!file) {
    error = lastError();
    return;
  }
  writeAll(file.get(), bytes, error);
  // The umask may have taken away more than it should.
  if (!error && ::fchmod(file.get(), mode) != 0) error = lastError();
  if (!error && retryOnInterrupt([&] { return ::fsync(file.get()); }) != 0) error = lastError();
  if (error) ::unlink(path.c_str());
}

/// Puts a file with `bytes` and `mode` in the place of `path`, a link there not followed, and
/// returns when it is on the disk. Whoever calls sees to it that nobody else does so at the same
/// time. After an error either the old file or the whole new one is there.
inline void replaceFile(const std::string& path, std::string_view bytes, mode_t mode,
                        std::error_code& error) {
  const std::string temporary = path + ".new";
  // What an interrupted call has left.
  ::unlink(temporary.c_str());
  makeFile(temporary, bytes, mode, error);
  if (error) return;
  if (std::rename(temporary.c_str(), path.c_str()) != 0) {
    error = lastError();
    ::unlink(temporary.c_str());
    return;
  }
  syncDirectory(directoryOf(path), error);
}

}  // namespace posix
