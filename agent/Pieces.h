// Long texts on their way out: handed on piece by piece, so that no copy of a whole one is made.

#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <utility>

/// The beginning of a text in UTF-8, at most `most` bytes of it and not inside of a character.
inline std::string_view beginningOf(std::string_view text, std::uint64_t most) {
  if (text.size() <= most) return text;
  auto end = static_cast<std::size_t>(most);
  while (end > 0 && (text[end] & 0xC0) == 0x80) --end;
  return text.substr(0, end);
}

/// Takes the next piece of a text.
using TextSink = std::function<void(std::string_view)>;

/// Collects short texts to pieces of some size. A text of no more than a piece's size is handed on
/// as one.
class Pieces {
 public:
  static constexpr std::size_t kMost = std::size_t{1} << 20;

  explicit Pieces(TextSink to) : to_(std::move(to)) {}

  void add(std::string_view text) {
    if (piece_.size() + text.size() > kMost) end();
    if (text.size() > kMost) return to_(text);
    piece_ += text;
  }

  /// Hands on what is left. Called when all has been added.
  void end() {
    if (!piece_.empty()) to_(piece_);
    piece_.clear();
  }

 private:
  TextSink to_;
  std::string piece_;
};
