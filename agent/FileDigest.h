// The digest of a file's content. No state; any thread.

#pragma once

#include <cstddef>
#include <optional>
#include <string>

#include "DigestName.h"
#include "FileDescriptor.h"

namespace AgentUtils {

using posix::FileDescriptor;

/// The digest, in bytes, of the whole open file, wherever its descriptor stands. It is read in
/// pieces, so its size costs no memory; `size` is about how large it is. Nothing when it can't be
/// read.
[[nodiscard]] std::optional<std::string> digestOfFile(Digest digest, const FileDescriptor& file,
                                                      std::size_t size);

}  // namespace AgentUtils
