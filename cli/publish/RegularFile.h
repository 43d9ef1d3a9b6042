// Whole-file reads that neither wait nor follow where they should not. Any thread.

#pragma once

#include <sys/types.h>

#include <string>
#include <system_error>

namespace VarnScripts::publishing {

enum class LastLink { follow, refuse };

/// A regular file's bytes and permission bits.
struct RegularFile {
  std::string bytes;
  mode_t permissions = 0;
};

/// The regular file at `path`; `link` says what becomes of a symbolic link there. Something else
/// than a regular file is the error `std::errc::invalid_argument`, and is not waited for.
[[nodiscard]] RegularFile readRegularFile(const std::string& path, LastLink link,
                                          std::error_code& error);

}  // namespace VarnScripts::publishing
