// JSON written piece by piece. The library's own objects are not used for it: their destructors
// allocate, and an exhausted memory would then end the process.

#pragma once

#include <algorithm>
#include <cstddef>
#include <nlohmann/json.hpp>
#include <string>
#include <string_view>

#include "Pieces.h"
#include "PrintableText.h"

/// What becomes of bytes that are not UTF-8.
enum class NotUTF8 {
  replaced,  ///< by U+FFFD
  thrown,    ///< as an exception
};

/// `text` as a JSON text, with its quotation marks.
[[nodiscard]] inline std::string jsonText(const std::string& text, NotUTF8 notUTF8) {
  using Handler = nlohmann::json::error_handler_t;
  return nlohmann::json(text).dump(
      -1, ' ', false, notUTF8 == NotUTF8::replaced ? Handler::replace : Handler::strict);
}

/// Adds `text` as a JSON text to `to`, with its quotation marks, a part at a time; bytes that are
/// not UTF-8 are replaced. As `jsonText` gives the whole, and printable.
inline void addJSONText(std::string_view text, Pieces& to) {
  constexpr std::size_t part = std::size_t{64} * 1024;
  const auto continues = [](char byte) { return (byte & 0xC0) == 0x80; };
  to.add("\"");
  while (!text.empty()) {
    std::size_t end = std::min(part, text.size());
    // Not inside a character. More continuing bytes than a character has are characters themselves.
    for (int back = 0; back < 3 && end < text.size() && continues(text[end]); ++back) --end;
    if (end < text.size() && continues(text[end])) end = part;
    const std::string quoted = jsonText(std::string(text.substr(0, end)), NotUTF8::replaced);
    addPrintableJSON(std::string_view(quoted).substr(1, quoted.size() - 2), to);
    text.remove_prefix(end);
  }
  to.add("\"");
}

/// A JSON object, its members in the order in which they are added.
class JsonObjectText {
 public:
  /// Adds a member whose value is JSON already.
  void add(const std::string& key, const std::string& json) {
    if (object_.size() > 1) object_ += ',';
    object_ += jsonText(key, NotUTF8::thrown);
    object_ += ':';
    object_ += json;
  }

  /// The object with the members added so far.
  [[nodiscard]] std::string text() const { return object_ + '}'; }

 private:
  std::string object_ = "{";
};
