#include "PrintableText.h"

#include <utf8proc.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstring>

namespace {

bool isPrintableASCII(char byte) { return byte >= 0x20 && byte < 0x7f; }

/// How many printable ASCII characters `text` begins with, looked at a word at a time.
std::size_t printableRun(std::string_view text) {
  constexpr std::uint64_t each = 0x0101010101010101U;
  std::size_t length = 0;
  while (text.size() - length >= sizeof(std::uint64_t)) {
    std::uint64_t word = 0;
    std::memcpy(&word, text.data() + length, sizeof word);
    // The highest bit comes up in a byte that is below a blank, DEL, or no ASCII.
    if ((((word - 0x20 * each) | (word + each) | word) & (0x80 * each)) != 0) break;
    length += sizeof word;
  }
  while (length < text.size() && isPrintableASCII(text[length])) ++length;
  return length;
}

bool steers(std::int32_t character) {
  const auto isBetween = [character](std::int32_t first, std::int32_t last) {
    return character >= first && character <= last;
  };
  return character < 0x20 || isBetween(0x7f, 0x9f)  // C0, DEL and C1
         || isBetween(0x2028, 0x202e)               // separators, embeddings and overrides
         || isBetween(0x2066, 0x2069)               // isolates
         || isBetween(0x200e, 0x200f) || character == 0x061c;  // marks of a direction
}

struct CodePoint {
  std::int32_t value;  ///< -1 for a byte that is no character
  std::size_t length;  ///< in bytes
};

CodePoint codePointAt(std::string_view text, std::size_t at) {
  if (const auto byte = static_cast<unsigned char>(text[at]); byte < 0x80) return {byte, 1};
  // A sequence has at most four bytes; the function takes signed lengths.
  const std::string_view rest = text.substr(at, 4);
  std::int32_t value = -1;
  const auto length = utf8proc_iterate(reinterpret_cast<const utf8proc_uint8_t*>(rest.data()),
                                       static_cast<utf8proc_ssize_t>(rest.size()), &value);
  if (length <= 0) return {-1, 1};
  return {value, static_cast<std::size_t>(length)};
}

/// Adds `text`; `addEscape` adds what is shown for a character that steers, or for a byte that is
/// no character, with the code -1.
template <class AddEscape>
void addEscaped(std::string_view text, Pieces& to, const AddEscape& addEscape) {
  std::size_t shown = 0;  // what has been added
  for (std::size_t at = printableRun(text); at < text.size(); at += printableRun(text.substr(at))) {
    const CodePoint character = codePointAt(text, at);
    if (steers(character.value)) {
      to.add(text.substr(shown, at - shown));
      addEscape(character.value);
      shown = at + character.length;
    }
    at += character.length;
  }
  to.add(text.substr(shown));
}

template <class Add>
std::string collected(const Add& add) {
  std::string text;
  Pieces pieces([&text](std::string_view piece) { text += piece; });
  add(pieces);
  pieces.end();
  return text;
}

}  // namespace

void addPrintable(std::string_view text, Pieces& to) {
  addEscaped(text, to, [&to](std::int32_t character) {
    to.add(character == '\n' ? "\\n" : character == '\r' ? "\\r" : character == '\t' ? "\\t" : "?");
  });
}

std::string printable(std::string_view text) {
  return collected([text](Pieces& to) { addPrintable(text, to); });
}

void addPrintableJSON(std::string_view json, Pieces& to) {
  addEscaped(json, to, [&to](std::int32_t character) {
    std::array<char, 16> escape{};
    // All of them have four digits. What is no UTF-8 becomes what JSON has for it.
    std::snprintf(escape.data(), escape.size(), "\\u%04x",
                  character < 0 ? 0xfffdU : static_cast<unsigned>(character));
    to.add(escape.data());
  });
}

std::string printableJSON(std::string_view json) {
  return collected([json](Pieces& to) { addPrintableJSON(json, to); });
}
