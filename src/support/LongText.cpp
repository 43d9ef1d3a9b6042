#include "support/LongText.h"

#include <algorithm>

#include "platform/Memory.h"
#include "support/Guard.h"

namespace VarnScriptRepository {
namespace {

/// Up to here a text grows as strings do; copying so little costs next to nothing.
constexpr std::size_t kShort = std::size_t{1} << 20;

}  // namespace

bool LongText::append(std::string_view piece) noexcept {
  const std::size_t length = text_.size() + piece.size();
  if (length > text_.capacity() && length > kShort && !makeRoomFor(length)) return false;
  return guarded(false, [&] {
    text_.append(piece);
    return true;
  });
}

/// Asks for far more than is needed: memory that was never written to is address space alone. Where
/// so much is refused (a limit on the process, a system that lends no more than it has) it is less
/// and less, down to a quarter of the text; by that the copying stays in proportion to the text.
bool LongText::makeRoomFor(std::size_t length) noexcept {
  const std::size_t least = length / 4;
  room_ = std::max(room_, least);
  const auto reserved = [&] {
    return guarded(false, [&] {
      text_.reserve(length + room_);
      return true;
    });
  };
  while (!reserved()) {
    if (room_ == least) return false;
    room_ = std::max(room_ / 2, least);
  }
  platform::useLargePages(text_.data() + text_.size(), text_.capacity() - text_.size());
  return true;
}

}  // namespace VarnScriptRepository
