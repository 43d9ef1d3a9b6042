// Reads of whole files. Any thread.

#pragma once

#include <sys/types.h>

#include <cstdint>
#include <limits>
#include <string>
#include <system_error>

#include "FileDescriptor.h"

namespace VarnScripts {

enum class LastLink { follow, refuse };

/// A regular file's bytes, permission bits and owner.
struct RegularFile {
  std::string bytes;
  mode_t permissions = 0;
  uid_t owner = 0;
};

/// The regular file at `path`; `link` says what becomes of a symbolic link there. Something else
/// than a regular file is the error `std::errc::invalid_argument`, and is not waited for; one of
/// more than `mostBytes` is `std::errc::file_too_large`, one that no memory can hold
/// `std::errc::not_enough_memory`, and neither is read.
[[nodiscard]] RegularFile readRegularFile(
    const std::string& path, LastLink link, std::error_code& error,
    std::uint64_t mostBytes = std::numeric_limits<std::uint64_t>::max());

/// What comes from `file` until its end, which is waited for. More than `mostBytes` is the error
/// `std::errc::file_too_large`.
[[nodiscard]] std::string readToEnd(const posix::FileDescriptor& file, std::error_code& error,
                                    std::uint64_t mostBytes);

/// An error of `readRegularFile` in words.
[[nodiscard]] std::string whyNotRead(const std::error_code& error);

}  // namespace VarnScripts
