// How the bundled parser tells another bundled module that a document was none. The parser knows
// bytes, not where they come from, and stands alone where it is linked alone. Any thread.

#pragma once

namespace MarkupParser {

/// From now on `notify` is called after each document that does not decode, or none of whose
/// elements is the record's (a page of a server in between, say), on the thread that decoded it.
/// There is one such function in a process, the one that was given last.
void notifyOfUndecodable(void (*notify)() noexcept) noexcept;

}  // namespace MarkupParser
