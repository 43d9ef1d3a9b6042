// Files as the library needs them: whole-file reads, existence, removal, and the words for what
// went wrong. Paths are UTF-8 text. Any thread.

#pragma once

#include <string>
#include <system_error>

namespace VarnScriptRepository::files {

/// Whether something exists at `path`: a file, a directory, or a link to one.
[[nodiscard]] bool exists(const std::string& path) noexcept;

/// The bytes of the regular file at `path`. On failure the result is empty and `error` is set; on
/// success `error` is cleared.
[[nodiscard]] std::string readWhole(const std::string& path, std::error_code& error);

/// Removes the item at `path`: a file, a link (not what it points to), or a directory with all that
/// is in it. On failure `error` is set; on success it is cleared.
void removeItem(const std::string& path, std::error_code& error);

/// What `error` says, in the C locale's words whatever the process's locale is: "Permission
/// denied".
[[nodiscard]] std::string description(const std::error_code& error);

}  // namespace VarnScriptRepository::files
