// A text that grows by pieces and may become very long: the output of a child, whose end nobody
// knows beforehand. One thread at a time.

#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <utility>

namespace VarnScriptRepository {

/// Takes a piece after the other without copying again and again what it has, and without holding
/// more memory than the text needs.
class LongText {
 public:
  /// Appends `piece`. Without memory for it the result is false and the text is as it was.
  bool append(std::string_view piece) noexcept;

  /// The text, which the object no longer has.
  [[nodiscard]] std::string take() noexcept { return std::move(text_); }

 private:
  bool makeRoomFor(std::size_t length) noexcept;
  bool reserve(std::size_t capacity) noexcept;

  std::string text_;
  std::size_t room_ = std::uint64_t{4} << 30;  // what is asked for beyond the present length
};

}  // namespace VarnScriptRepository
