// Which content earlier lists named, kept as a comment at the end of the list itself: the list and
// its history are replaced as one, so no interruption can part them.
//
// A content name stands with the newest list that named it and is not in any newer one. Pure
// functions; any thread.

#pragma once

#include <cstddef>
#include <set>
#include <string>
#include <string_view>
#include <vector>

namespace VarnScripts::publishing {

/// Content names: "data/DIGEST.xml", "files/DIGEST.sh".
using ContentNames = std::set<std::string>;

/// For each earlier list, newest first, the content that no newer list names.
using History = std::vector<ContentNames>;

/// The history in a list document; empty without one. Whatever is no content name is left out.
[[nodiscard]] History historyIn(std::string_view list);

/// The comment that follows the list's document; empty for an empty history.
[[nodiscard]] std::string historyComment(const History& history);

/// The history after the list that named `previous` is replaced by one that names `current`.
[[nodiscard]] History advanced(History history, ContentNames previous, const ContentNames& current);

/// The newest `lists` lists of a history, without what `current` names.
[[nodiscard]] History limited(History history, std::size_t lists, const ContentNames& current);

}  // namespace VarnScripts::publishing
