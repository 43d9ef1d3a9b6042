// What the operating system can be told about the use of memory.

#pragma once

#include <cstddef>

namespace VarnScriptRepository::platform {

/// Says that all of this memory, not used so far, is about to be written from its beginning. The
/// system may then provide it in larger pages, which takes a fraction of the time. Its content and
/// `errno` stay as they are.
void useLargePages(void* begin, std::size_t size) noexcept;

}  // namespace VarnScriptRepository::platform
