// Files as the library needs them: whole-file reads, existence, removal, and the words for what
// went wrong. Paths are UTF-8 text; one that holds a NUL names nothing, whatever stands before the
// NUL. Any thread.

#pragma once

#include <string>
#include <system_error>

namespace VarnScriptRepository::files {

/// Whether something exists at `path`: a file, a directory, or a link to one.
[[nodiscard]] bool exists(const std::string& path) noexcept;

/// The bytes of the regular file at `path`. On failure the result is empty and `error` is set; on
/// success `error` is cleared. A file that is too large for memory is a failure like any other.
[[nodiscard]] std::string readWhole(const std::string& path, std::error_code& error);

/// Removes the item at `path`: a file, a link (not what it points to, also with slashes behind it),
/// or a directory with all that is in it, at any depth. No link on the way down is followed, not
/// one that takes a directory's place meanwhile either. Nothing but a directory with something in
/// it needs a descriptor. On failure `error` is set; on success it is cleared.
void removeItem(const std::string& path, std::error_code& error);

/// How `path` is called from `directory`, the links of all directories resolved ("job.sh"). Empty
/// when it is not below it: it names the directory itself or something elsewhere, if anything.
[[nodiscard]] std::string nameBelow(const std::string& directory, const std::string& path);

/// The directory at `path` with its links resolved, and a slash; empty when there is none.
[[nodiscard]] std::string resolvedDirectory(const std::string& path);

/// What `error` says, in the C locale's words whatever the process's locale is: "Permission
/// denied".
[[nodiscard]] std::string description(const std::error_code& error);

}  // namespace VarnScriptRepository::files
