// Names that clients can give to files, and texts that documents can carry. Pure functions; any
// thread.

#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

namespace VarnScripts::publishing {

/// Where the first byte stands that is no part of UTF-8 text, or nothing when there is none.
[[nodiscard]] std::optional<std::size_t> firstByteThatIsNotUTF8(std::string_view bytes);

/// The first code point that no XML document can carry, as "U+0001", or nothing. `text` is UTF-8.
[[nodiscard]] std::optional<std::string> firstUnfitForXML(std::string_view text);

/// Why `name` can't be that of a file on the clients, or nothing: "contains a slash".
[[nodiscard]] std::optional<std::string> complaintAboutName(std::string_view name);

}  // namespace VarnScripts::publishing
