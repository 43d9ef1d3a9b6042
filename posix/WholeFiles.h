// Files that are read and replaced whole, durably. Any thread.

#pragma once

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <limits>
#include <string>
#include <string_view>
#include <system_error>
#include <utility>

#include "Calls.h"
#include "FileDescriptor.h"

namespace posix {

// ---- Reading

/// Whether a text of `size` bytes can be in this computer's memory at all. A system that promises
/// memory which it does not have would only end the process when it is used.
[[nodiscard]] inline bool canHold(std::size_t size) noexcept {
  // What every computer has the memory for.
  constexpr std::size_t kSmall = std::size_t{1} << 20;
  if (size <= kSmall) return true;
  const long pages = ::sysconf(_SC_PHYS_PAGES);
  const long pageSize = ::sysconf(_SC_PAGESIZE);
  if (pages <= 0 || pageSize <= 0) return true;
  return size / static_cast<std::size_t>(pageSize) <= static_cast<std::size_t>(pages);
}

/// What comes from `fd` until its end, which is waited for, behind `bytes`, which may bring the
/// room for it. More than `mostBytes` is `std::errc::file_too_large`. After an error the result is
/// empty.
[[nodiscard]] inline std::string readAll(int fd, std::uint64_t mostBytes, std::error_code& error,
                                         std::string bytes = {}) {
  // By way of a small buffer, which stays in the processor's cache: filling the text with zeros to
  // read into it would cost more than the copy.
  std::array<char, std::size_t{16} * 1024> piece;
  std::size_t got = piece.size();
  while (got == piece.size()) {
    got = readInto(fd, piece.data(), piece.size(), error);
    bytes.append(piece.data(), got);
    if (bytes.size() > mostBytes) error = std::make_error_code(std::errc::file_too_large);
    if (error) return {};
  }
  return bytes;
}

/// What becomes of a symbolic link at the end of a path.
enum class LastLink { follow, refuse };

/// A file that is open, and what it was when it was opened.
struct OpenedFile {
  FileDescriptor descriptor;
  struct stat status {};
};

/// Opens the regular file at `path` to read it. Something else is the error
/// `std::errc::invalid_argument`, and is not waited for.
[[nodiscard]] inline OpenedFile openRegularFile(const std::string& path, LastLink link,
                                                std::error_code& error) {
  error.clear();
  // Without waiting: a FIFO would hold whoever opens it.
  const int flags = O_RDONLY | O_NONBLOCK | O_CLOEXEC | (link == LastLink::refuse ? O_NOFOLLOW : 0);
  OpenedFile opened{FileDescriptor(retryOnInterrupt([&] { return ::open(path.c_str(), flags); })),
                    {}};
  if (!opened.descriptor || ::fstat(opened.descriptor.get(), &opened.status) != 0) {
    error = lastError();
  } else if (!S_ISREG(opened.status.st_mode)) {
    error = std::make_error_code(std::errc::invalid_argument);
  }
  return opened;
}

/// A regular file's bytes, permission bits and owner.
struct RegularFile {
  std::string bytes;
  mode_t permissions = 0;
  uid_t owner = 0;
};

/// The regular file at `path`, opened as by `openRegularFile`. One of more than `mostBytes` is
/// `std::errc::file_too_large`, one that no memory can hold `std::errc::not_enough_memory`, and
/// neither is read.
[[nodiscard]] inline RegularFile readRegularFile(
    const std::string& path, LastLink link, std::error_code& error,
    std::uint64_t mostBytes = std::numeric_limits<std::uint64_t>::max()) {
  constexpr mode_t kPermissionBits = 07777;
  const OpenedFile opened = openRegularFile(path, link, error);
  if (error) return {};
  const auto size = static_cast<std::size_t>(opened.status.st_size);
  if (size > mostBytes) error = std::make_error_code(std::errc::file_too_large);
  if (!error && !canHold(size)) error = std::make_error_code(std::errc::not_enough_memory);
  if (error) return {};
  std::string room;
  room.reserve(size);
  std::string bytes = readAll(opened.descriptor.get(), mostBytes, error, std::move(room));
  if (error) return {};
  return {std::move(bytes), static_cast<mode_t>(opened.status.st_mode & kPermissionBits),
          opened.status.st_uid};
}

/// An error of `openRegularFile` or `readRegularFile` in words.
[[nodiscard]] inline std::string whyNotRead(const std::error_code& error) {
  return error == std::errc::invalid_argument ? "it is not a regular file" : error.message();
}

// ---- Writing

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
