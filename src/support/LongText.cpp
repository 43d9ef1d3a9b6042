#include "support/LongText.h"

#include <algorithm>
#include <utility>

#include "platform/Memory.h"
#include "support/Guard.h"

namespace VarnScriptRepository {
namespace {

/// Up to here a text grows as strings do; copying so little costs next to nothing.
constexpr std::size_t kShort = std::size_t{1} << 20;

/// Up to here it gets little room at a time. Not every host leaves memory alone that it was given:
/// some lock or fill all of it, and on some it counts against others at once. Few scripts write so
/// much.
constexpr std::size_t kMedium = std::size_t{16} << 20;

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
  if (length <= kMedium) return reserve(kMedium) || reserve(length + length / 4);
  const std::size_t least = length / 4;
  room_ = std::max(room_, least);
  while (!reserve(length + room_)) {
    if (room_ == least) return false;
    room_ = std::max(room_ / 2, least);
  }
  return true;
}

bool LongText::reserve(std::size_t capacity) noexcept {
  return guarded(false, [&] {
    // A new text, because one that is there would ask for twice its size at least.
    std::string larger;
    larger.reserve(capacity);
    platform::useLargePages(larger.data(), larger.capacity());
    larger.append(text_);
    text_ = std::move(larger);
    return true;
  });
}

}  // namespace VarnScriptRepository
