// Names as the clients' file systems see them, and texts as the documents can carry them. Pure
// functions; any thread.

#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

namespace VarnScripts::publishing {

/// A key that two names share exactly when a file system that folds letter case and Unicode
/// normalisation keeps them in one file. `name` is UTF-8.
[[nodiscard]] std::string foldedName(std::string_view name);

/// A key that two texts share exactly when they are canonically equivalent. `text` is UTF-8.
[[nodiscard]] std::string canonicalText(std::string_view text);

/// Where the first byte stands that is no part of UTF-8 text, or nothing when there is none.
[[nodiscard]] std::optional<std::size_t> firstByteThatIsNotUTF8(std::string_view bytes);

/// The first code point that no XML document can carry, as "U+0001", or nothing. `text` is UTF-8.
[[nodiscard]] std::optional<std::string> firstUnfitForXML(std::string_view text);

/// Why `name` can't be that of a file on the clients, or nothing: "contains a slash".
[[nodiscard]] std::optional<std::string> complaintAboutName(std::string_view name);

}  // namespace VarnScripts::publishing
