// Text by user-perceived characters, as the platform's strings have it: equality, characters,
// white space, and the texts that log lines show.
//
// Text is UTF-8. A byte that is no part of a UTF-8 sequence counts as a character of its own. Pure
// functions; any thread.

#pragma once

#include <cstddef>
#include <initializer_list>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace VarnScriptRepository::text {

/// Whether two texts are equal: canonically equivalent spellings of a character are equal, case and
/// everything else count. Texts that are not UTF-8 are equal when their bytes are.
[[nodiscard]] bool equal(std::string_view a, std::string_view b);

/// A key that two texts share exactly when they are `equal`.
[[nodiscard]] std::string equalityKey(std::string_view text);

/// A key that two names share exactly when a file system that folds letter case and Unicode
/// normalisation keeps them in one file. A name that is not UTF-8 is its own key.
[[nodiscard]] std::string foldedName(std::string_view name);

/// Walks over the user-perceived characters of a text, which must outlive the walk.
class Characters {
 public:
  explicit Characters(std::string_view text);

  /// The next character, or nothing at the end.
  [[nodiscard]] std::optional<std::string_view> next();

 private:
  std::string_view rest_;
  bool ascii_;
};

/// Whether a character is white space; its first code point decides. Line breaks are white space.
[[nodiscard]] bool isWhitespace(std::string_view character);

/// `text` without white space at either end.
[[nodiscard]] std::string_view trimmed(std::string_view text);

/// What follows the last dot of the last path component; empty when it has no dot. Slashes at the
/// end of the path do not count. "a/tool.sh/" and ".sh" give "sh".
[[nodiscard]] std::string_view pathExtension(std::string_view path);

/// The pieces of `text` between `separator`s, exactly as they stand. There is always at least one:
/// "0," gives "0" and an empty piece, an empty text gives one empty piece.
[[nodiscard]] std::vector<std::string> pieces(std::string_view text, char separator);

/// `text` with every `from` replaced by `to`, in one pass from left to right.
[[nodiscard]] std::string replacingAll(std::string_view text, std::string_view from,
                                       std::string_view to);

/// The texts one after the other, in room for just that: what is joined may be very long.
[[nodiscard]] std::string joined(std::initializer_list<std::string_view> texts);

/// A list as log lines show it: `["a", "say \"b\""]`. A double quote or a backslash of an element
/// is preceded by a backslash; an empty list is `[]`.
[[nodiscard]] std::string listText(const std::vector<std::string>& elements);

}  // namespace VarnScriptRepository::text
