// UTF-8 as the runner meets it: whole chunks of output, which may be very long, and chunks that end
// inside a character. Pure functions; any thread.

#pragma once

#include <cstddef>
#include <string_view>

namespace VarnScriptRepository::text {

/// Whether the bytes are UTF-8: no overlong forms, no surrogates, nothing beyond U+10FFFF.
[[nodiscard]] bool isUTF8(std::string_view bytes);

/// How many bytes are missing from the sequence that `bytes` ends inside of: 1 to 3, or 0 when it
/// ends at a boundary, or with bytes that no continuation can make UTF-8.
[[nodiscard]] std::size_t missingBytesAtEnd(std::string_view bytes);

}  // namespace VarnScriptRepository::text
