// What each system spells in its own way about files: the time of the last change, and short texts
// that the file system keeps with a file, which go where the file goes and end with it. Not every
// file system has the latter, so whatever is kept there must be dispensable.

#pragma once

#include <sys/stat.h>

#include <cstddef>
#include <cstdint>
#include <string>

#include "FileDescriptor.h"

namespace AgentUtils {

using posix::FileDescriptor;

/// When the file or anything that is known about it was changed last, in nanoseconds since 1970.
/// Unlike the time of its content's change, nobody can set it.
[[nodiscard]] std::int64_t changeTime(const struct stat& status);

/// The attribute `name` ("user.varn.download") of the open file. Empty when the file has none, when
/// the file system has no attributes, or when it is longer than `mostBytes`.
[[nodiscard]] std::string fileAttribute(const FileDescriptor& file, const char* name,
                                        std::size_t mostBytes);

/// Sets the attribute; does nothing where that can't be done.
void setFileAttribute(const FileDescriptor& file, const char* name, const std::string& value);

/// Removes the attribute. Whether there was one and it is gone.
bool removeFileAttribute(const FileDescriptor& file, const char* name);

}  // namespace AgentUtils
